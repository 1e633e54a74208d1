#include "profiling/datapath/prof_channel_manager.h"

#include "hdc/log_side.h"
#include "profiling/config/make_shared.h"

namespace Analysis::Nedra::JobWrapper {

using analysis::nedra::common::MakeShared;
using analysis::nedra::transport::ChannelPoll;

int ProfChannelManager::Init() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++index_;
    PROF_LOGI("ProfChannelManager Init index:%llu", static_cast<unsigned long long>(index_));
    if (drvChannelPoll_ != nullptr) {
        PROF_LOGI("ProfChannelManager already inited");
        return 0;
    }
    auto poll = MakeShared<ChannelPoll>();
    if (poll == nullptr) {
        --index_;
        return -1;
    }
    if (const int ret = poll->Start(); ret != 0) {
        PROF_LOGI("drvChannelPoll start thread pool failed");
        --index_;
        return ret;
    }
    drvChannelPoll_ = poll;
    PROF_LOGI("Init Poll Succ");
    return 0;
}

void ProfChannelManager::UnInit(bool force) {
    const std::lock_guard<std::mutex> lock(mutex_);
    PROF_LOGI("ProfChannelManager UnInit index:%llu", static_cast<unsigned long long>(index_));
    if (force) {
        index_ = 0;
    } else if (index_ == 0 || --index_ != 0) {
        return;
    }
    if (drvChannelPoll_ != nullptr) {
        if (drvChannelPoll_->Stop() != 0) {
            PROF_LOGE("drvChannelPoll_ stop failed");
        }
        drvChannelPoll_.reset();
    }
    PROF_LOGI("UnInit Poll Succ");
}

std::shared_ptr<ChannelPoll> ProfChannelManager::GetChannelPoller() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return drvChannelPoll_;
}

void ProfChannelManager::FlushChannel() {
    if (const auto poll = GetChannelPoller(); poll != nullptr) {
        poll->FlushDrvBuff();
    }
}

}  // namespace Analysis::Nedra::JobWrapper
