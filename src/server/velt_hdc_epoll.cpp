#include "server/velt_hdc_epoll.h"

#include <algorithm>
#include <new>

#include "hdc/log_side.h"
#include "server/hdc_handles.h"

namespace Velt {

namespace {

constexpr uint32_t kOtherPauseMs = 500;
constexpr uint32_t kSharedBits = kEventConnect | kEventData;
constexpr uint32_t kDriverBits = kSharedBits | HDC_EPOLL_SESSION_CLOSE;

static_assert(sizeof(drvHdcEvent) == 16);
static_assert(HDC_EPOLL_CONN_IN == kEventConnect && HDC_EPOLL_DATA_IN == kEventData);
static_assert(HDC_EPOLL_SESSION_CLOSE == kEventHangUp << 1);
static_assert(HDC_EPOLL_CTL_ADD == kEpollAdd && HDC_EPOLL_CTL_DEL == kEpollDel);

uint32_t ToDriver(uint32_t mask) {
    return (mask & kSharedBits) | ((mask << 1) & HDC_EPOLL_SESSION_CLOSE);
}

uint32_t FromDriver(uint32_t mask) {
    if ((mask & ~kDriverBits) != 0) {
        IDE_LOGW("hdc epoll get unrecognised events %u.", mask);
    }
    return (mask & kSharedBits) | ((mask >> 1) & kEventHangUp);
}

}  // namespace

VeltHdcEpoll::~VeltHdcEpoll() {
    Destroy();
}

int VeltHdcEpoll::Create(int size) {
    if (size <= 0) {
        IDE_LOGE("hdc epoll create size(%d) input error", size);
        return -1;
    }
    if (events_ != nullptr) {
        IDE_LOGW("hdc epoll has been created.");
        return 0;
    }
    std::unique_ptr<drvHdcEvent[]> events(new (std::nothrow) drvHdcEvent[size]());
    if (events == nullptr) {
        IDE_LOGE("hdc epoll calloc error.");
        return -1;
    }
    size_ = size;
    // Still there only after a close that failed.
    if (epoll_ == nullptr) {
        const drvError_t ret = drvHdcEpollCreate(size, &epoll_);
        if (ret != DRV_ERROR_NONE || epoll_ == nullptr) {
            IDE_LOGE("hdc epoll create error(%d).", ret);
            epoll_ = nullptr;
            return -1;
        }
    }
    events_ = std::move(events);
    return 0;
}

int VeltHdcEpoll::Destroy() {
    events_.reset();
    if (epoll_ == nullptr) {
        return 0;
    }
    IDE_LOGI("start to close hdc epoll");
    const drvError_t ret = drvHdcEpollClose(epoll_);
    if (ret != DRV_ERROR_NONE) {
        IDE_LOGE("hdc epoll close error(%d)", ret);
        return -1;
    }
    epoll_ = nullptr;
    return 0;
}

int VeltHdcEpoll::Ctl(int64_t handle, const VeltEvent& event, int operation) {
    if (epoll_ == nullptr || handle == -1) {
        IDE_LOGE("hdc epoll ctl input error");
        return -1;
    }
    if (handle == 0) {
        IDE_LOGE("hdc epoll ctl handle error");
        return -1;
    }
    drvHdcEvent driverEvent{};
    driverEvent.events = ToDriver(event.mask);
    driverEvent.data = event.data;
    drvError_t ret = DRV_ERROR_SOCKET_CLOSE;
    if (const HdcServerPtr server = HdcServers().Find(handle)) {
        ret = server->EpollCtl(epoll_, operation, driverEvent);
    } else if (const HdcSessionPtr session = HdcSessions().Find(handle)) {
        ret = session->EpollCtl(epoll_, operation, driverEvent);
    }
    if (ret != DRV_ERROR_NONE) {
        IDE_LOGE("hdc epoll ctl process error %d", ret);
        return -1;
    }
    return 0;
}

int VeltHdcEpoll::Wait(VeltEvent* events, int size, int timeout) {
    if (epoll_ == nullptr || events_ == nullptr || events == nullptr || size < size_) {
        IDE_LOGW("hdc epoll wait init");
        return -1;
    }
    int count = 0;
    if (drvHdcEpollWait(epoll_, events_.get(), size_, timeout, &count) != DRV_ERROR_NONE) {
        IDE_LOGE("hdc epoll wait process error");
        return -1;
    }
    count = std::clamp(count, 0, size_);
    std::transform(events_.get(), events_.get() + count, events, [](const drvHdcEvent& event) {
        return VeltEvent{FromDriver(event.events), event.data};
    });
    return count;
}

int VeltHdcEpoll::ProcessOther() {
    IDE_LOGW("process epoll other state");
    mmSleep(kOtherPauseMs);
    return 0;
}

}  // namespace Velt
