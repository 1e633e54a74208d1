// One pull: asks a device for all files of a type and writes what comes below a directory.
//
// Files get their names when they are whole, so that what stands under a file's own name is always
// the file. A name that would leave the directory is refused; its content is read and dropped,
// since the device sends it anyway. One thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "hdc/velt_packet.h"
#include "host/device_session.h"
#include "host/safe_file.h"

namespace orla::host {

struct PulledFile {
    std::string name;  // as the device gave it
    uint64_t bytes = 0;
    uint64_t size = 0;    // what the device announced
    std::string problem;  // why it isn't there; empty for a whole file
};

enum class PullEnd {
    kDone,      // the device said that this was all; files may still have problems
    kRefused,   // the device said why not
    kNoAnswer,  // the device closed the session at once: it knows no such type
    kBroken,    // the session ended, fell silent or made no sense in the middle
};

// Where a file of that name goes; empty when it would leave `dir`, is no name, or leads down more
// levels than there may be. Slashes at the front and doubled ones have no meaning.
[[nodiscard]] std::filesystem::path PathBelow(const std::filesystem::path& dir,
                                              const std::string& name);

class FilePull {
public:
    struct Options {
        std::filesystem::path dir;
        bool listOnly = false;                                      // write nothing
        int idleTimeoutMs = -1;                                     // longest silence of the device
        std::function<void(const PulledFile&)> progress = nullptr;  // after each slice
    };

    explicit FilePull(Options options) : options_(std::move(options)) {}

    [[nodiscard]] PullEnd Run(Session& session, const std::string& type);

    // All files that were begun, in the order of their coming.
    const std::vector<PulledFile>& files() const { return files_; }
    // What the device or the system said, for kRefused and kBroken.
    const std::string& reason() const { return reason_; }

private:
    enum class Step { kGoOn, kRefused, kFailed };

    Step Take(Session& session, const std::string& bytes);
    Step TakeText(const Velt::MsgProto& message);
    Step TakeSlice(Session& session, const Velt::MsgProto& message);
    Step Fail(const std::string& reason);
    Step EndTextWasAName();
    Step Begin(const std::string& name);
    void Write(const char* data, size_t size);
    void Finish();
    void Drop(const std::string& problem);

    const Options options_;
    std::vector<PulledFile> files_;
    std::string reason_;
    std::set<std::filesystem::path> targets_;  // of all files so far
    size_t controls_ = 0;                      // messages without content in a row
    bool ended_ = false;            // the end text came last; a file may have that name, too
    bool open_ = false;             // files_.back() is being received
    std::unique_ptr<NewFile> out_;  // null while what comes is dropped
};

}  // namespace orla::host
