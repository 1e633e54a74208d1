#include "file_service/ide_process_util.h"

#include <portability.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>

#include "file_service/file_utils.h"
#include "file_service/string_utils.h"
#include "hdc/log_side.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

constexpr int kChildEnded = 1;
constexpr int32_t kKilled = 128 + SIGKILL;
constexpr int kReapTries = 100;
constexpr uint32_t kReapPauseMs = 10;

struct Child {
    pid_t pid = 0;
    int32_t status = 0;
};

int RunShell(std::string command, Child* child) {
    std::string texts[] = {"sh", "-c", std::move(command), "PATH=/usr/bin:/usr/sbin:/var"};
    char* argv[] = {texts[0].data(), texts[1].data(), texts[2].data(), nullptr};
    char* envp[] = {texts[3].data(), nullptr};
    const mmArgvEnv arguments{argv, 4, envp, 2};
    int ret = mmCreateProcess("/bin/sh", &arguments, nullptr, &child->pid);
    if (ret != EN_OK) {
        IDE_LOGE("mmCreateProcess failed ret=%d", ret);
        return -1;
    }
    ret = mmWaitPid(child->pid, &child->status, 0);
    if (ret != kChildEnded) {
        IDE_LOGE("mmWaitPid failed ret=%d", ret);
        return -1;
    }
    return 0;
}

// Whether a group that was killed has members that may not be. Those that could be killed are
// still in it until their new parent has reaped them.
bool HasSurvivors(pid_t group) {
    for (int tries = 0; tries < kReapTries; ++tries) {
        if (kill(-group, 0) != 0) {
            return errno == EPERM;
        }
        mmSleep(kReapPauseMs);
    }
    return false;
}

}  // namespace

int VeltCreateProcess(const std::string& command) {
    Child child;
    return RunShell(command, &child);
}

int VeltCreateProcessFor(const std::string& command, seconds limit) {
    limit = std::max(limit, seconds(1));  // 0 would be no limit
    const auto start = steady_clock::now();
    Child child;
    // By the exec the shell's process is that of timeout, and so its group has the child's number.
    if (RunShell("exec timeout -s KILL " + std::to_string(limit.count()) + " " + command, &child) !=
        0) {
        return -1;
    }
    if (child.status != kKilled || steady_clock::now() - start < limit) {
        if (child.status != 0) {
            IDE_LOGW("%s ended with %d", command.c_str(), child.status);
        }
        return 0;
    }
    IDE_LOGE("%s did not end within %lld s and was killed%s", command.c_str(),
             static_cast<long long>(limit.count()),
             HasSurvivors(child.pid) ? "; what it runs as another account goes on" : "");
    return -1;
}

int CopyFile(const std::string& source, const std::string& target) {
    if (source.empty() || target.empty()) {
        return kFileBadPath;
    }
    const std::string command = "cp " + ShellWord(source) + " " + ShellWord(target);
    IDE_LOGI("cp command : %s", command.c_str());
    if (VeltCreateProcess(command) != 0) {
        IDE_LOGE("VeltCreateProcess failed");
        return kFileError;
    }
    return kFileOk;
}
