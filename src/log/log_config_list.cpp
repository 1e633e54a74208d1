#include "log/log_config_list.h"

#include <secure_c.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "log/log_common_util.h"
#include "log/log_mutex.h"
#include "log/log_platform.h"
#include "log/self_log.h"

using orla::LogLock;

namespace {

constexpr uint32_t kConfigPathSize = 4112;
constexpr char kConfigFileName[] = "slog.conf";
constexpr char kZipSwitchKey[] = "zip_switch";

// Guarded by g_mutex, but for the filling.
LogConfItem* g_head = nullptr;
orla::LogMutex g_mutex;

// Written once, on the main thread.
char g_configPath[kConfigPathSize];
uint32_t g_zipSwitch = 0;

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, CloseFile>;

// Cuts the executable's path behind its last "/"; false, with the reason printed, when it can't.
bool GetOwnDirectory(char* path) {
    const ssize_t length = readlink("/proc/self/exe", path, kLogPathMax);
    if (static_cast<size_t>(length) > kLogPathMax) {
        std::printf("[WARNING] [ERROR] Get self bin directory failed, selflen=%d, strerr=%s.\n",
                    static_cast<int>(length), SelfLogErrorText());
        std::puts("[WARNING] [ERROR] Get process path failed.");
        return false;
    }
    path[length] = '\0';
    char* const slash = std::strrchr(path, '/');
    if (slash == nullptr) {
        std::puts("[WARNING] [ERROR] Config path has no \"\\\".");
        return false;
    }
    slash[1] = '\0';
    return true;
}

void UseFileBesideExecutable() {
    const auto own = std::make_unique<char[]>(kLogPathMax + 1);
    if (!GetOwnDirectory(own.get())) {
        return;
    }
    errno_t error = strcpy_s(g_configPath, sizeof(g_configPath), own.get());
    if (error != EOK) {
        std::printf("[WARNING] [ERROR] strcpy_s failed, result=%d, strerr=%s.\n", error,
                    SelfLogErrorText());
        return;
    }
    if (std::strlen(g_configPath) + sizeof(kConfigFileName) > sizeof(g_configPath)) {
        std::printf(
            "[WARNING] [ERROR] Path length more than upper limit, upper_limit=%u, "
            "configPath=%s.\n",
            kConfigPathSize, g_configPath);
        return;
    }
    error = strcat_s(g_configPath, sizeof(g_configPath), kConfigFileName);
    if (error != EOK) {
        std::printf("[WARNING] [ERROR] strcat_s failed, configPath=%s, result=%d, strerr=%s.\n",
                    g_configPath, error, SelfLogErrorText());
    }
}

// Puts one item to the head of the list: 0, kConfigOutOfMemory or kConfigCopyFailed.
int AddItem(const char* name, const char* value) {
    auto* const item = static_cast<LogConfItem*>(std::calloc(1, sizeof(LogConfItem)));
    if (item == nullptr) {
        SELF_LOG_ERROR("malloc failed, strerr=%s.", SelfLogErrorText());
        return kConfigOutOfMemory;
    }
    const errno_t nameError = strcpy_s(item->name, kConfigNameLimit, name);
    const errno_t valueError = strcpy_s(item->value, kConfigValueLimit, value);
    if (nameError != EOK || valueError != EOK) {
        SELF_LOG_ERROR("strcpy_s failed, errno_1=%d, errno_2=%d.", nameError, valueError);
        std::free(item);
        return kConfigCopyFailed;
    }
    item->next = g_head;
    g_head = item;
    return 0;
}

void ReadItems(std::FILE* file) {
    char line[kConfigLineSize];
    while (NextConfigLine(file, line, sizeof(line))) {
        char name[kConfigNameLimit] = {};
        char value[kConfigValueLimit] = {};
        int result = ParseConfigItem(line, name, value);
        if (result != 0) {
            SELF_LOG_WARN("parse one line config item failed, result=%d, strerr=%s.", result,
                          SelfLogErrorText());
            continue;
        }
        result = AddItem(name, value);
        if (result != 0) {
            SELF_LOG_ERROR("init config list failed, result=%d, strerr=%s.", result,
                           SelfLogErrorText());
        }
    }
}

int InitMutex() {
    if (g_mutex.Init() == EN_OK) {
        return 0;
    }
    SELF_LOG_ERROR("init config mutex failed, strerr=%s.", SelfLogErrorText());
    return kLogConfMutexFailed;
}

void FreeItems() {
    while (g_head != nullptr) {
        LogConfItem* const item = g_head;
        g_head = item->next;
        std::free(item);
    }
}

bool AreArgumentsValid(const char* name, size_t nameLength, const char* value, uint32_t valueSize) {
    if (name == nullptr) {
        SELF_LOG_WARN("[input] config name is null.");
        return false;
    }
    if (value == nullptr) {
        SELF_LOG_WARN("[output] config value is null.");
        return false;
    }
    if (nameLength > kConfigNameLimit) {
        SELF_LOG_WARN("[input] config name length is invalid, length=%zu, max_length=%d.",
                      nameLength, static_cast<int>(kConfigNameLimit));
        return false;
    }
    if (valueSize > kConfigValueLimit) {
        SELF_LOG_WARN("[input] config value length is invalid, length=%u, max_length=%d.",
                      valueSize, static_cast<int>(kConfigValueLimit));
        return false;
    }
    return true;
}

int CopyValue(const LogConfItem& item, char* value, uint32_t valueSize) {
    const errno_t error = strcpy_s(value, valueSize, item.value);
    if (error == EOK) {
        return 0;
    }
    SELF_LOG_ERROR("strcpy_s config value failed, result=%d, strerr=%s.", error,
                   SelfLogErrorText());
    return kConfigCopyFailed;
}

}  // namespace

int LogConfInit() {
    static_cast<void>(strcpy_s(g_configPath, sizeof(g_configPath), kDefaultConfigFile));
    if (ToolAccess(g_configPath) != EN_OK) {
        UseFileBesideExecutable();
    }
    return LogConfListInit(g_configPath) == 0 ? 0 : -1;
}

int LogConfListInit(const char* path) {
    if (InitMutex() != 0) {
        return kLogConfMutexFailed;
    }
    std::FILE* opened = nullptr;
    const char* const asked = path != nullptr ? path : kDefaultConfigFile;
    const int result = OpenConfigFile(path, &opened);
    if (result != 0) {
        SELF_LOG_ERROR("open config file failed, file=%s, result=%d, strerr=%s.", asked, result,
                       SelfLogErrorText());
        return kConfigOpenFailed;
    }
    const File file(opened);
    const int sought = std::fseek(file.get(), 0, SEEK_SET);
    if (sought != 0) {
        SELF_LOG_ERROR("fseek config file failed, file=%s, result=%d, strerr=%s.", asked, sought,
                       SelfLogErrorText());
        return kLogConfSeekFailed;
    }
    ReadItems(file.get());
    return 0;
}

int LogConfListGetValue(const char* name, size_t nameLength, char* value, uint32_t valueSize) {
    if (!AreArgumentsValid(name, nameLength, value, valueSize)) {
        return kLogConfBadArgument;
    }
    const LogLock lock(g_mutex);
    for (const LogConfItem* item = g_head; item != nullptr; item = item->next) {
        if (std::strcmp(item->name, name) == 0) {
            return CopyValue(*item, value, valueSize);
        }
    }
    return kLogConfNotFound;
}

int LogConfListUpdate(const char* path) {
    if (InitMutex() != 0) {
        return kLogConfMutexFailed;
    }
    const LogLock lock(g_mutex);
    FreeItems();
    return LogConfListInit(path);
}

int LogConfListForEach(LogConfCallback callback, void* argument) {
    if (callback == nullptr) {
        return -1;
    }
    const LogLock lock(g_mutex);
    for (const LogConfItem* item = g_head; item != nullptr; item = item->next) {
        const int result = callback(item, argument);
        if (result != 0) {
            return result;
        }
    }
    return 0;
}

void LogConfListFree() {
    {
        const LogLock lock(g_mutex);
        FreeItems();
    }
    static_cast<void>(g_mutex.Destroy());
}

uint32_t LogConfGetZipSwitch() {
    char value[kConfigValueLimit] = {};
    if (LogConfListGetValue(kZipSwitchKey, sizeof(kZipSwitchKey) - 1, value, sizeof(value)) != 0) {
        return g_zipSwitch;
    }
    long number = 0;
    const char* const end = value + std::strlen(value);
    const auto parsed = std::from_chars(value, end, number);
    if (parsed.ec != std::errc() || parsed.ptr != end || (number != 0 && number != 1)) {
        SELF_LOG_WARN("zip_switch is illegal, use default(%u).", g_zipSwitch);
        return g_zipSwitch;
    }
    g_zipSwitch = static_cast<uint32_t>(number);
    return g_zipSwitch;
}
