#include "daemon/ide_platform_util.h"

#include <fcntl.h>
#include <portability.h>
#include <pwd.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <vector>

#include "file_service/file_utils.h"
#include "hdc/hdc_packet.h"
#include "hdc/log_side.h"
#include "hdc/memory_utils.h"

namespace {

constexpr size_t kMaxPath = 4096;
constexpr size_t kAccountBufferSize = 16384;
constexpr mode_t kLockMode = 0600;
constexpr const char* kDaemonName = "orlad";

// Between opening and locking, an instance that ends may remove the file: the lock is then on
// a file that no later start would see, and the whole step is taken again.
constexpr int kMaxLockAttempts = 10;

enum class LockResult { kHeld, kFailed, kStale };

bool SetCloseOnExec(int fd) {
    const int flags = fcntl(fd, F_GETFD);
    if (flags < 0) {
        IDE_LOGE("single process fcntl get fd");
        return false;
    }
    if (fcntl(fd, F_SETFD, flags | FD_CLOEXEC) < 0) {
        IDE_LOGE("single process fcntl set fd");
        return false;
    }
    return true;
}

bool IsStillAt(int fd, const std::string& path) {
    struct stat locked = {};
    mmStat_t named = {};
    return fstat(fd, &locked) == 0 && mmStatGet(path.c_str(), &named) == EN_OK &&
           locked.st_ino == named.st_ino && locked.st_dev == named.st_dev;
}

LockResult LockFile(int fd, const std::string& path) {
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    if (fcntl(fd, F_SETLK, &whole) != 0) {
        IDE_LOGE("orla is exist, don't start again");
        std::puts("orla is exist, don't start again");
        return LockResult::kFailed;
    }
    if (!IsStillAt(fd, path)) {
        return LockResult::kStale;
    }
    return SetCloseOnExec(fd) ? LockResult::kHeld : LockResult::kFailed;
}

}  // namespace

std::string IdeGetHomeDir() {
    std::vector<char> buffer(kAccountBufferSize);
    struct passwd account = {};
    struct passwd* found = nullptr;
    if (getpwuid_r(getuid(), &account, buffer.data(), buffer.size(), &found) != 0 ||
        found == nullptr || found->pw_dir == nullptr) {
        return "";
    }
    const std::string home = found->pw_dir;
    return home.size() < kMaxPath ? home : "";
}

int SingleInstanceLock::Acquire() {
    const std::string dir = IdeGetHomeDir() + "/ide_daemon/";
    // A directory that can't be made shows as a file that can't be opened.
    static_cast<void>(CreateDir(dir));
    const std::string path = dir + "." + kDaemonName + ".lock";
    for (int attempt = 0; attempt < kMaxLockAttempts; ++attempt) {
        const int fd = mmOpen2(path.c_str(), O_WRONLY | O_CREAT, kLockMode);
        if (fd < 0) {
            IDE_LOGE("single process open %s fd = %d", path.c_str(), fd);
            return -1;
        }
        const LockResult result = LockFile(fd, path);
        if (result == LockResult::kHeld) {
            fd_ = fd;
            path_ = path;
            return 0;
        }
        mmClose(fd);
        if (result == LockResult::kFailed) {
            return -1;
        }
    }
    IDE_LOGE("single process lock %s keeps vanishing", path.c_str());
    return -1;
}

void SingleInstanceLock::Release() {
    if (fd_ < 0) {
        return;
    }
    // In this order: a start that opens the file after its removal makes a new one, and a start
    // that opened it before finds that it is locked, or not the file at the path any more.
    IdeRemoveLockPath(path_);
    mmClose(fd_);
    fd_ = -1;
}

void IdeRemoveLockPath(const std::string& path) {
    if (path.empty()) {
        return;
    }
    const bool inHome = path.rfind("~/", 0) == 0;
    const std::string expanded = inHome ? IdeGetHomeDir() + path.substr(1) : path;
    const orla::HeapBlock resolved(static_cast<char*>(IdeXmalloc(kMaxPath)));
    if (resolved == nullptr) {
        IDE_LOGE("IdeXmalloc failed");
        return;
    }
    if (mmRealPath(expanded.c_str(), resolved.get(), kMaxPath) != EN_OK) {
        return;
    }
    const int ret = mmUnlink(resolved.get());
    if (ret != EN_OK) {
        IDE_LOGD("remove %s exit code %d", resolved.get(), ret);
    }
}
