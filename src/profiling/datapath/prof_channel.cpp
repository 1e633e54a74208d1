#include "profiling/datapath/prof_channel.h"

#include <portability.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include "hdc/log_side.h"
#include "profiling/config/ai_drv_dev_api.h"
#include "profiling/config/json_parser.h"
#include "profiling/config/make_shared.h"
#include "profiling/config/utils.h"
#include "profiling/datapath/ai_drv_prof_api.h"
#include "profiling/datapath/uploader_mgr.h"

namespace analysis::nedra::transport {

using Analysis::Nedra::Common::Statistics::PerfCount;
using Analysis::Nedra::TraceletErrMgr::TraceletErrorManager;
using common::thread::LoadBalanceMethod;
using common::thread::Thread;
using common::thread::ThreadPool;
using common::thread::TraceletErrorContext;
using common::utils::Utils;
using Tracelets::Parser::JsonParser;

namespace {

constexpr uint32_t kDefaultBufSize = 0x200000;
constexpr uint32_t kUploadThreshold = 0x199999;  // 80 % of the default
constexpr uint32_t kMaxPerExecute = 0x1FFFFFF;
// More than any driver keeps of a stopped channel: there would be no end to one that goes on.
constexpr uint64_t kMaxDrain = uint64_t{1} << 30;
constexpr uint32_t kMaxDispatches = 2;
constexpr uint32_t kChannelData = 3;  // DataModule of a chunk
constexpr std::chrono::seconds kDrvFlushLimit{2};
// How long a reader whose host's queue was full leaves its channel to the driver.
constexpr uint64_t kHeldUpNs = 5000000;
constexpr char kSpeedName[] = "ChannelReaderSpeed";
constexpr char kSpeedAllName[] = "ChannelReaderSpeedAll";

bool HasSideBuffer(int channelId) {
    return channelId == driver::kChannelTsFw || channelId == driver::kChannelHwtsLog;
}

}  // namespace

// ---- A channel's reader -------------------------------------------------------------------------

ChannelReader::ChannelReader(int deviceId, int channelId, const std::string& relativeFileName,
                             std::shared_ptr<message::JobContext> jobCtx)
    : deviceId_(deviceId),
      channelId_(channelId),
      relativeFileName_(relativeFileName),
      jobCtx_(std::move(jobCtx)),
      hashId_(int64_t{deviceId} + channelId),
      bufSize_(kDefaultBufSize),
      spaceSize_(kDefaultBufSize) {}

ChannelReader::~ChannelReader() {
    ReportLoss();  // replaced, or left behind at the end of the poll
}

int ChannelReader::Init() {
    const std::lock_guard<std::mutex> lock(mtx_);
    const uint32_t configured =
        JsonParser::instance().GetChannelBufSize(static_cast<uint32_t>(channelId_));
    bufSize_ = configured != 0 ? configured : kDefaultBufSize;
    try {
        buffer_ = std::make_unique<ReaderBuffer>(
            bufSize_, FileChunkInfo{relativeFileName_, false, kChannelData},
            jobCtx_ == nullptr ? std::string() : jobCtx_->ToString());
        perfCount_ = std::make_unique<PerfCount>(kSpeedName);
        perfCountAll_ = std::make_unique<PerfCount>(kSpeedAllName);
    } catch (const std::exception& e) {
        PROF_LOGE("make shared failed, message: %s", e.what());
        return -1;
    }
    if (buffer_->Data() == nullptr) {
        return -1;
    }
    lastEndTime_ = 0;
    drvChannelReadCont_ = 0;
    inited_ = true;
    return 0;
}

void ChannelReader::Uninit() {
    const std::string jobId = jobCtx_ == nullptr ? std::string() : jobCtx_->job_id;
    {
        const std::lock_guard<std::mutex> lock(mtx_);
        PROF_EVENT(
            "device id %d, channel: %d, total_size_channel: %lld, file:%s, job_id:%s, "
            "drvChannelReadCont:%lld",
            deviceId_, channelId_, static_cast<long long>(totalSize_),
            Utils::BaseName(relativeFileName_).c_str(), jobId.c_str(),
            static_cast<long long>(drvChannelReadCont_));
        const std::string tag = "[" + jobId + " : " + std::to_string(deviceId_) + " : " +
                                std::to_string(channelId_) + "]";
        if (perfCount_ != nullptr && perfCountAll_ != nullptr) {
            perfCount_->OutPerfInfo(kSpeedName + tag);
            perfCountAll_->OutPerfInfo(kSpeedAllName + tag);
        }
        inited_ = false;
        static_cast<void>(UploadData(true));
    }
    const std::lock_guard<std::mutex> lock(flushMtx_);
    EndFlush();
}

void ChannelReader::SetQuit() {
    quit_ = true;
    const std::lock_guard<std::mutex> lock(flushMtx_);
    EndFlush();
}

uint64_t ChannelReader::HashId() {
    return static_cast<uint64_t>(hashId_);
}

int ChannelReader::Execute() {
    try {
        const std::lock_guard<std::mutex> lock(mtx_);
        uint32_t totalLen = 0;
        while (totalLen <= kMaxPerExecute) {
            ++drvChannelReadCont_;
            if (!inited_ || quit_) {
                break;
            }
            const int ret = ReadOnce(false);
            if (ret <= 0) {
                break;
            }
            totalLen += static_cast<uint32_t>(ret);
        }
    } catch (const std::exception& e) {
        PROF_LOGE("read device %d, channel:%d, message: %s", deviceId_, channelId_, e.what());
    }
    if (flushAsked_.exchange(false)) {
        const std::lock_guard<std::mutex> lock(mtx_);
        static_cast<void>(UploadData(false));
    }
    // Also after an exception, or the channel would never be dispatched again.
    SetSchedulingStatus(false);
    return 0;
}

bool ChannelReader::IsReported() const {
    return JsonParser::instance().GetChannelReporterSwitch(static_cast<uint32_t>(channelId_));
}

void ChannelReader::Drain() {
    if (!IsReported()) {
        return;
    }
    const std::lock_guard<std::mutex> lock(mtx_);
    uint64_t total = 0;
    int ret = 0;
    while (inited_ && !quit_ && (ret = ReadOnce(true)) > 0) {
        total += static_cast<uint64_t>(ret);
        if (total > kMaxDrain) {
            PROF_LOGE("device id %d, channel: %d still gives data after its stop, bytes read:%llu",
                      deviceId_, channelId_, static_cast<unsigned long long>(total));
            return;
        }
    }
}

// Whether the driver can be asked for at least one byte.
bool ChannelReader::MakeRoom(bool mayWait) {
    const auto most = static_cast<uint32_t>(uint64_t{bufSize_} * 4 / 5);
    const uint32_t threshold = std::min(kUploadThreshold, most);
    const bool isDue = pending_ != nullptr || dataSize_ > threshold;
    if (isDue && !UploadData(mayWait)) {
        return false;
    }
    spaceSize_ = bufSize_ - dataSize_;
    return spaceSize_ != 0;
}

// Bytes read; 0 when there is nothing to read or no room, negative on an error. `isStopped`: the
// driver has been told to stop the channel, and may well say so; the caller is no worker then, and
// may wait for the host.
int ChannelReader::ReadOnce(bool isStopped) {
    char* const data = MakeRoom(isStopped) ? buffer_->Data() : nullptr;
    if (data == nullptr) {
        return 0;
    }
    const uint64_t start = Utils::GetClockMonotonicRaw();
    int ret = 0;
    {
        const std::lock_guard<std::mutex> lock(flushMtx_);
        ret =
            driver::DrvChannelRead(deviceId_, channelId_, data + dataSize_, spaceSize_, isStopped);
        AccountFlush(ret);
    }
    PROF_LOGD("deviceId:%d, channelId:%d fileName:%s, bufSize:%u, currLen:%d, spaceSize:%u",
              deviceId_, channelId_, Utils::BaseName(relativeFileName_).c_str(), bufSize_, ret,
              spaceSize_);
    if (ret < 0) {
        PROF_LOGE("read device %d, channel:%d, ret=%d", deviceId_, channelId_, ret);
        return ret;
    }
    if (ret == 0) {
        return 0;
    }
    const uint64_t end = Utils::GetClockMonotonicRaw();
    perfCount_->UpdatePerfInfo(start, end, static_cast<uint64_t>(ret));
    if (lastEndTime_ != 0) {
        perfCountAll_->UpdatePerfInfo(lastEndTime_, end, static_cast<uint64_t>(ret));
    }
    lastEndTime_ = end;
    totalSize_ += static_cast<uint64_t>(ret);
    dataSize_ += static_cast<uint32_t>(ret);
    return ret;
}

// False when all that is buffered waits for room in the host's queue.
bool ChannelReader::UploadData(bool mayWait) {
    if (dataSize_ == 0) {
        return true;
    }
    const std::string jobId = jobCtx_ == nullptr ? std::string() : jobCtx_->job_id;
    auto& uploaders = UploaderMgr::instance();
    auto taken = Uploader::Taken::kLost;
    try {
        if (pending_ == nullptr) {
            pending_ = buffer_->TakeMessage(dataSize_);
        }
        if (pending_ == nullptr) {
            return true;  // the bytes are kept
        }
        if (!mayWait) {
            taken = uploaders.TryUpload(jobId, pending_);
        } else if (uploaders.UploadData(jobId, std::move(pending_)) == 0) {
            taken = Uploader::Taken::kQueued;
        }
    } catch (const std::exception& e) {
        // The buffer may be gone with the message.
        PROF_LOGE("make shared failed, message: %s", e.what());
    }
    if (taken == Uploader::Taken::kFull) {
        heldUpUntil_ = Utils::GetClockMonotonicRaw() + kHeldUpNs;
        return false;
    }
    heldUpUntil_ = 0;
    pending_.reset();
    if (taken == Uploader::Taken::kLost) {
        PROF_LOGE("Upload data failed, jobId: %s", jobId.c_str());
        ReportLoss();
    }
    dataSize_ = 0;
    return true;
}

void ChannelReader::ReportLoss() const {
    if (dataSize_ != 0) {
        PROF_LOGE("device id %d, channel: %d, bytes lost:%u", deviceId_, channelId_, dataSize_);
    }
}

void ChannelReader::Flush() {
    const std::lock_guard<std::mutex> lock(mtx_);
    static_cast<void>(UploadData(true));
}

bool ChannelReader::AskFlush() {
    flushAsked_ = true;
    return IsReported();
}

void ChannelReader::AccountFlush(int ret) {
    if (!HasSideBuffer(channelId_) || !flushPending_) {
        return;
    }
    if (ret > 0 && static_cast<uint32_t>(ret) <= UINT32_MAX - readSize_) {
        readSize_ += static_cast<uint32_t>(ret);
        if (flushBufSize_ > readSize_) {
            return;
        }
    }
    EndFlush();
}

void ChannelReader::EndFlush() {
    flushPending_ = false;
    flushBufSize_ = 0;
    readSize_ = 0;
    flushCv_.notify_all();
}

void ChannelReader::FlushDrvBuff() {
    if (!HasSideBuffer(channelId_)) {
        return;
    }
    {
        std::unique_lock<std::mutex> lock(flushMtx_);
        uint32_t flushSize = 0;
        const int ret = driver::DrvProfFlush(static_cast<uint32_t>(deviceId_),
                                             static_cast<uint32_t>(channelId_), flushSize);
        if (ret != 0) {
            PROF_LOGE("DrvProfFlush failed, deviceId:%d, channelId:%d, ret:%d", deviceId_,
                      channelId_, ret);
            return;
        }
        PROF_LOGI("Flush deviceId:%d, channelId:%d, flushSize:%d", deviceId_, channelId_,
                  static_cast<int>(flushSize));
        if (flushSize == 0) {
            PROF_LOGI("No drv data need flush.");
            return;
        }
        if (quit_ || !inited_ || !IsReported()) {
            return;  // nobody will read it
        }
        flushPending_ = true;
        flushBufSize_ = flushSize;
        flushCv_.wait_for(lock, kDrvFlushLimit, [this] { return !flushPending_; });
        EndFlush();
    }
    Flush();
}

bool ChannelReader::GetSchedulingStatus() const {
    return schedulingCount_ > kMaxDispatches || Utils::GetClockMonotonicRaw() < heldUpUntil_;
}

bool ChannelReader::IsRetryDue() const {
    const uint64_t until = heldUpUntil_;
    return until != 0 && Utils::GetClockMonotonicRaw() >= until;
}

void ChannelReader::SetSchedulingStatus(bool isDispatched) {
    if (isDispatched) {
        ++schedulingCount_;
        return;
    }
    uint32_t count = schedulingCount_;
    while (count != 0 && !schedulingCount_.compare_exchange_weak(count, count - 1)) {
    }
}

// ---- The poll -----------------------------------------------------------------------------------

namespace {

constexpr uint32_t kMinWorkers = 4;
constexpr uint32_t kMaxWorkers = 64;
constexpr uint64_t kWorkerQueue = 8192;
constexpr int kPollEvents = 6;
constexpr int kPollTimeout = 1;  // in the driver's unit
constexpr uint32_t kPauseMs = 1;
constexpr uint64_t kFlushPeriodNs = 9999999999;

}  // namespace

ChannelPoll::~ChannelPoll() {
    static_cast<void>(ChannelPoll::Stop());
}

void ChannelPoll::AddReader(uint32_t devId, uint32_t channel,
                            const std::shared_ptr<ChannelReader>& reader) {
    if (reader == nullptr) {
        return;
    }
    std::shared_ptr<ChannelReader> replaced = reader;  // released after the lock
    const std::lock_guard<std::mutex> lock(readersMtx_);
    PROF_LOGI("AddReader, devId:%u, channel:%u", devId, channel);
    readers_[devId][channel].swap(replaced);
    readersCv_.notify_all();
}

void ChannelPoll::RemoveReader(uint32_t devId, uint32_t channel) {
    std::shared_ptr<ChannelReader> removed;
    {
        const std::lock_guard<std::mutex> lock(readersMtx_);
        PROF_LOGI("RemoveReader, devId:%u, channel:%u", devId, channel);
        const auto device = readers_.find(devId);
        if (device == readers_.end()) {
            return;
        }
        PROF_LOGI("RemoveReader, fid dev, devId:%u", devId);
        const auto found = device->second.find(channel);
        if (found != device->second.end()) {
            PROF_LOGI("RemoveReader, devId:%u, channel:%u", devId, channel);
            removed = std::move(found->second);
            device->second.erase(found);
        }
        if (device->second.empty()) {
            readers_.erase(device);
        }
    }
    // Outside the lock: the upload of the rest may have to wait for the host.
    if (removed != nullptr) {
        removed->SetQuit();
        removed->Uninit();
    }
}

std::shared_ptr<ChannelReader> ChannelPoll::GetReader(uint32_t devId, uint32_t channel) {
    const std::lock_guard<std::mutex> lock(readersMtx_);
    const auto device = readers_.find(devId);
    if (device == readers_.end()) {
        return nullptr;
    }
    const auto reader = device->second.find(channel);
    return reader == device->second.end() ? nullptr : reader->second;
}

int ChannelPoll::Start() {
    const int deviceNum = driver::DrvGetDevNum();
    PROF_LOGI("Get device num %d", deviceNum);
    const uint32_t threadNum =
        std::clamp(static_cast<uint32_t>(std::max(deviceNum, 0)), kMinWorkers, kMaxWorkers);
    threadPool_ = common::MakeShared<ThreadPool>(LoadBalanceMethod::kById, threadNum);
    if (threadPool_ == nullptr) {
        return -1;
    }
    threadPool_->SetThreadPoolNamePrefix("TLET_ChanPool_");
    threadPool_->SetThreadPoolQueueSize(kWorkerQueue);
    isStarted_ = true;
    static_cast<void>(threadPool_->Start());
    SetThreadName("TLET_ChanPoll");
    static_cast<void>(Thread::Start());
    return 0;
}

int ChannelPoll::Stop() {
    if (!isStarted_.exchange(false)) {
        return 0;
    }
    {
        const std::lock_guard<std::mutex> lock(readersMtx_);
        readersCv_.notify_all();
    }
    static_cast<void>(Thread::Stop());
    threadPool_->Stop();
    PROF_EVENT(
        "ChannelPoll count: %d, ChannelPoll sleep count: %d, FlushAllChannel count: %d, "
        "Dispatch count: %d, DispatchChannel count: %d",
        static_cast<int>(pollCount_), static_cast<int>(sleepCount_),
        static_cast<int>(flushAllCount_), static_cast<int>(dispatchCount_),
        static_cast<int>(dispatchChannelCount_));
    pollCount_ = sleepCount_ = flushAllCount_ = dispatchCount_ = dispatchChannelCount_ = 0;
    return 0;
}

void ChannelPoll::Run(const TraceletErrorContext& context) {
    TraceletErrorManager::instance().SetErrorContext(context);
    uint64_t lastFlushTime = Utils::GetClockMonotonicRaw();
    bool goesOn = true;
    while (isStarted_ && goesOn) {
        try {
            AwaitReader();
            goesOn = PollOnce(&lastFlushTime);
        } catch (const std::exception& e) {  // out of memory: the next poll may fare better
            PROF_LOGE("A poll of the channels is lost, message: %s", e.what());
            mmSleep(kPauseMs);
        }
    }
}

void ChannelPoll::AwaitReader() {
    std::unique_lock<std::mutex> lock(readersMtx_);
    readersCv_.wait(lock, [this] { return !readers_.empty() || !isStarted_; });
}

// False when there is nothing to poll any more.
bool ChannelPoll::PollOnce(uint64_t* lastFlushTime) {
    ProfPollInfo events[kPollEvents] = {};
    const int ret = driver::DrvChannelPoll(events, kPollEvents, kPollTimeout);
    ++pollCount_;
    if (ret == PROF_STOPPED_ALREADY) {
        PROF_LOGD("DrvChannelPoll return PROF_STOPPED_ALREADY");
        if (IsQuit()) {
            PROF_LOGI("Exit poll channel thread.");
            return false;
        }
        mmSleep(kPauseMs);
        ++sleepCount_;
        return true;
    }
    if (ret < 0) {
        PROF_LOGE("Failed to poll channel");
        return false;
    }
    const uint64_t now = Utils::GetClockMonotonicRaw();
    if (now - *lastFlushTime > kFlushPeriodNs) {
        *lastFlushTime = now;
        FlushAllChannel();
        ++flushAllCount_;
    }
    DispatchHeldUp();
    ++dispatchCount_;
    bool isAnyTaken = false;
    for (int i = 0; i < ret; ++i) {
        PROF_LOGD("DispatchChannel devId: %d, channelID: %d, ret: %d",
                  static_cast<int>(events[i].device), static_cast<int>(events[i].channel), ret);
        if (JsonParser::instance().GetChannelReporterSwitch(events[i].channel)) {
            isAnyTaken |= DispatchChannel(events[i].device, events[i].channel);
            ++dispatchChannelCount_;
        }
    }
    if (ret > 0 && !isAnyTaken) {
        mmSleep(kPauseMs);  // a driver may tell of the same data at once again
    }
    return true;
}

bool ChannelPoll::DispatchChannel(uint32_t devId, uint32_t channel) {
    const auto reader = GetReader(devId, channel);
    if (reader == nullptr) {
        PROF_LOGW("Failed to find devId:%u, channel:%u", devId, channel);
        return false;
    }
    return Dispatch(reader);
}

bool ChannelPoll::Dispatch(const std::shared_ptr<ChannelReader>& reader) {
    if (reader->GetSchedulingStatus()) {
        return false;
    }
    reader->SetSchedulingStatus(true);
    bool isDispatched = false;
    try {
        isDispatched = threadPool_->Dispatch(reader);
    } catch (const std::exception& e) {
        PROF_LOGE("make shared failed, message: %s", e.what());  // the next poll tries again
    }
    if (!isDispatched) {
        reader->SetSchedulingStatus(false);
    }
    return isDispatched;
}

template <typename Condition>
std::vector<std::shared_ptr<ChannelReader>> ChannelPoll::Select(const Condition& condition) {
    std::vector<std::shared_ptr<ChannelReader>> selected;
    const std::lock_guard<std::mutex> lock(readersMtx_);
    for (const auto& [devId, readers] : readers_) {
        for (const auto& [channel, reader] : readers) {
            if (condition(*reader)) {
                selected.push_back(reader);
            }
        }
    }
    return selected;
}

std::vector<std::shared_ptr<ChannelReader>> ChannelPoll::Snapshot() {
    return Select([](const ChannelReader&) { return true; });
}

// The driver doesn't tell of a channel that has gone quiet meanwhile.
void ChannelPoll::DispatchHeldUp() {
    for (const auto& reader : Select([](const ChannelReader& each) { return each.IsRetryDue(); })) {
        static_cast<void>(Dispatch(reader));
    }
}

void ChannelPoll::FlushAllChannel() {
    for (const auto& reader : Snapshot()) {
        if (reader->AskFlush()) {
            static_cast<void>(Dispatch(reader));
        }
    }
}

void ChannelPoll::FlushDrvBuff() {
    for (const auto& reader : Snapshot()) {
        reader->FlushDrvBuff();
    }
}

}  // namespace analysis::nedra::transport
