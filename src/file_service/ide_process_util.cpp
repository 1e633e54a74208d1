#include "file_service/ide_process_util.h"

#include <portability.h>

#include "file_service/file_utils.h"
#include "file_service/string_utils.h"
#include "hdc/log_side.h"

namespace {

constexpr int kChildEnded = 1;

}  // namespace

int VeltCreateProcess(const std::string& command) {
    std::string texts[] = {"sh", "-c", command, "PATH=/usr/bin:/usr/sbin:/var"};
    char* argv[] = {texts[0].data(), texts[1].data(), texts[2].data(), nullptr};
    char* envp[] = {texts[3].data(), nullptr};
    const mmArgvEnv arguments{argv, 4, envp, 2};
    pid_t pid = 0;
    int ret = mmCreateProcess("/bin/sh", &arguments, nullptr, &pid);
    if (ret != EN_OK) {
        IDE_LOGE("mmCreateProcess failed ret=%d", ret);
        return -1;
    }
    int32_t status = 0;
    ret = mmWaitPid(pid, &status, 0);
    if (ret != kChildEnded) {
        IDE_LOGE("mmWaitPid failed ret=%d", ret);
        return -1;
    }
    return 0;
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
