#include "file_service/unnamed_copy.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <portability.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

#include "file_service/file_utils.h"
#include "hdc/log_side.h"

namespace {

using orla::Descriptor;

constexpr mode_t kCopyMode = 0600;
constexpr char kName[] = "/.copy-XXXXXX.tmp";
constexpr int kNameTail = 4;              // what follows the X
constexpr uint32_t kBlockSize = 0x10000;  // half of a thread's stack, so it lies on the heap

// A process that is killed between the two calls leaves an empty, hidden file that no scan takes,
// since its name ends in "tmp".
Descriptor MakeUnlinked(const std::string& directory) {
    std::string name = directory + kName;
    Descriptor file(mkostemps(name.data(), kNameTail, O_CLOEXEC));
    if (file && mmUnlink(name.c_str()) != EN_OK) {
        return Descriptor();
    }
    return file;
}

// On failure errno says why: the second way meets all that stopped the first.
Descriptor MakeWithoutName(const std::string& directory) {
    Descriptor file(mmOpen2(directory.c_str(), O_RDWR | O_TMPFILE, kCopyMode));
    return file ? std::move(file) : MakeUnlinked(directory);
}

// The size of an earlier copy, with its position at the start; less than 0 when there is none or it
// can't be used again. It isn't emptied: to give blocks back and take them again costs a file
// system many times the filling of a small file.
int64_t Rewind(const Descriptor& copy) {
    const int64_t size = copy ? mmLseek(copy.get(), 0, SEEK_END) : -1;
    return size >= 0 && mmLseek(copy.get(), 0, SEEK_SET) == 0 ? size : -1;
}

bool IsRoomMissing(int error) {
    return error == ENOSPC || error == EDQUOT || error == EFBIG;
}

// 0, or the error that says that there is no room for `size` bytes.
int Allocate(int fd, uint64_t size) {
    if (size == 0 || fallocate(fd, 0, 0, static_cast<off_t>(size)) == 0) {
        return 0;
    }
    return IsRoomMissing(errno) ? errno : 0;  // else it can't be told in advance
}

// Goes on where both descriptors stand. 0, ENODATA when the source ends too early, or an error.
int CopyThroughMemory(int source, int target, uint64_t size) {
    const auto block = std::make_unique<char[]>(kBlockSize);
    while (size > 0) {
        const auto wanted = static_cast<uint32_t>(std::min<uint64_t>(size, kBlockSize));
        const ssize_t count = mmRead(source, block.get(), wanted);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return count == 0 ? ENODATA : errno;
        }
        const auto got = static_cast<size_t>(count);
        if (orla::WriteAll(target, block.get(), got) != got) {
            return errno;
        }
        size -= got;
    }
    return 0;
}

int CopyBytes(int source, int target, uint64_t size) {
    while (size > 0) {
        const ssize_t count = copy_file_range(source, nullptr, target, nullptr, size, 0);
        if (count <= 0) {
            break;  // whatever the reason: reading and writing does it, or meets the same
        }
        size -= static_cast<uint64_t>(count);
    }
    return size == 0 ? 0 : CopyThroughMemory(source, target, size);
}

int CopyWhole(int source, int target, uint64_t size, uint64_t present) {
    // Only an empty target is cloned into. When the source shrinks meanwhile, a clone would leave
    // bytes of an earlier, longer copy past the new end.
    if (present == 0 && ioctl(target, FICLONE, source) == 0) {
        return 0;
    }
    const int error = present < size ? Allocate(target, size) : 0;
    return error != 0 ? error : CopyBytes(source, target, size);
}

// `present`: bytes of an earlier copy that the target holds.
int Fill(int source, int target, uint64_t size, uint64_t present) {
    const int error = CopyWhole(source, target, size, present);
    const bool isLong = error == 0 && present > size;
    return isLong && ftruncate(target, static_cast<off_t>(size)) != 0 ? errno : error;
}

CopyEnd Fail(CopyEnd end, const std::string& path, int error) {
    errno = error;
    IDE_LOGE("copy target file to tmp file failed, %s, info : %s", path.c_str(),
             orla::SystemErrorText().c_str());
    return end;
}

}  // namespace

Descriptor OpenRegularFile(const std::string& path) {
    // A pipe would block the open.
    Descriptor file(mmOpen2(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK, 0));
    struct stat status = {};
    if (file && (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))) {
        errno = EINVAL;
        file = Descriptor();
    }
    if (!file) {
        IDE_LOGW("open send file failed, info : %s, open file is %s",
                 orla::SystemErrorText().c_str(), path.c_str());
    }
    return file;
}

CopyEnd CopyWithoutName(const std::string& path, Descriptor* copy) {
    Descriptor target = std::move(*copy);
    const int64_t present = Rewind(target);
    const Descriptor source = OpenRegularFile(path);
    if (!source) {
        return CopyEnd::kNotBegun;
    }
    if (present < 0) {
        target = MakeWithoutName(GetFileDir(path));
    }
    if (!target) {
        return Fail(IsRoomMissing(errno) ? CopyEnd::kBroken : CopyEnd::kNotBegun, path, errno);
    }
    struct stat status = {};
    int error = fstat(source.get(), &status) == 0 ? 0 : errno;
    if (error == 0) {
        error = Fill(source.get(), target.get(), static_cast<uint64_t>(status.st_size),
                     static_cast<uint64_t>(std::max<int64_t>(present, 0)));
    }
    if (error != 0) {
        return Fail(CopyEnd::kBroken, path, error);
    }
    *copy = std::move(target);
    return CopyEnd::kWhole;
}
