// Writing a file so that its name always stands for a whole one. One thread at a time in one
// directory.
#pragma once

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

namespace orla::host {

// A file that gets its name when it is whole. Until then it has none, where the file system can do
// without, so that nothing is left of a tool that is killed; elsewhere a hidden one beside it.
class NewFile {
public:
    // In the directory of `path`, which is there. On failure null, and `*problem` says why.
    [[nodiscard]] static std::unique_ptr<NewFile> Open(const std::filesystem::path& path,
                                                       std::string* problem);
    // What was not kept is gone.
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    // Empty on success, else why not; the file is then of no use.
    [[nodiscard]] std::string Write(const char* data, size_t size);
    // Gives it its name; a file or symbolic link that stands there is replaced, never followed.
    // With `durable` the content is on the disk before. Empty on success, else why not; then what
    // stood there stands there still. Once, as the last call.
    [[nodiscard]] std::string Keep(bool durable);

private:
    NewFile(std::filesystem::path path, std::filesystem::path hidden)
        : path_(std::move(path)), hidden_(std::move(hidden)) {}

    [[nodiscard]] bool OpenNameless();
    [[nodiscard]] bool GiveHiddenName();

    const std::filesystem::path path_;
    const std::filesystem::path hidden_;
    int fd_ = -1;
    bool isHidden_ = false;  // has the hidden name
};

// Writes `content` as a new file, durably. Results as Keep.
[[nodiscard]] std::string WriteWhole(const std::filesystem::path& path, std::string_view content);

// Reads a regular file of at most `limit` bytes into `*content`. Empty on success, else why not.
[[nodiscard]] std::string ReadWhole(const std::filesystem::path& path, size_t limit,
                                    std::string* content);

}  // namespace orla::host
