// The files that a device offers: which types there are, where each one's files lie, and how a
// file becomes a descriptor that can be sent while others of the same kind are prepared.
//
// All of it is done before the first byte of the file goes to the host. But for driver files,
// what is open is an unlinked copy: nothing of it is left on disk, whatever becomes of the
// transfer, and no other request can take it away. Any thread; the types that share the working
// directory ("message", "module_info") exclude each other by one process-wide mutex, which is
// never held while a host is waited for.
#pragma once

#include <deque>
#include <optional>
#include <string>
#include <vector>

// One row a type of files.
struct DeviceFileType {
    const char* name;       // what the host asks for
    const char* directory;  // ends in "/"
    const char* prefix;     // of the names that are taken; empty: all
    bool recursive;
    enum class Source {
        kCopied,    // a copy is sent
        kInPlace,   // driver files: read where they are, since a copy would read them twice
        kPrepared,  // copied to the working directory and given to the service account first
        kScripted,  // made by scripts at every request, and removed once they are taken
    } source;
};

// The type of that name; null, with a log line, when there is none.
[[nodiscard]] const DeviceFileType* FindDeviceFileType(const std::string& name);

// A file that is ready to be sent: an open descriptor and the name that the host gets.
class DeviceFile {
public:
    DeviceFile(const DeviceFileType& type, std::string path, std::string relativeName, int fd);
    ~DeviceFile();
    DeviceFile(DeviceFile&& other) noexcept;
    DeviceFile& operator=(DeviceFile&&) = delete;
    DeviceFile(const DeviceFile&) = delete;
    DeviceFile& operator=(const DeviceFile&) = delete;

    const DeviceFileType& type() const { return *type_; }
    const std::string& path() const { return path_; }
    // The path without the directory of its type; begins with "/" in a subdirectory.
    const std::string& relativeName() const { return relativeName_; }
    int fd() const { return fd_; }

private:
    const DeviceFileType* type_;
    std::string path_;
    std::string relativeName_;
    int fd_;  // -1 when moved from
};

// Hands the files of a type out, one after the other. For one request, on its thread.
class DeviceFileWalk {
public:
    // `peerPid`, the host's process, becomes part of the names of copies.
    DeviceFileWalk(const DeviceFileType& type, int peerPid) : type_(type), peerPid_(peerPid) {}

    // Finds the files. 0, also when there is none; -1, with a log line, when the scripts of the
    // type can't be run or its directory can't be read.
    [[nodiscard]] int Find();

    // The next file that can be sent; nothing at the end. Files that can't be prepared, copied
    // whole or opened are left out, with a log line each.
    [[nodiscard]] std::optional<DeviceFile> Next();

private:
    int FindScripted();
    void OpenScripted();

    const DeviceFileType& type_;
    const int peerPid_;
    std::vector<std::string> paths_;  // found, and not opened yet from `next_` on
    size_t next_ = 0;
    // Scripted files that nobody can touch any more: Find opens as many as one request may hold
    // open, and Next more when those are sent. What another request has cleared by then is lost.
    std::deque<DeviceFile> opened_;
};
