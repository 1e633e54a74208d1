// The option that carries the framework's traffic over HDC: checks what it is given and calls
// the session layer. Any thread, as VeltCommOpt says; one thread writes and one reads a session at
// a time.
#pragma once

#include <mutex>

#include "server/velt_comm_opt.h"

namespace Velt {

class HdcCommOpt final : public VeltCommOpt {
public:
    std::string CommOptName() override { return "HDC"; }
    int32_t CommOptType() override { return kCommOptHdc; }
    int64_t OpenServer(const CommOptions& options) override;
    // Up to 3 s while the driver says that it is busy.
    int CloseServer(int64_t& server) override;
    int64_t OpenClient(const CommOptions& options) override;
    int CloseClient(int64_t& client) override;
    int64_t Accept(int64_t server) override;
    int64_t Connect(int64_t client, const CommOptions& options) override;
    int Close(int64_t& session) override;
    int Write(int64_t session, const void* buffer, int32_t length, int flag) override;
    int Read(int64_t session, void** buffer, int32_t* length, int flag) override;
    std::shared_ptr<VeltDevice> GetDevice() override;
    void Timer() override {}

private:
    std::mutex deviceMutex_;  // guards device_: a notification may be the first to ask for it
};

}  // namespace Velt
