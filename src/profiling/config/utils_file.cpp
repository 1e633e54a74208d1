#include <sys/file.h>

#include <cstdio>

#include "hdc/log_side.h"
#include "profiling/config/utils.h"

namespace analysis::nedra::common::utils {

namespace {

int ReleaseFileLock(int fd) {
    constexpr int kAttempts = 2;
    for (int i = 0; i < kAttempts; ++i) {
        if (flock(fd, LOCK_UN) == 0) {
            return 0;
        }
    }
    PROF_LOGE("Failed to release file lock");
    return -1;
}

// With the lock held: the text has left the buffer of `file` when this gives true.
bool Append(FILE* file, const std::string& text) {
    return fwrite(text.data(), 1, text.size(), file) == text.size() && fflush(file) == 0;
}

int AppendLocked(FILE* file, const std::string& text) {
    const int fd = fileno(file);
    if (flock(fd, LOCK_SH) != 0) {
        PROF_LOGE("Failed to get file lock");
        return -1;
    }
    if (!Append(file, text)) {
        static_cast<void>(ReleaseFileLock(fd));
        PROF_LOGE("Failed to write prof dir");
        return -1;
    }
    return ReleaseFileLock(fd);
}

}  // namespace

int Utils::WriteFileWithLock(const std::string& path, const std::string& displayName,
                             const std::string& text) {
    FILE* file = fopen(path.c_str(), "ae");
    if (file == nullptr) {
        PROF_LOGE("Failed to open %s", displayName.c_str());
        return -1;
    }
    const int ret = AppendLocked(file, text);
    return fclose(file) == 0 ? ret : -1;
}

}  // namespace analysis::nedra::common::utils
