#include "profiling/collect/sample_sender.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "hdc/log_side.h"

namespace Analysis::Nedra::JobWrapper {

using analysis::nedra::transport::MessageBuffer;

namespace {

constexpr uint64_t kFirstDelayNs = 1000000;
constexpr uint64_t kLongestDelayNs = 100000000;

}  // namespace

bool SampleSender::Send(MessageBuffer message) {
    Taken taken = Taken::kFull;
    if (kept_.empty()) {
        taken = uploader_->TryUpload(message);
    }
    return taken == Taken::kFull ? Keep(std::move(message)) : taken != Taken::kLost;
}

bool SampleSender::Keep(MessageBuffer message) {
    try {
        kept_.push_back(std::move(message));
        return true;
    } catch (const std::exception& e) {
        PROF_LOGE("make shared failed, message: %s", e.what());
        uploader_->NoteLoss();
        return false;
    }
}

uint64_t SampleSender::SendKept() {
    while (!kept_.empty() && uploader_->TryUpload(kept_.front()) != Taken::kFull) {
        kept_.pop_front();
        delay_ = 0;
    }
    if (kept_.empty()) {
        return 0;
    }
    delay_ = std::clamp(2 * delay_, kFirstDelayNs, kLongestDelayNs);
    return delay_;
}

void SampleSender::Finish() {
    while (!kept_.empty()) {
        static_cast<void>(uploader_->UploadData(std::move(kept_.front())));  // counts its losses
        kept_.pop_front();
    }
}

}  // namespace Analysis::Nedra::JobWrapper
