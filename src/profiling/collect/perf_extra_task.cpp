#include "profiling/collect/perf_extra_task.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <utility>

#include "hdc/log_side.h"
#include "profiling/collect/prof_script.h"
#include "profiling/config/utils.h"

namespace Analysis::Nedra::JobWrapper {

using analysis::nedra::common::thread::TraceletErrorContext;
using analysis::nedra::common::utils::Utils;
using TraceletErrMgr::TraceletErrorManager;

namespace {

constexpr uint64_t kPassPauseUs = 1000000;
constexpr uint64_t kMaxTextSize = 0x20000000;
constexpr char kSliceMark[] = "ai_ctrl_cpu.data.";
constexpr int kSliceDots = 3;
constexpr char kFileName[] = "data/ai_ctrl_cpu.data";

bool IsSlice(const std::string& path) {
    return path.find(kSliceMark) != std::string::npos &&
           std::count(path.begin(), path.end(), '.') == kSliceDots;
}

}  // namespace

PerfExtraTask::PerfExtraTask(uint64_t bufSize, const std::string& retDir, JobCtx jobCtx,
                             Params params)
    : retDir_(retDir), buf_(bufSize), jobCtx_(std::move(jobCtx)), params_(std::move(params)) {}

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
        Utils::UsleepInterupt(kPassPauseUs);
        ResolvePass();
    }
    ResolvePass();
    PROF_LOGI("PerfExtraTask the total data size: %lld", dataSize_);
}

std::vector<std::string> PerfExtraTask::FindSlices() const {
    std::vector<std::string> files;
    Utils::GetFiles(retDir_, false, files);
    files.erase(std::remove_if(files.begin(), files.end(),
                               [](const std::string& file) { return !IsSlice(file); }),
                files.end());
    std::sort(files.begin(), files.end());
    return files;
}

void PerfExtraTask::ResolvePass() {
    const std::vector<std::string> slices = FindSlices();
    for (size_t i = 0; i < slices.size(); ++i) {
        const bool isNewest = i + 1 == slices.size();
        if (!isNewest || IsQuit()) {
            ResolveSlice(slices[i]);
        }
    }
}

void PerfExtraTask::ResolveSlice(const std::string& file) {
    PROF_LOGI("PerfExtraTask file: %s", Utils::BaseName(file).c_str());
    const std::string text = file + ".txt";
    int exitCode = 0;
    const int ret = RunScript({"--script", file}, text, exitCode);
    PROF_LOGI("resolve ctrlcpu data:%s, ret=%d, exit_code=%d", Utils::BaseName(file).c_str(), ret,
              exitCode);
    UploadText(text);
    remove(file.c_str());
    remove(text.c_str());
}

void PerfExtraTask::UploadText(const std::string& file) {
    if (!Utils::IsFileExist(file)) {
        PROF_LOGW("file:%s is not exist", Utils::BaseName(file).c_str());
        return;
    }
    const uint64_t size = Utils::GetFileSize(file);
    if (size < 1 || size > kMaxTextSize) {
        PROF_LOGE("data file size is invalid");
        return;
    }
    std::ifstream in(file, std::ios::binary);
    if (!in.is_open() || buf_.GetBuffer() == nullptr) {
        return;
    }
    const auto failed = [this] {
        PROF_LOGE("Upload cpu data failed , jobId: %s", params_->job_id.c_str());
    };
    dataSize_ += UploadScriptFile(in, buf_, kFileName, jobCtx_, params_->job_id, failed);
    PROF_LOGI("PerfExtraTask data size: %lld", dataSize_);
}

}  // namespace Analysis::Nedra::JobWrapper
