// The event wait over the driver's. One for all devices of a server manager; its thread alone.
#pragma once

#include <hdc_driver.h>

#include <memory>

#include "server/velt_epoll.h"

namespace Velt {

class VeltHdcEpoll final : public VeltEpoll {
public:
    VeltHdcEpoll() = default;
    VeltHdcEpoll(const VeltHdcEpoll&) = delete;
    VeltHdcEpoll& operator=(const VeltHdcEpoll&) = delete;
    ~VeltHdcEpoll() override;

    int Create(int size) override;
    int Destroy() override;
    int Ctl(int64_t handle, const VeltEvent& event, int operation) override;
    int Wait(VeltEvent* events, int size, int timeout) override;
    int ProcessOther() override;  // sleeps 500 ms
    int Size() override { return size_; }

private:
    int size_ = 128;
    drvHdcEpoll_t epoll_ = nullptr;
    std::unique_ptr<drvHdcEvent[]> events_;  // size_ elements, from Create to Destroy
};

}  // namespace Velt
