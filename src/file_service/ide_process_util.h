// Shell commands of the file service. Any thread; each call blocks until its shell has ended.
#pragma once

#include <chrono>
#include <string>

// Runs one command through /bin/sh, with PATH=/usr/bin:/usr/sbin:/var as its whole environment,
// and waits for it. 0 when it ran, whatever it answered: callers look at what it left on disk.
// -1 when it could not be started or waited for. What goes into `command` from outside must
// have passed ShellWord.
[[nodiscard]] int VeltCreateProcess(const std::string& command);

// The same for a program that may not end by itself: after `limit`, a second at least, it is killed
// with all that it has started and that is still in its process group, and the result is -1. The
// limit holds beyond the end of this process, since `timeout` of the coreutils watches over it.
// What the program has started as another account can't be killed, which an error line says.
[[nodiscard]] int VeltCreateProcessFor(const std::string& command, std::chrono::seconds limit);

// Copies a file with cp; both names are quoted where they need it. kFileOk, kFileBadPath for an
// empty name, or kFileError when the command could not be run. A cp that ran and failed answers
// kFileOk and leaves no target, or a short one.
[[nodiscard]] int CopyFile(const std::string& source, const std::string& target);
