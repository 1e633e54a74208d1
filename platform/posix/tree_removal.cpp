// mmRmdir of <portability.h>: the removal of a directory with everything below it.
//
// Others may write into the tree while it is being removed, and what they write must not lead
// the removal elsewhere. So no path is ever resolved below the top: every step goes from an
// open directory to one name in it, and never through a symbolic link. The way down is a list on
// the heap. Only its newest levels keep their directories open; an older one is reached again
// through "..", and only when that is still the directory that it was on the way down.
#include <dirent.h>
#include <fcntl.h>
#include <portability.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "descriptor.h"
#include "results.h"

using orla::posix::Descriptor;

namespace {

constexpr size_t kOpenLevels = 8;  // a stream takes a descriptor and 32 KiB
constexpr int kDirectoryOnly = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

struct CloseStream {
    void operator()(DIR* stream) const { closedir(stream); }
};
using Stream = std::unique_ptr<DIR, CloseStream>;

// The directory `name` in `parent` as a stream. Null with errno when it is no directory (a
// symbolic link is none) or can't be read.
Stream OpenIn(int parent, const char* name) {
    const int fd = openat(parent, name, kDirectoryOnly);
    if (fd < 0) {
        return nullptr;
    }
    Stream stream(fdopendir(fd));
    if (stream == nullptr) {
        const int error = errno;
        close(fd);
        errno = error;
    }
    return stream;
}

bool IsDots(const std::string& name) {
    return name == "." || name == "..";
}

// A path as the directory that holds it and its name in there.
struct Place {
    std::string parent;
    std::string name;  // empty for the root
};

Place Split(std::string path) {
    // A trailing slash would make the kernel follow a symbolic link.
    path.erase(path.find_last_not_of('/') + 1);
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return {".", path};
    }
    return {path.substr(0, slash + 1), path.substr(slash + 1)};
}

class TreeRemoval {
public:
    // 0, or the first error number.
    int Run(const char* path);

private:
    struct Level {
        std::string name;  // in the level above
        Stream stream;     // null when closed for the sake of newer levels
        dev_t device;
        ino_t inode;
        std::vector<std::string> entries;  // not yet seen to
    };

    void RemoveEntry(int parent, const std::string& name);
    void Enter(int parent, const std::string& name, int whyNotUnlinked);
    void Push(const std::string& name, Stream stream);
    void ReadEntries(Level* level);
    void Leave(int parentOfTop);
    void Reopen(Level* level, int child);
    void RemoveDirectory(int parent, const std::string& name);
    void Note(int error) { first_error_ = first_error_ == 0 ? error : first_error_; }

    std::vector<Level> levels_;  // from the top down to where the removal is; all of them exist
    int first_error_ = 0;
};

int TreeRemoval::Run(const char* path) {
    if (path[0] == '\0') {
        return ENOENT;
    }
    const Place top = Split(path);
    if (top.name.empty()) {
        return EBUSY;  // what the kernel says to the removal of the root
    }
    if (IsDots(top.name)) {
        return EINVAL;
    }
    // Kept open, since another thread may change the working directory meanwhile.
    const Descriptor parent(open(top.parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (parent.get() < 0) {
        return errno;
    }
    struct stat status;
    if (fstatat(parent.get(), top.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
        return errno;  // further down, what is not there is as good as removed
    }
    Enter(parent.get(), top.name, ENOTDIR);
    while (!levels_.empty()) {
        Level& level = levels_.back();
        if (level.entries.empty()) {
            Leave(parent.get());
            continue;
        }
        const std::string name = std::move(level.entries.back());
        level.entries.pop_back();
        RemoveEntry(dirfd(level.stream.get()), name);
    }
    return first_error_;
}

void TreeRemoval::RemoveEntry(int parent, const std::string& name) {
    // Not every file system tells the type of an entry, and it may have changed since: trying
    // needs no type. EISDIR is the usual refusal of a directory, but a parent without write
    // permission gives EACCES for it, and its contents may be removable all the same.
    if (unlinkat(parent, name.c_str(), 0) == 0 || errno == ENOENT) {
        return;
    }
    Enter(parent, name, errno);
}

void TreeRemoval::Enter(int parent, const std::string& name, int whyNotUnlinked) {
    Stream stream = OpenIn(parent, name.c_str());
    if (stream != nullptr) {
        Push(name, std::move(stream));
        return;
    }
    const int error = errno;
    if (error == ENOTDIR || error == ELOOP) {
        Note(whyNotUnlinked);
        return;
    }
    // One that can't be read may be empty.
    if (unlinkat(parent, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
        Note(error);
    }
}

void TreeRemoval::Push(const std::string& name, Stream stream) {
    struct stat status;
    if (fstat(dirfd(stream.get()), &status) != 0) {
        Note(errno);
        return;
    }
    Level level{name, std::move(stream), status.st_dev, status.st_ino, {}};
    ReadEntries(&level);
    levels_.push_back(std::move(level));
    // The top stays open, as the place to go on from when the way back is lost.
    if (levels_.size() > kOpenLevels + 1) {
        levels_[levels_.size() - 1 - kOpenLevels].stream.reset();
    }
}

// All names at once: what a stream gives while entries go away differs between file systems.
void TreeRemoval::ReadEntries(Level* level) {
    errno = 0;
    while (const dirent* entry = readdir(level->stream.get())) {
        if (!IsDots(entry->d_name)) {
            level->entries.emplace_back(entry->d_name);
        }
        errno = 0;
    }
    if (errno != 0) {
        Note(errno);
    }
}

// Removes the newest level, which is done with, and makes the one above it the newest.
void TreeRemoval::Leave(int parentOfTop) {
    const Level done = std::move(levels_.back());
    levels_.pop_back();
    if (levels_.empty()) {
        RemoveDirectory(parentOfTop, done.name);
        return;
    }
    if (levels_.back().stream == nullptr) {
        Reopen(&levels_.back(), dirfd(done.stream.get()));
    }
    if (levels_.back().stream != nullptr) {
        RemoveDirectory(dirfd(levels_.back().stream.get()), done.name);
        return;
    }
    // Somebody moved the tree under our feet. What lies between here and the nearest open level
    // is no longer known to be ours to remove.
    while (levels_.back().stream == nullptr) {
        levels_.pop_back();
    }
}

void TreeRemoval::Reopen(Level* level, int child) {
    Stream stream = OpenIn(child, "..");
    struct stat status;
    if (stream == nullptr || fstat(dirfd(stream.get()), &status) != 0) {
        Note(errno);
        return;
    }
    if (status.st_dev != level->device || status.st_ino != level->inode) {
        Note(ESTALE);
        return;
    }
    level->stream = std::move(stream);
}

void TreeRemoval::RemoveDirectory(int parent, const std::string& name) {
    if (unlinkat(parent, name.c_str(), AT_REMOVEDIR) != 0 && errno != ENOENT) {
        Note(errno);
    }
}

}  // namespace

int32_t mmRmdir(const char* path) {
    if (path == nullptr) {
        return EN_INVALID_PARAM;
    }
    return orla::posix::WithoutException([path] { return TreeRemoval().Run(path); });
}
