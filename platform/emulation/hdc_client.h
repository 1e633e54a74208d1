// A client: a service type, and how many sessions may be open under it. Any thread.
#pragma once

#include <memory>
#include <mutex>
#include <utility>

namespace orla::emulation {

class Client {
public:
    Client(int serviceType, int maxSessions)
        : serviceType_(serviceType), maxSessions_(maxSessions) {}

    [[nodiscard]] int serviceType() const { return serviceType_; }

    // Takes the place of a new session; false when all are taken or the client is going.
    [[nodiscard]] bool Enter() {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (retired_ || open_ >= maxSessions_) {
            return false;
        }
        ++open_;
        return true;
    }
    void Leave() {
        const std::lock_guard<std::mutex> lock(mutex_);
        --open_;
    }
    // Lets no more sessions in; false while some are open.
    [[nodiscard]] bool Retire() {
        const std::lock_guard<std::mutex> lock(mutex_);
        retired_ = retired_ || open_ == 0;
        return retired_;
    }

private:
    const int serviceType_;
    const int maxSessions_;
    std::mutex mutex_;
    // Guarded by mutex_.
    int open_ = 0;
    bool retired_ = false;
};

// Keeps a place in a client, until its end.
class ClientPlace {
public:
    ClientPlace() = default;
    // `client` has let the session enter.
    explicit ClientPlace(std::shared_ptr<Client> client) : client_(std::move(client)) {}
    ClientPlace(ClientPlace&&) = default;
    ClientPlace& operator=(ClientPlace&&) = delete;
    ~ClientPlace() { Release(); }

    void Release() {
        if (const auto client = std::exchange(client_, nullptr)) {
            client->Leave();
        }
    }

private:
    std::shared_ptr<Client> client_;
};

}  // namespace orla::emulation
