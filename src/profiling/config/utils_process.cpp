#include <new>

#include "hdc/log_side.h"
#include "profiling/config/utils.h"

namespace analysis::nedra::common::utils {

namespace {

constexpr size_t kMaxEntries = 0x100000;
constexpr int kRefusedExitCode = -1;  // the caller never got as far as a sensible value

// For a log line: the arguments, with what may be a path cut to its base name.
std::string BaseNames(const std::vector<std::string>& argv) {
    std::string text;
    for (const std::string& argument : argv) {
        text +=
            (text.empty() ? "" : " ") + (argument.empty() ? argument : Utils::BaseName(argument));
    }
    return text;
}

std::string BaseNameOrNothing(const std::string& path) {
    return path.empty() ? path : Utils::BaseName(path);
}

// A new program does not write into the texts of the one that starts it, whatever its
// interface lacks in const.
char* Writable(const std::string& text) {
    return const_cast<char*>(text.c_str());
}

// The C arrays of a command; they point into the texts that they are made of.
class CommandArrays {
public:
    CommandArrays(const std::string& cmd, const std::vector<std::string>& argv,
                  const std::vector<std::string>& envp) {
        argv_.reserve(argv.size() + 2);
        argv_.push_back(Writable(cmd));
        for (const std::string& argument : argv) {
            argv_.push_back(Writable(argument));
        }
        argv_.push_back(nullptr);
        envp_.reserve(envp.size() + 1);
        for (const std::string& variable : envp) {
            envp_.push_back(Writable(variable));
        }
        envp_.push_back(nullptr);
    }

    ExecCmdArgv View() {
        return {argv_.data(), static_cast<int32_t>(argv_.size() - 1), envp_.data(),
                static_cast<int32_t>(envp_.size() - 1)};
    }

private:
    std::vector<char*> argv_;
    std::vector<char*> envp_;
};

bool MayRun(const ExecCmdParams& params, const ExecCmdArgv& arrays, int exitCode) {
    return !params.cmd.empty() && arrays.argv != nullptr && arrays.envp != nullptr &&
           exitCode != kRefusedExitCode;
}

// Starts the command: 0 with the child in `pid`, or -1.
int StartCommand(const ExecCmdParams& params, const ExecCmdArgv& arrays, int& pid) {
    const std::string& file = params.stdoutRedirectFile;
    pid_t child = 0;
    if (mmCreateProcess(params.cmd.c_str(), &arrays, file.empty() ? nullptr : file.c_str(),
                        &child) != EN_OK) {
        Utils::PrintSysErrorMsg();
        return -1;
    }
    pid = child;
    return 0;
}

int RunAndWait(const ExecCmdParams& params, const ExecCmdArgv& arrays, int& exitCode) {
    const std::string dir = Utils::DirName(params.cmd);
    if (mmChdir(dir.c_str()) != EN_OK) {
        PROF_LOGW("chdir(%s) failed.", Utils::BaseName(dir).c_str());
    }
    int pid = 0;
    const int ret = StartCommand(params, arrays, pid);
    if (ret != 0) {
        return ret;
    }
    bool isExited = false;
    return Utils::WaitProcess(pid, isExited, exitCode, true);
}

}  // namespace

int Utils::ExecCmd(const ExecCmdParams& params, const std::vector<std::string>& argv,
                   const std::vector<std::string>& envp, int& exitCode, int& pid) {
    if (argv.size() > kMaxEntries || envp.size() > kMaxEntries) {
        PROF_LOGE("invalid argv or envp size");
        return -1;
    }
    PROF_LOGI("Execute cmd:\"%s %s\", stdoutRedirectFile=%s", BaseNameOrNothing(params.cmd).c_str(),
              BaseNames(argv).c_str(), BaseNameOrNothing(params.stdoutRedirectFile).c_str());
    try {
        CommandArrays arrays(params.cmd, argv, envp);
        if (!MayRun(params, arrays.View(), exitCode)) {
            return -1;
        }
        return params.async ? StartCommand(params, arrays.View(), pid)
                            : RunAndWait(params, arrays.View(), exitCode);
    } catch (const std::bad_alloc&) {
        PROF_LOGE("Pointer is null");
        return -1;
    }
}

int Utils::WaitProcess(int pid, bool& isExited, int& exitCode, bool hang) {
    isExited = false;
    if (pid <= 0) {
        return -1;  // for the system that would be any child, also another thread's
    }
    int32_t status = 0;
    const int32_t ret = mmWaitPid(pid, &status, hang ? 0 : M_WAIT_NOHANG);
    if (ret == 1) {
        isExited = true;
        exitCode = status;
        return 0;
    }
    return ret == 0 && !hang ? 0 : -1;
}

}  // namespace analysis::nedra::common::utils
