#include "profiling/collect/prof_script.h"

#include <signal.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <istream>
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
constexpr milliseconds kKillPatience{5000};  // a killed child that is still there is not ours
constexpr uint32_t kDataModule = 3;

// Looks for the end of a child until `patience` has passed. As Utils::WaitProcess.
int LookForEnd(int pid, milliseconds patience, bool& isExited, int& exitCode) {
    const auto deadline = steady_clock::now() + patience;
    while (true) {
        const int ret = Utils::WaitProcess(pid, isExited, exitCode, false);
        if (ret != 0 || isExited || steady_clock::now() >= deadline) {
            return ret;
        }
        std::this_thread::sleep_for(kLookPause);
    }
}

}  // namespace

bool IsScriptWord(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](unsigned char c) {
        return c == '_' || (c < 0x80 && std::isalnum(c) != 0);
    });
}

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

int StartScript(const std::vector<std::string>& words, const std::string& outputFile,
                const std::string& environment, int& pid) {
    const ExecCmdParams params{words.front(), true, outputFile};
    int exitCode = 0;
    return Utils::ExecCmd(params, {words.begin() + 1, words.end()}, {environment}, exitCode, pid);
}

int WaitScript(int pid, milliseconds patience, int& exitCode) {
    bool isExited = false;
    int ret = LookForEnd(pid, patience, isExited, exitCode);
    if (ret != 0 || isExited) {
        return ret;
    }
    PROF_LOGE("Process %d did not end within %lld ms and is killed", pid,
              static_cast<long long>(patience.count()));
    kill(pid, SIGKILL);
    ret = LookForEnd(pid, kKillPatience, isExited, exitCode);
    return isExited ? ret : -1;
}

int RunScript(const std::vector<std::string>& arguments, const std::string& outputFile,
              int& exitCode) {
    std::vector<std::string> words = {kScriptSudo, kScriptPath};
    words.insert(words.end(), arguments.begin(), arguments.end());
    int pid = -1;
    const int ret = StartScript(words, outputFile, kScriptEnvironment, pid);
    return ret != 0 ? ret : WaitScript(pid, kScriptPatience, exitCode);
}

int KillScript() {
    int exitCode = 0;
    const int ret = RunScript({"--kill"}, "", exitCode);
    if (ret != 0) {
        PROF_LOGE("Failed to kill process perf, ret=%d", ret);
    } else {
        PROF_LOGI("Succeeded to kill process, ret=%d, exitCode=%d", ret, exitCode);
    }
    return ret;
}

long long UploadScriptFile(std::istream& in, Chunk& buffer, const std::string& fileName,
                           const std::shared_ptr<JobContext>& jobCtx, const std::string& jobId,
                           const std::function<void()>& failed) {
    if (jobCtx == nullptr) {
        return 0;
    }
    const std::string context = jobCtx->ToString();
    const auto size = static_cast<std::streamsize>(buffer.GetBufferSize()) - 1;
    long long total = 0;
    while (in.good()) {
        in.read(buffer.GetBuffer(), size);
        const std::string_view data(buffer.GetBuffer(), static_cast<size_t>(in.gcount()));
        auto message = EncodeFileChunk(data, {fileName, false, kDataModule}, context);
        if (message == nullptr ||
            UploaderMgr::instance().UploadData(jobId, std::move(message)) != 0) {
            failed();
        }
        total += static_cast<long long>(data.size());
    }
    return total;
}

}  // namespace Analysis::Nedra::JobWrapper
