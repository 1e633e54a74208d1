// One client of the application monitor: a connection on which lines of text go to the monitor
// and its answers come back, as docs/emulation.md describes them.
//
// Register and Deregister wait for the monitor's answer, at most 2 s; a heartbeat isn't answered.
// Close may be called on any thread at any time: whoever waits then fails, and so does everything
// that is called later. The rest is for one thread at a time. Results are those of results.h.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

#include "hdc_socket.h"

namespace orla::emulation {

class MonitorClient {
public:
    // Takes over a connection.
    explicit MonitorClient(UniqueFd fd);

    [[nodiscard]] int Register(uint32_t timeoutMs, const std::string& script);
    [[nodiscard]] int Heartbeat();
    [[nodiscard]] int Deregister(const std::string& reason);
    void Close();

private:
    [[nodiscard]] int Ask(const std::string& verb, const std::string& arguments);
    [[nodiscard]] bool Send(const std::string& line);
    [[nodiscard]] bool ReceiveLine(std::string* line);

    const UniqueFd fd_;
    std::atomic<bool> registered_{false};
    std::mutex askMutex_;  // held from a question to its answer
    // Guarded by askMutex_.
    uint32_t questions_ =
        0;  // each carries its number, so that a late answer is not taken for another
    std::string received_;  // behind the last whole line
};

}  // namespace orla::emulation
