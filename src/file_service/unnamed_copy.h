// Copies of files that never show in a directory, so that nothing is left of them however the
// process ends. No state; any thread.
#pragma once

#include <string>

#include "hdc/descriptor.h"

enum class CopyEnd {
    kWhole,     // the copy holds what the file held when the copy began
    kBroken,    // the file could be opened, but the copy came out short or there is no room for it
    kNotBegun,  // the file can't be opened or isn't a regular one, or its directory takes no file
};

// Opens a regular file for reading. Less than 0, with a log line, for anything else, a symbolic
// link included: what lies there may have been replaced since its directory was read.
[[nodiscard]] orla::Descriptor OpenRegularFile(const std::string& path);

// Copies a file into one without a name in the same directory. With kWhole `*copy` is open for
// reading and writing, at any position, and its content goes with the last descriptor; otherwise
// `*copy` is nothing and one log line says why. What `*copy` was before is nothing, or an earlier
// copy in that directory, which nobody reads any more: its file is used again, since it costs a
// file system more to make a new one than to fill it with a small log.
//
// The time that the content stems from is as short as the system can make it: shared extents where
// the file system has them, else a copy within the kernel, else one through memory. Room is
// allocated first. Bytes that are appended meanwhile are left out; a file that gets shorter
// meanwhile is kBroken. On a file system whose files need a name the copy has one until it is
// made, and not while anything is written to it.
[[nodiscard]] CopyEnd CopyWithoutName(const std::string& path, orla::Descriptor* copy);
