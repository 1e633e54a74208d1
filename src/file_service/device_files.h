// The files that a device offers: which types there are, where each one's files lie, and how a
// file becomes a descriptor that can be sent while others of the same kind are prepared.
//
// All of it is done before the first byte of the file goes to the host. But for driver files,
// what is open then has no name any more: nothing of it is left on disk, whatever becomes of the
// transfer or of the process, and no other request can take it away. A file's copy is made in the
// file's own directory, since that is where room for files of its size is provided; where the
// directory takes no file, the file is left out.
//
// Any thread; the types that share the working directory ("message", "module_info") exclude each
// other by one process-wide mutex, which is held neither while a host is waited for nor while the
// scripts of "module_info" run.
#pragma once

#include <chrono>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "hdc/descriptor.h"
#include "server/velt_comm_opt.h"

// A file that is ready to be sent.
struct DeviceFile {
    std::string path;          // for log lines
    std::string relativeName;  // what the host gets; begins with "/" in a subdirectory
    orla::Descriptor content;  // nothing when the copy came out short: the file can't be had whole
};

// One row a type of files.
struct DeviceFileType {
    const char* name;       // what the host asks for
    const char* directory;  // ends in "/"
    const char* prefix;     // of the names that are taken; empty: all
    bool recursive;
    // Made by scripts at every request, and removed once they are taken.
    bool scripted;
    // Makes a file that was found ready. Nothing, with a log line, when it is left out. `spare` is
    // one that was sent, and whose content may be taken for the new one's.
    std::optional<DeviceFile> (*open)(const DeviceFileType& type, const std::string& path,
                                      DeviceFile& spare);
    // Sends the content; as Velt::SendFile.
    int (*send)(const Velt::CommHandle& session, uint16_t type, uint16_t devId, int fd);
};

// The type of that name; null, with a log line, when there is none.
[[nodiscard]] const DeviceFileType* FindDeviceFileType(const std::string& name);

// Longest time that the scripts of a request may take, with the wait for those of another one.
constexpr std::chrono::minutes kScriptLimit{10};

// Hands the files of a type out, one after the other. For one request, on its thread.
class DeviceFileWalk {
public:
    explicit DeviceFileWalk(const DeviceFileType& type) : type_(type) {}
    // Removes the scripted files that were not handed out.
    ~DeviceFileWalk();
    DeviceFileWalk(const DeviceFileWalk&) = delete;
    DeviceFileWalk& operator=(const DeviceFileWalk&) = delete;

    // Finds the files. 0, also when there is none; -1, with a log line, when the scripts of the
    // type can't be run or were killed at the limit, or its directory can't be read.
    [[nodiscard]] int Find(std::chrono::seconds scriptLimit = kScriptLimit);

    // The next file that can be sent; nothing at the end.
    [[nodiscard]] std::optional<DeviceFile> Next();
    // Takes a file back that has been sent. May be left out.
    void TakeBack(DeviceFile file) { spare_ = std::move(file); }

private:
    int FindScripted(std::chrono::seconds scriptLimit);
    void Open(size_t count);

    const DeviceFileType& type_;
    std::vector<std::string> paths_;  // found, and not opened yet from `next_` on
    size_t next_ = 0;
    // Of scripted files FindScripted opens as many as one request may hold open, and Next more
    // when those are sent. What another request has cleared by then is lost.
    std::deque<DeviceFile> opened_;
    DeviceFile spare_;
};
