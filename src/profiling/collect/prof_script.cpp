#include "profiling/collect/prof_script.h"

#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <istream>
#include <mutex>
#include <thread>

#include "hdc/log_side.h"
#include "profiling/config/utils.h"
#include "profiling/datapath/uploader_mgr.h"

namespace Analysis::Nedra::JobWrapper {

using analysis::nedra::common::memory::Chunk;
using analysis::nedra::common::utils::ExecCmdParams;
using analysis::nedra::common::utils::Utils;
using analysis::nedra::message::JobContext;
using analysis::nedra::transport::EncodeFileChunk;
using analysis::nedra::transport::UploaderMgr;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr milliseconds kLookPause{10};
constexpr milliseconds kKillPatience{1000};  // of a child that does not end at once when killed
constexpr uint32_t kDataModule = 3;

// Children that have not ended when they were to. One that ends later would stay a zombie.
class LeftChildren {
public:
    void Add(int pid) {
        const std::lock_guard<std::mutex> lock(mutex_);
        pids_.push_back(pid);
    }
    void Reap() {
        const std::lock_guard<std::mutex> lock(mutex_);
        pids_.erase(std::remove_if(pids_.begin(), pids_.end(), HasGone), pids_.end());
    }

private:
    static bool HasGone(int pid) {
        bool isExited = false;
        int exitCode = 0;
        const int ret = Utils::WaitProcess(pid, isExited, exitCode, false);
        if (isExited) {
            PROF_LOGI("Process %d ended late, exit code=%d", pid, exitCode);
        }
        return ret != 0 || isExited;
    }

    std::mutex mutex_;
    std::vector<int> pids_;  // guarded by mutex_
};

LeftChildren leftChildren;

// Looks for the end of a child until the limit. As Utils::WaitProcess.
int LookForEnd(int pid, const ScriptLimit& isOver, bool& isExited, int& exitCode) {
    while (true) {
        const int ret = Utils::WaitProcess(pid, isExited, exitCode, false);
        if (ret != 0 || isExited || isOver()) {
            return ret;
        }
        std::this_thread::sleep_for(kLookPause);
    }
}

// Whether the signal could be sent.
bool Kill(int pid, milliseconds waited) {
    const auto ms = static_cast<long long>(waited.count());
    if (kill(pid, SIGKILL) != 0) {
        PROF_LOGE("Process %d did not end within %lld ms and cannot be killed: %s", pid, ms,
                  std::strerror(errno));
        return false;
    }
    PROF_LOGE("Process %d did not end within %lld ms and is killed", pid, ms);
    return true;
}

}  // namespace

bool MakeScriptDir(const std::string& dir) {
    if (Utils::CreateDir(dir) != 0) {
        PROF_LOGE("Creating dir: %s err!", Utils::BaseName(dir).c_str());
        Utils::PrintSysErrorMsg();
        return false;
    }
    return true;
}

bool MakeEmptyFile(const std::string& path) {
    return std::ofstream(path, std::ios::trunc).is_open();
}

ScriptLimit LimitAfter(milliseconds patience) {
    return [deadline = steady_clock::now() + patience] { return steady_clock::now() >= deadline; };
}

namespace {

// A kill run ends whatever the script has started, so no recording starts while one runs: it
// would be ended with those of another job. A leaf, but for what the start of a child locks.
std::mutex killMutex;

int Launch(const std::vector<std::string>& words, const std::string& outputFile,
           const std::string& environment, int& pid) {
    ReapScripts();
    const ExecCmdParams params{words.front(), true, outputFile};
    int exitCode = 0;
    return Utils::ExecCmd(params, {words.begin() + 1, words.end()}, {environment}, exitCode, pid);
}

}  // namespace

int StartScript(const std::vector<std::string>& words, const std::string& outputFile,
                const std::string& environment, int& pid) {
    const std::lock_guard<std::mutex> lock(killMutex);
    return Launch(words, outputFile, environment, pid);
}

int WaitScript(int pid, const ScriptLimit& isOver, int& exitCode) {
    const auto begin = steady_clock::now();
    bool isExited = false;
    int ret = LookForEnd(pid, isOver, isExited, exitCode);
    if (ret != 0 || isExited) {
        return ret;
    }
    if (Kill(pid, std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin))) {
        ret = LookForEnd(pid, LimitAfter(kKillPatience), isExited, exitCode);
        if (ret != 0 || isExited) {
            return ret;
        }
    }
    leftChildren.Add(pid);
    return -1;
}

int RunScript(const std::vector<std::string>& arguments, const std::string& outputFile,
              const ScriptLimit& isOver, int& exitCode) {
    std::vector<std::string> words = {kScriptSudo, kScriptPath};
    words.insert(words.end(), arguments.begin(), arguments.end());
    int pid = -1;
    const int ret = Launch(words, outputFile, kScriptEnvironment, pid);
    return ret != 0 ? ret : WaitScript(pid, isOver, exitCode);
}

int KillScript(const ScriptLimit& isOver) {
    int exitCode = 0;
    const std::lock_guard<std::mutex> lock(killMutex);
    const int ret = RunScript({"--kill"}, "", isOver, exitCode);
    if (ret != 0) {
        PROF_LOGE("Failed to kill process perf, ret=%d", ret);
    } else {
        PROF_LOGI("Succeeded to kill process, ret=%d, exitCode=%d", ret, exitCode);
    }
    return ret;
}

void ReapScripts() {
    leftChildren.Reap();
}

long long UploadScriptFile(std::istream& in, Chunk& buffer, const std::string& fileName,
                           const std::shared_ptr<JobContext>& jobCtx, const std::string& jobId,
                           const std::function<bool()>& failed) {
    if (jobCtx == nullptr) {
        return 0;
    }
    const std::string context = jobCtx->ToString();
    const auto size = static_cast<std::streamsize>(buffer.GetBufferSize()) - 1;
    long long total = 0;
    bool goesOn = true;
    while (goesOn && in.good()) {
        in.read(buffer.GetBuffer(), size);
        const std::string_view data(buffer.GetBuffer(), static_cast<size_t>(in.gcount()));
        auto message = EncodeFileChunk(data, {fileName, false, kDataModule}, context);
        if (message == nullptr ||
            UploaderMgr::instance().UploadData(jobId, std::move(message)) != 0) {
            goesOn = failed();
        }
        total += static_cast<long long>(data.size());
    }
    return total;
}

}  // namespace Analysis::Nedra::JobWrapper
