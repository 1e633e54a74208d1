#include "profiling/collect/timer_handler.h"

#include <portability.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>

#include "hdc/log_side.h"
#include "profiling/config/utils.h"

namespace Analysis::Nedra::JobWrapper {

using analysis::nedra::common::utils::Utils;
using analysis::nedra::transport::MessageBuffer;

namespace {

constexpr size_t kRecordHead = 100;  // bytes at most, with the last line feed
constexpr uint32_t kDeviceData = 3;  // DataModule of a chunk
constexpr uint32_t kHostData = 5;

// What a sample passes through, used again by the next one on the same thread.
struct Scratch {
    std::vector<char> file;
    std::string data;
    std::string packet;
};

Scratch& ThreadScratch() {
    thread_local Scratch scratch;
    return scratch;
}

void AppendNumber(const char* name, uint64_t number, std::string* out) {
    char digits[20];
    const auto end = std::to_chars(digits, digits + sizeof(digits), number);
    out->append(name).append(digits, end.ptr);
}

uint32_t DataModule(uint32_t tag) {
    return tag >= PROF_HOST_PROC_CPU && tag <= PROF_HOST_SYS_NETWORK ? kHostData : kDeviceData;
}

}  // namespace

uint64_t SampleClockNs() {
    const mmTimespec now = mmGetTickCount();
    return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

void AppendLines(std::string_view text, std::string* out) {
    out->append(text);
    if (!text.empty() && text.back() != '\n') {
        out->push_back('\n');
    }
}

bool TakeLine(std::string_view* text, std::string_view* line) {
    if (text->empty()) {
        return false;
    }
    const size_t end = std::min(text->find('\n'), text->size());
    *line = text->substr(0, end);
    text->remove_prefix(std::min(end + 1, text->size()));
    return true;
}

uint64_t SampleRoad::SendKept() const {
    return sender == nullptr ? 0 : sender->SendKept();
}

void SampleRoad::Finish() {
    if (const auto last = std::move(sender); last != nullptr) {
        last->Finish();
    }
}

uint64_t SampleGrid::After(uint64_t tick) {
    due_ = due_ == 0 ? tick : due_;
    due_ += ((tick - due_) / intervalNs_ + 1) * intervalNs_;
    return due_;
}

ProcTimerHandler::ProcTimerHandler(const SampleSpec& spec, SampleRoad road)
    : TimerHandler(spec.tag),
      buf_(spec.bufSize),
      source_(spec.srcFileName, kMaxProcFile),
      grid_(spec.sampleIntervalNs),
      retFileName_("data/" + spec.fileName),
      road_(std::move(road)),
      encoder_({retFileName_, false, DataModule(spec.tag)},
               road_.jobCtx == nullptr ? std::string() : *road_.jobCtx) {}

ProcTimerHandler::~ProcTimerHandler() {
    End();
}

int ProcTimerHandler::Init() {
    if (isInited_) {
        PROF_LOGE("The Handler is inited");
        return -1;
    }
    if (!buf_.Init()) {
        PROF_LOGE("Buf init failed");
        return -1;
    }
    isInited_ = true;
    return 0;
}

uint64_t ProcTimerHandler::Execute(uint64_t tick) {
    if (const uint64_t delay = road_.SendKept(); delay != 0) {
        return tick + delay;
    }
    Sample(SampleClockNs());
    return grid_.After(tick);
}

void ProcTimerHandler::Sample(uint64_t now) {
    if (!isInited_) {
        PROF_LOGW("ProcTimerHandler is not inited: %s", Utils::BaseName(retFileName_).c_str());
        return;
    }
    timeStamp_ = now;
    Scratch& scratch = ThreadScratch();
    scratch.data.clear();
    scratch.packet.clear();
    if (source_.path().empty()) {
        ParseProcFile({}, scratch.data);
        StoreData(scratch.data);
        ++index_;
        return;
    }
    std::string_view text;
    if (!TakeText(&text)) {
        return;
    }
    ParseProcFile(text, scratch.data);
    PacketData(scratch.packet, scratch.data);
    StoreData(scratch.packet);
    ++index_;
}

ProcFile::Outcome ProcTimerHandler::ReadSource(std::string_view* text) {
    return source_.Read(&ThreadScratch().file, text);
}

bool ProcTimerHandler::TakeText(std::string_view* text) {
    const ProcFile::Outcome outcome = ReadSource(text);
    if (outcome == ProcFile::Outcome::kRead) {
        return true;
    }
    if (!source_.failsAnew()) {
        return false;
    }
    const std::string name = Utils::BaseName(source_.path());
    if (outcome == ProcFile::Outcome::kBadSize) {
        PROF_LOGW("[ProcTimerHandler] Proc file(%s) size(%lld)", name.c_str(),
                  static_cast<long long>(source_.size()));
    } else {
        PROF_LOGW("Open file %s failed", name.c_str());
    }
    return false;
}

void ProcTimerHandler::PacketData(std::string& packet, const std::string& data) const {
    if (data.empty()) {
        PROF_LOGW("data is empty, fileName:%s", Utils::BaseName(retFileName_).c_str());
        return;
    }
    packet.reserve(data.size() + kRecordHead);
    AppendNumber("TimeStamp:", timeStamp_, &packet);
    AppendNumber("\nIndex:", index_, &packet);
    AppendNumber("\nDataLen:", data.size(), &packet);
    packet.append("\n").append(data).append("\n");
}

void ProcTimerHandler::StoreData(const std::string& data) {
    if (data.empty()) {
        return;
    }
    if (buf_.GetFreeSize() < data.size() && buf_.GetUsedSize() != 0) {
        PROF_LOGD("StoreData %d", static_cast<int>(buf_.GetUsedSize()));
        SendBuffer();
    }
    if (buf_.GetFreeSize() < data.size()) {
        SendData(data.data(), data.size());
    } else if (buf_.GetBuffer() != nullptr) {
        std::memcpy(buf_.GetBuffer() + buf_.GetUsedSize(), data.data(), data.size());
        buf_.SetUsedSize(buf_.GetUsedSize() + data.size());
    }
    if (buf_.GetFreeSize() <= buf_.GetBufferSize() / 4 && buf_.GetUsedSize() != 0) {
        SendBuffer();
    }
}

void ProcTimerHandler::SendBuffer() {
    SendData(buf_.GetBuffer(), buf_.GetUsedSize());
    buf_.SetUsedSize(0);
}

void ProcTimerHandler::SendData(const char* data, uint64_t len) {
    if (data == nullptr) {
        PROF_LOGE("buf to be sent is nullptr");
        return;
    }
    if (road_.sender == nullptr) {
        PROF_LOGE("[ProcTimerHandler::SendData] upLoader_ is null");
        return;
    }
    MessageBuffer message = encoder_.Encode({data, len});
    const bool fails = message == nullptr || !road_.sender->Send(std::move(message));
    if (fails && !isFailing_) {
        PROF_LOGE("[ProcTimerHandler::SendData] Upload Data Failed");
    }
    isFailing_ = fails;
}

void ProcTimerHandler::FlushBuf() {
    PROF_LOGI("FlushBuf %s, the total index :%lu", Utils::BaseName(retFileName_).c_str(),
              static_cast<unsigned long>(index_));
    PROF_LOGI("FlushBuf, isInited_:%d, bufUsedSize:%d", static_cast<int>(isInited_),
              static_cast<int>(buf_.GetUsedSize()));
    if (isInited_ && buf_.GetUsedSize() != 0) {
        PROF_LOGI("FlushBuf running %d", static_cast<int>(buf_.GetUsedSize()));
        SendBuffer();
    }
}

void ProcTimerHandler::End() {
    if (isInited_) {
        FlushBuf();
        buf_.Uninit();
        isInited_ = false;
    }
}

int ProcTimerHandler::Uninit() {
    End();
    road_.Finish();
    return 0;
}

}  // namespace Analysis::Nedra::JobWrapper
