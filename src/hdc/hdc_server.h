// A server of the host-device channel: the one owner of its driver handle, shared by whoever uses
// it. No call begins on a server whose destruction has begun, see hdc_endpoint.h.
#pragma once

#include <hdc_driver.h>

#include <functional>
#include <memory>

#include "hdc/hdc_endpoint.h"
#include "hdc/hdc_session.h"

class HdcServer;
using HdcServerPtr = std::shared_ptr<HdcServer>;

class HdcServer final : public HdcEndpoint {
public:
    // Takes a handle over. Null for null, and when memory is out, in which case the handle is
    // destroyed.
    [[nodiscard]] static HdcServerPtr Adopt(drvHdcServer_t handle) noexcept;
    explicit HdcServer(drvHdcServer_t handle) : HdcEndpoint(handle) {}
    // One attempt to destroy what is still there.
    ~HdcServer();

    // Blocks until a peer connects. The driver's result; `*session` is null on a failure, and
    // errno then tells what it tells after the driver's own call. DRV_ERROR_SOCKET_CLOSE, with
    // errno unchanged, once the destruction has begun.
    [[nodiscard]] drvError_t Accept(HdcSessionPtr* session);

    // Called after each failed attempt with the driver's result and the number of attempts.
    using Report = std::function<void(drvError_t error, int times)>;
    // Stops listening; an accept that is blocked fails. Tries again for 3 s at most while the
    // driver says that it is busy. DRV_ERROR_NONE, also when it was destroyed before;
    // DRV_ERROR_CLIENT_BUSY when the server is still there, and accepts again; any other result
    // of the driver's has used the server up.
    drvError_t Destroy(const Report& report);

private:
    drvError_t DestroyOften(int attempts, const Report& report);
};
