#include "profiling/collect/perf_slices.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <numeric>

#include "hdc/log_side.h"
#include "profiling/config/utils.h"

namespace Analysis::Nedra::JobWrapper {

using analysis::nedra::common::thread::TraceletErrorContext;
using analysis::nedra::common::utils::Utils;
using TraceletErrMgr::TraceletErrorManager;

namespace {

constexpr std::chrono::seconds kLookPause{1};
constexpr char kThreadName[] = "TLET_PerfSlice";
constexpr char kSliceMark[] = "ai_ctrl_cpu.data.";
constexpr int kSliceDots = 3;

bool IsSlice(const std::string& path) {
    return path.find(kSliceMark) != std::string::npos &&
           std::count(path.begin(), path.end(), '.') == kSliceDots;
}

// 0 for a file that has gone.
uint64_t SizeOf(const std::string& file) {
    struct stat state {};
    return lstat(file.c_str(), &state) == 0 ? static_cast<uint64_t>(state.st_size) : 0;
}

}  // namespace

PerfSlices::PerfSlices(const std::string& dir, uint64_t maxBytes, size_t maxCount)
    : dir_(dir), maxBytes_(maxBytes), maxCount_(maxCount) {
    SetThreadName(kThreadName);
}

PerfSlices::~PerfSlices() {
    static_cast<void>(PerfSlices::Stop());
}

std::vector<std::string> PerfSlices::Find() const {
    std::vector<std::string> files;
    Utils::GetFiles(dir_, false, files);
    files.erase(std::remove_if(files.begin(), files.end(),
                               [](const std::string& path) { return !IsSlice(path); }),
                files.end());
    std::sort(files.begin(), files.end());
    return files;
}

bool PerfSlices::Take(const std::string& file) {
    const std::lock_guard<std::mutex> lock(mutex_);
    taken_ = file;
    return access(file.c_str(), F_OK) == 0;
}

void PerfSlices::CountLost() {
    const std::lock_guard<std::mutex> lock(mutex_);
    CountLocked(1);
}

unsigned long long PerfSlices::Lost() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lost_;
}

void PerfSlices::SetQuit() {
    const std::lock_guard<std::mutex> lock(mutex_);
    Thread::SetQuit();
    quit_.notify_all();
}

int PerfSlices::Stop() {
    SetQuit();
    return Thread::Stop();
}

void PerfSlices::Run(const TraceletErrorContext& context) {
    TraceletErrorManager::instance().SetErrorContext(context);
    std::unique_lock<std::mutex> lock(mutex_);
    while (!IsQuit()) {
        try {
            DropOldest();
        } catch (const std::exception& e) {  // out of memory: the next look may fare better
            PROF_LOGE("The slices of a recording were not looked at, message: %s", e.what());
        }
        quit_.wait_for(lock, kLookPause, [this] { return IsQuit(); });
    }
}

void PerfSlices::DropOldest() {
    std::vector<std::string> files = Find();
    if (files.empty()) {
        return;
    }
    files.pop_back();
    files.erase(std::remove(files.begin(), files.end(), taken_), files.end());
    std::vector<uint64_t> sizes(files.size());
    std::transform(files.begin(), files.end(), sizes.begin(), SizeOf);
    uint64_t bytes = std::accumulate(sizes.begin(), sizes.end(), uint64_t{0});
    size_t dropped = 0;
    while (files.size() - dropped > maxCount_ || bytes > maxBytes_) {
        remove(files[dropped].c_str());
        bytes -= sizes[dropped++];
    }
    CountLocked(dropped);
}

void PerfSlices::CountLocked(size_t count) {
    lost_ += count;
    if (lost_ >= nextLog_) {
        PROF_LOGE("slices of the recording that are lost so far: %llu", lost_);
        nextLog_ = 2 * lost_;
    }
}

}  // namespace Analysis::Nedra::JobWrapper
