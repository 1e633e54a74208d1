#include "log/log_common_util.h"

#include <pwd.h>
#include <secure_c.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "log/self_log.h"

namespace {

constexpr mode_t kDirectoryMode = 0750;
constexpr size_t kPrefixSize = 256;
constexpr size_t kAccountBufferSize = 16384;

struct FreeText {
    void operator()(char* text) const { std::free(text); }
};
using Text = std::unique_ptr<char, FreeText>;

// The account of the real user id; false when there is none.
template <typename Take>
bool WithAccount(Take take) {
    // On the heap, since threads have small stacks.
    const Text buffer(static_cast<char*>(std::malloc(kAccountBufferSize)));
    struct passwd record;
    struct passwd* account = nullptr;
    if (!buffer || getpwuid_r(getuid(), &record, buffer.get(), kAccountBufferSize, &account) != 0 ||
        account == nullptr) {
        return false;
    }
    take(*account);
    return true;
}

std::string HomeDirectory() {
    std::string home;
    WithAccount([&home](const struct passwd& account) {
        home = account.pw_dir != nullptr ? account.pw_dir : "";
    });
    return home;
}

// Appends "/" and `name`; 0 or kLogCopyFailed.
int AppendLevel(char* prefix, const char* name) {
    if (strcat_s(prefix, kPrefixSize, "/") != EOK) {
        SELF_LOG_ERROR("copy data failed, strerr=%s.", SelfLogErrorText());
        return kLogCopyFailed;
    }
    if (strncat_s(prefix, kPrefixSize, name, std::strlen(name)) != EOK) {
        SELF_LOG_ERROR("strncat_s failed, strerr=%s.", SelfLogErrorText());
        return kLogCopyFailed;
    }
    return 0;
}

void CutTrailing(char* path) {
    size_t length = std::strlen(path);
    while (length > 1 && std::strchr(" \t\n/", path[length - 1]) != nullptr) {
        path[--length] = '\0';
    }
}

bool CopyJoined(char* out, const char* fileName, const char* directory, uint32_t size) {
    if (std::strlen(directory) + std::strlen(fileName) > size) {
        return false;
    }
    errno_t error = strcpy_s(out, size, directory);
    if (error != EOK) {
        std::printf("[WARNING] [ERROR] strcpy_s failed, path=%s, dir=%s, result=%d, strerr=%s.\n",
                    out, directory, error, SelfLogErrorText());
        return false;
    }
    error = strcat_s(out, size, fileName);
    if (error != EOK) {
        std::printf(
            "[WARNING] [ERROR] strcat_s failed, path=%s, filename=%s, result=%d, strerr=%s.\n", out,
            fileName, error, SelfLogErrorText());
        return false;
    }
    return true;
}

}  // namespace

int LogAgentMkdirWithMultiLayer(const char* path) {
    if (path == nullptr) {
        return kLogNullPath;
    }
    const Text prefix(static_cast<char*>(std::calloc(1, kPrefixSize)));
    if (!prefix) {
        SELF_LOG_ERROR("calloc failed, strerr=%s.", SelfLogErrorText());
        return kLogOutOfMemory;
    }
    const Text copy(strdup(path));
    if (!copy) {
        SELF_LOG_ERROR("strdup failed, strerr=%s.", SelfLogErrorText());
        return kLogCopyFailed;
    }
    char* rest = copy.get();
    while (char* const name = strtok_r(rest, "/", &rest)) {
        int result = AppendLevel(prefix.get(), name);
        if (result == 0) {
            result = MakeLogDir(prefix.get());
        }
        if (result != 0) {
            return result;
        }
    }
    return 0;
}

bool StartsWith(const char* text, const char* prefix) {
    return text != nullptr && prefix != nullptr &&
           std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}

int MakeLogDir(const char* path) {
    if (path == nullptr) {
        return kLogNullPath;
    }
    if (ToolAccess(path) == EN_OK) {
        return 0;
    }
    // Another process may have made it since: then it is as good as made here.
    if (ToolMkdir(path, kDirectoryMode) != EN_OK && ToolAccess(path) != EN_OK) {
        return kLogMkdirFailed;
    }
    static_cast<void>(ToolChmod(path, kDirectoryMode));
    uid_t uid = 0;
    gid_t gid = 0;
    if (GetUserGroupId(&uid, &gid) != 0) {
        return 0;
    }
    return ToolChown(path, uid, gid) == EN_OK ? 0 : kLogChownFailed;
}

int GetUserGroupId(uid_t* uid, gid_t* gid) {
    constexpr int kUserNotFound = 1;
    constexpr int kNullArgument = 2;
    if (uid == nullptr || gid == nullptr) {
        return kNullArgument;
    }
    const bool isFound = WithAccount([uid, gid](const struct passwd& account) {
        *uid = account.pw_uid;
        *gid = account.pw_gid;
    });
    if (!isFound) {
        // Not through the self log, whose directories may be what is being made right now.
        std::puts("user not found.");
        return kUserNotFound;
    }
    return 0;
}

int PrepareLogDir(char* path, char* resolved, uint32_t size) {
    if (path == nullptr || resolved == nullptr) {
        return -1;
    }
    const bool isUsable = ToolAccess(path) == EN_OK ? ToolAccessWithMode(path, W_OK) == EN_OK
                                                    : LogAgentMkdirWithMultiLayer(path) == 0;
    if (!isUsable) {
        SELF_LOG_ERROR("path set is not available.");
        return -1;
    }
    CutTrailing(path);
    if (ToolRealPath(path, resolved, static_cast<int>(size)) == EN_OK) {
        return 0;
    }
    if (ToolGetErrorCode() != ENOENT) {
        SELF_LOG_WARN("can not get realpath, file=%s, strerr=%s.", path, SelfLogErrorText());
        return -1;
    }
    // Absolute, as the directories above were made.
    const int length =
        snprintf_s(resolved, size, size - 1, "%s%s", StartsWith(path, "/") ? "" : "/", path);
    return length < 0 ? -1 : 0;
}

int ExpandHome(const char* path, char* out, uint32_t size) {
    if (path == nullptr || out == nullptr) {
        return -1;
    }
    if (size == 0 || size > kLogPathMax + 1) {
        SELF_LOG_WARN("[input] path length is invalid, length=%u, max_length=%d.", size,
                      static_cast<int>(kLogPathMax));
        return -1;
    }
    if (!StartsWith(path, "~")) {
        const errno_t error = strcpy_s(out, size, path);
        if (error != EOK) {
            SELF_LOG_ERROR("strcpy_s path failed, result=%d, strerr=%s.", error,
                           SelfLogErrorText());
        }
        return error == EOK ? 0 : -1;
    }
    const std::string home = HomeDirectory();
    errno_t error = strcpy_s(out, size, home.c_str());
    if (error != EOK) {
        SELF_LOG_ERROR("strcpy_s home directory failed, result=%d, strerr=%s.", error,
                       SelfLogErrorText());
        return -1;
    }
    SELF_LOG_INFO("home_directory=%s.", home.c_str());
    const char* rest = path + 1;
    if (home.size() + std::strlen(rest) > kLogPathMax) {
        SELF_LOG_WARN("path length more than upper limit, upper_limit=%u, homeDir=%s, path=%s.",
                      kLogPathMax, home.c_str(), path);
        return -1;
    }
    error = strcat_s(out, size, rest);
    if (error != EOK) {
        SELF_LOG_ERROR("strcat_s failed, home_directory=%s, path=%s, result=%d, strerr=%s.",
                       home.c_str(), path, error, SelfLogErrorText());
        return -1;
    }
    return 0;
}

int JoinPath(char* out, const char* fileName, const char* directory, uint32_t size) {
    if (out == nullptr || fileName == nullptr || directory == nullptr || size == 0) {
        return -1;
    }
    if (!CopyJoined(out, fileName, directory, size)) {
        SELF_LOG_ERROR("strcat filename to directory failed, dir=%s, filename=%s.", directory,
                       fileName);
        out[0] = '\0';
        return -1;
    }
    return 0;
}
