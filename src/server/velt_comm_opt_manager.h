// Where all traffic of the framework passes: finds the option of a type and forwards to it.
// Any thread; an option is registered before traffic of its type starts, since only the
// registration takes the mutex. Also the two factories that pick an implementation by kind.
#pragma once

#include <map>
#include <memory>
#include <mutex>

#include "server/velt_comm_opt.h"
#include "server/velt_epoll.h"
#include "server/velt_singleton.h"

namespace Velt {

class VeltCommOptManager : public Common::Singleton::Singleton<VeltCommOptManager> {
public:
    // False for null. A type that is known keeps its first option, and that is a success.
    [[nodiscard]] bool CommOptsRegister(std::shared_ptr<VeltCommOpt> option);

    // As the operation of VeltCommOpt with that name. What opens something answers a handle of
    // the type asked for, with the value -1 on a failure and for a type that isn't registered.
    [[nodiscard]] CommHandle OpenServer(int32_t type, const CommOptions& options);
    [[nodiscard]] CommHandle OpenClient(int32_t type, const CommOptions& options);
    [[nodiscard]] CommHandle Accept(const CommHandle& server);
    [[nodiscard]] CommHandle Connect(const CommHandle& client, const CommOptions& options);

    // 0 for a type that isn't registered: there is nothing to close.
    int CloseServer(CommHandle& server);
    int CloseClient(CommHandle& client);
    // The value of the session is -1 after it, if the type is registered.
    void Close(CommHandle& session);

    // -1 for a type that isn't registered.
    [[nodiscard]] int Write(const CommHandle& session, const void* buffer, int32_t length,
                            int flag);
    [[nodiscard]] int Read(const CommHandle& session, void** buffer, int32_t* length, int flag);

    // Empty for a type that isn't registered.
    [[nodiscard]] std::shared_ptr<VeltDevice> GetDevice(int32_t type);
    void Timer(int32_t type);

private:
    friend class Common::Singleton::Singleton<VeltCommOptManager>;
    VeltCommOptManager() = default;

    VeltCommOpt* Find(int32_t type) const;

    std::mutex mutex_;  // held by CommOptsRegister
    std::map<int32_t, std::shared_ptr<VeltCommOpt>> options_;
};

// Kinds of the factories.
constexpr int32_t kKindHdc = 0;

// The event wait and the option of a kind; null for a kind that nobody knows and when memory
// is out.
[[nodiscard]] std::unique_ptr<VeltEpoll> CreateEpoll(int32_t kind);
[[nodiscard]] std::unique_ptr<VeltCommOpt> CreateCommOpt(int32_t kind);

}  // namespace Velt
