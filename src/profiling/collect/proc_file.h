// A file of /proc that is read again and again, whole and in one piece, as cheaply as it can be:
// its descriptor stays open from one reading to the next, as long as the process has descriptors to
// spare; the rest of the files is opened each time.
//
// A kept descriptor belongs to the process that it was opened for. When that has gone the kernel
// refuses to read it, and the file is opened by its path again: it may be another process's by now.
// An open file of /proc costs the kernel about a page, which bounds how many are kept.
//
// An object is used by one thread at a time.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Analysis::Nedra::JobWrapper {

constexpr int64_t kMaxProcFile = 0x20000000;  // bytes of a sampled file at most

class ProcFile {
public:
    enum class Keep { kNever, kIfSpare };
    enum class Outcome {
        kRead,
        kBadSize,  // not in 0..maxSize, or more came than that
        kFailed,   // not to be opened or read
    };

    ProcFile(std::string path, int64_t maxSize, Keep keep = Keep::kIfSpare)
        : path_(std::move(path)), maxSize_(maxSize), keep_(keep) {}
    ~ProcFile() { Close(); }
    ProcFile(const ProcFile&) = delete;
    ProcFile& operator=(const ProcFile&) = delete;

    // Reads the file into `buffer`, which grows as needed and never shrinks; `text` lies in it.
    // `text` is unchanged unless kRead.
    [[nodiscard]] Outcome Read(std::vector<char>* buffer, std::string_view* text);
    // Whether the last reading failed in another way than the one before, or as the first: what
    // goes on failing is told once.
    [[nodiscard]] bool failsAnew() const { return failsAnew_; }

    [[nodiscard]] const std::string& path() const { return path_; }
    // What the system said of the file before its first reading and after a failed one, bytes. In
    // between only what is read counts: these files say 0, whatever they hold.
    [[nodiscard]] int64_t size() const { return size_; }

private:
    [[nodiscard]] Outcome TryRead(std::vector<char>* buffer, std::string_view* text);
    [[nodiscard]] bool Open();
    void Close();
    // Bytes read, or -1.
    [[nodiscard]] int64_t ReadWhole(std::vector<char>* buffer) const;

    const std::string path_;
    const int64_t maxSize_;
    const Keep keep_;
    int64_t size_ = -1;  // not asked for yet, or not to be known
    int fd_ = -1;
    bool isCounted_ = false;  // among the kept ones
    Outcome last_ = Outcome::kRead;
    bool failsAnew_ = false;
};

}  // namespace Analysis::Nedra::JobWrapper
