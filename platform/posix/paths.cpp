// What <portability.h> asks and does by path, but for the removal of trees.
#include <dirent.h>
#include <libgen.h>  // the basename of POSIX, which knows trailing slashes
#include <portability.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "results.h"

using orla::posix::FromCall;
using orla::posix::FromError;

int32_t mmAccess(const char* path) {
    return mmAccess2(path, F_OK);
}

int32_t mmAccess2(const char* path, int32_t mode) {
    return path == nullptr ? EN_INVALID_PARAM : FromCall(access(path, mode));
}

int32_t mmIsDir(const char* path) {
    mmStat_t status;
    const int32_t result = mmStatGet(path, &status);
    if (result != EN_OK) {
        return result;
    }
    return S_ISDIR(status.st_mode) ? EN_OK : FromError(ENOTDIR);
}

int32_t mmMkdir(const char* path, mode_t mode) {
    return path == nullptr ? EN_INVALID_PARAM : FromCall(mkdir(path, mode));
}

int32_t mmChmod(const char* path, mode_t mode) {
    return path == nullptr ? EN_INVALID_PARAM : FromCall(chmod(path, mode));
}

int32_t mmUnlink(const char* path) {
    return path == nullptr ? EN_INVALID_PARAM : FromCall(unlink(path));
}

int32_t mmChdir(const char* path) {
    return path == nullptr ? EN_INVALID_PARAM : FromCall(chdir(path));
}

int32_t mmGetCwd(char* buffer, int32_t size) {
    if (buffer == nullptr || size <= 0) {
        return EN_INVALID_PARAM;
    }
    return getcwd(buffer, static_cast<size_t>(size)) != nullptr ? EN_OK : EN_ERROR;
}

int32_t mmStatGet(const char* path, mmStat_t* buffer) {
    if (path == nullptr || buffer == nullptr) {
        return EN_INVALID_PARAM;
    }
    return FromCall(stat(path, buffer));
}

int32_t mmGetFileSize(const char* path, uint64_t* length) {
    if (length == nullptr) {
        return EN_INVALID_PARAM;
    }
    mmStat_t status;
    const int32_t result = mmStatGet(path, &status);
    if (result == EN_OK) {
        *length = static_cast<uint64_t>(status.st_size);
    }
    return result;
}

char* mmDirName(char* path) {
    return path == nullptr ? nullptr : dirname(path);
}

char* mmBaseName(char* path) {
    return path == nullptr ? nullptr : basename(path);
}

int32_t mmRealPath(const char* path, char* buffer, int32_t size) {
    if (path == nullptr || buffer == nullptr || size <= 0) {
        return EN_INVALID_PARAM;
    }
    // realpath never learns the size of a caller's buffer, so it gets none.
    const std::unique_ptr<char, decltype(&free)> resolved(realpath(path, nullptr), free);
    if (resolved == nullptr) {
        return EN_ERROR;
    }
    const size_t needed = strlen(resolved.get()) + 1;
    if (needed > static_cast<size_t>(size)) {
        return FromError(ENAMETOOLONG);
    }
    memcpy(buffer, resolved.get(), needed);
    return EN_OK;
}

int32_t mmScandir(const char* path, mmDirent*** entries, mmFilter filter, mmSort compare) {
    if (entries == nullptr) {
        return EN_INVALID_PARAM;
    }
    *entries = nullptr;
    return path == nullptr ? EN_INVALID_PARAM : scandir(path, entries, filter, compare);
}

void mmScandirFree(mmDirent** entries, int32_t count) {
    if (entries == nullptr || count < 0) {
        return;
    }
    for (int32_t i = 0; i < count; ++i) {
        free(entries[i]);
    }
    free(entries);
}

int32_t mmGetDiskFreeSpace(const char* path, mmDiskSize* size) {
    if (path == nullptr || size == nullptr) {
        return EN_INVALID_PARAM;
    }
    struct statvfs system;
    if (statvfs(path, &system) != 0) {
        return EN_ERROR;
    }
    const uint64_t unit = system.f_frsize;
    *size = {unit * system.f_blocks, unit * system.f_bfree, unit * system.f_bavail};
    return EN_OK;
}
