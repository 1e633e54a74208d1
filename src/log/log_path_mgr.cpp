#include "log/log_path_mgr.h"

#include <secure_c.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <vector>

#include "log/log_common_util.h"
#include "log/log_config_list.h"
#include "log/log_platform.h"
#include "log/self_log.h"

using orla::LogFileSet;

namespace {

constexpr char kDefaultRoot[] = "/var/log/npu/slog";
constexpr char kRootKey[] = "logAgentFileDir";
constexpr char kWorkspaceKey[] = "logWorkspace";
constexpr size_t kWorkspaceSize = 65;

char g_workSpacePath[kWorkspaceSize] = "/usr/slog";

template <size_t kSize>
bool Join(char (&out)[kSize], const char* path, const char* name) {
    return snprintf_s(out, kSize, kSize - 1, "%s%s", path, name) >= 0;
}

// The log root as configured, or the default.
bool FindRoot(LogFileSet* files) {
    char value[kConfigValueLimit] = {};
    if (LogConfListGetValue(kRootKey, sizeof(kRootKey) - 1, value, sizeof(value)) != 0) {
        if (!Join(files->root, kDefaultRoot, "")) {
            std::printf("[WARNING] snprintf_s failed, log_path=%s, strerr=%s.\n", kDefaultRoot,
                        SelfLogErrorText());
            return false;
        }
        return true;
    }
    std::vector<char> resolved(kLogPathMax + 1);
    if (PrepareLogDir(value, resolved.data(), static_cast<uint32_t>(resolved.size())) != 0) {
        std::printf("[WARNING] get root realpath from conf failed, val=%s, strerr=%s.\n", value,
                    SelfLogErrorText());
        return false;
    }
    const errno_t error = strcpy_s(files->root, sizeof(files->root), resolved.data());
    if (error != EOK) {
        std::printf("[WARNING] get log dir realpath failed, ret=%d, strerr=%s.\n", error,
                    SelfLogErrorText());
    }
    return error == EOK;
}

// A root that can't be used stops nothing: it may become usable later.
void MakeRoot(const char* root) {
    if (ToolAccess(root) != EN_OK) {
        const int result = MakeLogDir(root);
        if (result != 0) {
            std::printf("[WARNING] create log path failed, ret=%d, strerr=%s.\n", result,
                        SelfLogErrorText());
        }
    } else if (ToolAccessWithMode(root, R_OK | W_OK | X_OK) != EN_OK) {
        std::printf("[WARNING] log path permission denied, strerr=%s.\n", SelfLogErrorText());
    }
}

bool BuildLogFiles() {
    auto files = std::make_shared<LogFileSet>();
    if (!FindRoot(files.get())) {
        return false;
    }
    MakeRoot(files->root);
    if (!Join(files->directory, files->root, "/slogd")) {
        std::printf("[WARNING] snprintf_s failed, slogd_log_path=%s, strerr=%s.\n", files->root,
                    SelfLogErrorText());
        return false;
    }
    if (orla::AreLogFilesSet()) {
        return true;
    }
    if (!Join(files->log, files->directory, "/slogdlog") ||
        !Join(files->old, files->directory, "/slogdlog.old") ||
        !Join(files->lock, files->directory, "/tmp.lock")) {
        return false;
    }
    orla::SetLogFiles(std::move(files));
    return true;
}

}  // namespace

void LogPathInit() {
    if (LogConfInit() != 0) {
        return;
    }
    if (!BuildLogFiles()) {
        std::puts("[WARNING] [WARNING] Init file path for self log failed and continue....");
        return;
    }
    SELF_LOG_INFO("Init conf and self log path success.");
}

void LogPathRelease() {
    LogConfListFree();
    orla::SetLogFiles(nullptr);
}

int LogWorkspaceInit() {
    char value[kConfigValueLimit] = {};
    if (LogConfListGetValue(kWorkspaceKey, sizeof(kWorkspaceKey) - 1, value, sizeof(value)) != 0) {
        SELF_LOG_INFO("use default log Workspace, val=%s.", g_workSpacePath);
    } else {
        std::vector<char> resolved(kLogPathMax + 1);
        if (ToolRealPath(value, resolved.data(), static_cast<int>(resolved.size())) != EN_OK) {
            SELF_LOG_ERROR("get realpath failed, val=%s, strerr=%s.", value, SelfLogErrorText());
            return -1;
        }
        char path[kWorkspaceSize];  // a failed copy empties its target
        errno_t error = strcpy_s(path, sizeof(path), resolved.data());
        if (error == EOK) {
            error = strcpy_s(g_workSpacePath, sizeof(g_workSpacePath), path);
        }
        if (error != EOK) {
            SELF_LOG_ERROR("copy workspace path failed, err=%d.", error);
            return -1;
        }
    }
    if (ToolAccessWithMode(g_workSpacePath, R_OK | X_OK) != EN_OK) {
        SELF_LOG_WARN("Not access workspace path, g_workSpacePath=%s.", g_workSpacePath);
        return -1;
    }
    SELF_LOG_INFO("logWorkspace = %s.", g_workSpacePath);
    return 0;
}

const char* LogWorkspacePath() {
    return g_workSpacePath;
}
