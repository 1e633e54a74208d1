#include "log/cfg_file_parse.h"

#include <secure_c.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "hdc/hdc_packet.h"
#include "log/log_common_util.h"
#include "log/log_module_names.h"
#include "log/log_platform.h"
#include "log/self_log.h"

const char kDefaultConfigFile[] = "/var/log/npu/conf/slog/slog.conf";

namespace {

constexpr char kBlanks[] = " \t";
constexpr char kInvalidWord[] = "INVALID";
constexpr uint32_t kPathSize = kLogPathMax + 1;

orla::HeapBlock AllocatePath() {
    orla::HeapBlock path(static_cast<char*>(std::calloc(1, kPathSize)));
    if (!path) {
        SELF_LOG_ERROR("malloc failed, strerr=%s.", SelfLogErrorText());
    }
    return path;
}

bool HasConfigSuffix(const char* path) {
    const size_t length = std::strlen(path);
    for (const char* suffix : {".cfg", ".conf", ".info"}) {
        const char* first = std::strstr(path, suffix);
        if (first != nullptr && first + std::strlen(suffix) == path + length) {
            return true;
        }
    }
    return false;
}

// Resolves `path` into `resolved`, kPathSize bytes: 0, kConfigPathInvalid or kConfigOutOfMemory.
int ResolveConfigPath(const char* path, char* resolved) {
    const orla::HeapBlock expanded = AllocatePath();
    if (!expanded) {
        return kConfigOutOfMemory;
    }
    const char* wanted = kDefaultConfigFile;
    if (path != nullptr) {
        if (ExpandHome(path, expanded.get(), kLogPathMax) != 0) {
            return kConfigPathInvalid;
        }
        wanted = expanded.get();
    }
    if (ToolRealPath(wanted, resolved, kPathSize) != EN_OK) {
        SELF_LOG_ERROR("get realpath failed, file=%s, strerr=%s.", wanted, SelfLogErrorText());
        return kConfigPathInvalid;
    }
    if (!HasConfigSuffix(resolved)) {
        SELF_LOG_WARN("realpath is invalid, realpath=%s.", resolved);
        return kConfigPathInvalid;
    }
    return 0;
}

bool MayBeEmpty(const char* name) {
    return std::strcmp(name, "global_level") == 0 || std::strcmp(name, "enableEvent") == 0 ||
           orla::FindLogModule(name) != nullptr;
}

void CutTrailing(char* text, const char* characters) {
    size_t length = std::strlen(text);
    while (length > 0 && std::strchr(characters, text[length - 1]) != nullptr) {
        text[--length] = '\0';
    }
}

ConfigLine StoreInvalidWord(char* value, int* error) {
    *error = strcpy_s(value, kConfigValueLimit, kInvalidWord);
    return *error == EOK ? ConfigLine::kAccepted : ConfigLine::kWordTooLong;
}

// `text` is what stands behind the "=".
ConfigLine ParseValue(const char* text, const char* name, char* value, int* error) {
    char work[kConfigValueLimit];
    *error = strcpy_s(work, sizeof(work), text);
    if (*error != EOK) {
        return ConfigLine::kTextTooLong;
    }
    char* const start = work + std::strspn(work, kBlanks);
    CutTrailing(start, "\t\n\r");
    if (*start == '\0') {
        return MayBeEmpty(name) ? StoreInvalidWord(value, error) : ConfigLine::kNothingBehind;
    }
    start[std::strcspn(start, "#\t")] = '\0';
    CutTrailing(start, " ");
    if (*start == '\0') {
        return MayBeEmpty(name) ? StoreInvalidWord(value, error) : ConfigLine::kValueEmpty;
    }
    *error = strcpy_s(value, kConfigValueLimit, start);
    return *error == EOK ? ConfigLine::kAccepted : ConfigLine::kValueTooLong;
}

}  // namespace

int OpenConfigFile(const char* path, std::FILE** file) {
    *file = nullptr;
    const char* const asked = path != nullptr ? path : kDefaultConfigFile;
    const orla::HeapBlock resolved = AllocatePath();
    if (!resolved) {
        return kConfigOutOfMemory;
    }
    const int result = ResolveConfigPath(path, resolved.get());
    if (result != 0) {
        SELF_LOG_ERROR("get realpath failed or filepath is invalid, file=%s.", asked);
        return result;
    }
    *file = std::fopen(resolved.get(), "re");
    if (*file == nullptr) {
        SELF_LOG_ERROR("open file failed, file=%s.", resolved.get());
        return kConfigOpenFailed;
    }
    return 0;
}

bool NextConfigLine(std::FILE* file, char* item, uint32_t size) {
    char line[kConfigLineSize];
    while (std::fgets(line, sizeof(line), file) != nullptr) {
        if (line[0] == '#' || line[0] == '\n' || line[0] == '\r') {
            continue;
        }
        if (std::strchr(line, '[') != nullptr && std::strchr(line, ']') != nullptr) {
            return false;
        }
        const errno_t error = strcpy_s(item, size, line + std::strspn(line, kBlanks));
        if (error == EOK) {
            return true;
        }
        SELF_LOG_ERROR("strcpy_s config item failed, result=%d, strerr=%s.", error,
                       SelfLogErrorText());
    }
    return false;
}

ConfigLine ParseConfigLine(const char* line, char* name, char* value, int* error) {
    *error = 0;
    const char* const symbol = std::strchr(line, '=');
    if (symbol == nullptr) {
        return ConfigLine::kNoSymbol;
    }
    const char* end = symbol;
    while (end > line && end[-1] == ' ') {
        --end;
    }
    if (end == line) {
        return ConfigLine::kNoName;
    }
    *error = strncpy_s(name, kConfigNameLimit, line, static_cast<size_t>(end - line));
    if (*error != EOK) {
        return ConfigLine::kNameTooLong;
    }
    return ParseValue(symbol + 1, name, value, error);
}

int ParseConfigItem(const char* line, char* name, char* value) {
    int error = 0;
    switch (ParseConfigLine(line, name, value, &error)) {
        case ConfigLine::kAccepted:
            return 0;
        case ConfigLine::kNoSymbol:
            SELF_LOG_WARN("config item has no symbol(=).");
            return kConfigRefused;
        case ConfigLine::kNoName:
            SELF_LOG_WARN("config item has no config name.");
            return kConfigRefused;
        case ConfigLine::kNameTooLong:
            SELF_LOG_ERROR("strncpy_s config name failed, result=%d, strerr=%s.", error,
                           SelfLogErrorText());
            return kConfigRefused;
        case ConfigLine::kTextTooLong:
            SELF_LOG_ERROR("strcpy_s config value to buffer failed, result=%d, strerr=%s.", error,
                           SelfLogErrorText());
            return kConfigCopyFailed;
        case ConfigLine::kNothingBehind:
            SELF_LOG_WARN("no config value after the symbol(=), config_name=%s.", name);
            return kConfigRefused;
        case ConfigLine::kValueEmpty:
            SELF_LOG_WARN("config value is empty, config_name=%s.", name);
            SELF_LOG_ERROR("handle invalid value failed, confName=%s.", name);
            return kConfigValueEmpty;
        case ConfigLine::kValueTooLong:
            SELF_LOG_ERROR("copy config value failed, result=%d, strerr=%s.", error,
                           SelfLogErrorText());
            return kConfigValueCopyFailed;
        case ConfigLine::kWordTooLong:
            SELF_LOG_ERROR("copy config value failed, config_name=%s, strerr=%s.", name,
                           SelfLogErrorText());
            return kConfigCopyFailed;
    }
    return kConfigRefused;
}
