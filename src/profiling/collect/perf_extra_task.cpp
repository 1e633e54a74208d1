#include "profiling/collect/perf_extra_task.h"

#include <cstdio>
#include <exception>
#include <fstream>
#include <istream>
#include <utility>
#include <vector>

#include "hdc/log_side.h"
#include "profiling/config/utils.h"

namespace Analysis::Nedra::JobWrapper {

using analysis::nedra::common::thread::TraceletErrorContext;
using analysis::nedra::common::utils::Utils;
using std::chrono::steady_clock;
using TraceletErrMgr::TraceletErrorManager;

namespace {

constexpr uint64_t kPassPauseUs = 1000000;
constexpr uint64_t kQuitLookUs = 20000;
constexpr uint64_t kMaxTextSize = 0x20000000;
constexpr char kFileName[] = "data/ai_ctrl_cpu.data";

// Slice and text go when they have had their turn, whatever came of it.
struct Turn {
    PerfSlices& slices;
    const std::string& file;
    const std::string& text;
    bool isWhole;

    ~Turn() {
        remove(file.c_str());
        remove(text.c_str());
        if (!isWhole) {
            slices.CountLost();
        }
    }
};

}  // namespace

PerfExtraTask::PerfExtraTask(uint64_t bufSize, const std::string& retDir, JobCtx jobCtx,
                             Params params, const RecordingLimits& limits)
    : patience_(limits.patience),
      buf_(bufSize),
      jobCtx_(std::move(jobCtx)),
      params_(std::move(params)),
      slices_(retDir, limits.maxBytes, limits.maxCount) {}

PerfExtraTask::~PerfExtraTask() {
    static_cast<void>(Thread::Stop());
}

int PerfExtraTask::Init() {
    if (params_ == nullptr || params_->host_profiling != 0) {
        return -1;
    }
    if (isInited_) {
        PROF_LOGE("The PerfExtraTask is inited");
        return -1;
    }
    if (!buf_.Init()) {
        PROF_LOGE("Buf init failed");
        return -1;
    }
    PROF_LOGI("PerfExtraTask init succ");
    isInited_ = true;
    return 0;
}

int PerfExtraTask::Uninit() {
    if (!isInited_) {
        PROF_LOGI("PerfExtraTask is uninited");
        return 0;
    }
    buf_.Uninit();
    isInited_ = false;
    return 0;
}

void PerfExtraTask::Run(const TraceletErrorContext& errorContext) {
    TraceletErrorManager::instance().SetErrorContext(errorContext);
    while (!IsQuit()) {
        PROF_LOGI("PerfExtraTask running");
        if (slices_.Start() != 0) {
            PROF_LOGW("no thread bounds the slices of the recording");
        }
        for (uint64_t slept = 0; slept < kPassPauseUs && !IsQuit(); slept += kQuitLookUs) {
            Utils::UsleepInterupt(kQuitLookUs);
        }
        TryPass();
    }
    static_cast<void>(slices_.Stop());
    TryPass();
    PROF_LOGI("PerfExtraTask the total data size: %lld", dataSize_);
    if (slices_.Lost() > 0) {
        PROF_LOGE("slices of the recording that the host misses: %llu", slices_.Lost());
    }
}

bool PerfExtraTask::IsOver() {
    if (!IsQuit()) {
        return false;
    }
    const auto now = steady_clock::now();
    if (!lastPassEnd_) {
        lastPassEnd_ = now + patience_;
    }
    return isHostGone_ || now >= *lastPassEnd_;
}

void PerfExtraTask::TryPass() {
    try {
        ResolvePass();
    } catch (const std::exception& e) {
        PROF_LOGE("A pass over the recording failed, message: %s", e.what());
    }
}

void PerfExtraTask::ResolvePass() {
    const std::vector<std::string> files = slices_.Find();
    for (size_t i = 0; i < files.size(); ++i) {
        const bool isNewest = i + 1 == files.size();
        if (isNewest && !IsQuit()) {
            return;
        }
        if (slices_.Take(files[i])) {
            ResolveSlice(files[i]);
        }
    }
}

void PerfExtraTask::ResolveSlice(const std::string& file) {
    const std::string text = file + ".txt";
    Turn turn{slices_, file, text, false};
    if (IsOver()) {
        return;
    }
    PROF_LOGI("PerfExtraTask file: %s", Utils::BaseName(file).c_str());
    int exitCode = 0;
    const int ret = RunScript(
        {"--script", file}, text, [this] { return IsOver(); }, exitCode);
    PROF_LOGI("resolve ctrlcpu data:%s, ret=%d, exit_code=%d", Utils::BaseName(file).c_str(), ret,
              exitCode);
    turn.isWhole = ret == 0 && exitCode == 0 && UploadText(text);
}

bool PerfExtraTask::UploadText(const std::string& file) {
    if (!Utils::IsFileExist(file)) {
        PROF_LOGW("file:%s is not exist", Utils::BaseName(file).c_str());
        return false;
    }
    const uint64_t size = Utils::GetFileSize(file);
    if (size < 1 || size > kMaxTextSize) {
        PROF_LOGE("data file size is invalid");
        return size == 0;
    }
    std::ifstream in(file, std::ios::binary);
    return in.is_open() && buf_.GetBuffer() != nullptr && UploadFrom(in);
}

bool PerfExtraTask::UploadFrom(std::istream& in) {
    bool isWhole = true;
    const auto failed = [&] {
        PROF_LOGE("Upload cpu data failed , jobId: %s", params_->job_id.c_str());
        isWhole = false;
        isHostGone_ = IsQuit();
        return !isHostGone_;
    };
    const auto begin = steady_clock::now();
    dataSize_ += UploadScriptFile(in, buf_, kFileName, jobCtx_, params_->job_id, failed);
    if (lastPassEnd_) {
        *lastPassEnd_ += steady_clock::now() - begin;
    }
    PROF_LOGI("PerfExtraTask data size: %lld", dataSize_);
    return isWhole;
}

}  // namespace Analysis::Nedra::JobWrapper
