// The signals that ask a program to end, as something to look at instead of an interruption:
// SIGINT, SIGTERM and SIGHUP. For a command that has to end its work in order. One object at a
// time, of the thread that made it; threads that start while it is there never see one of these
// signals.
#pragma once

#include <chrono>
#include <csignal>

namespace orla::host {

class EndSignals {
public:
    EndSignals();
    ~EndSignals();
    EndSignals(const EndSignals&) = delete;
    EndSignals& operator=(const EndSignals&) = delete;

    // Waits for at most so long for the next signal. The first asks for an end in order, the second
    // breaks off; after it a third one has its own effect.
    void Wait(std::chrono::milliseconds most);
    // Returns how many have come.
    int count() const { return count_; }

private:
    sigset_t set_ = {};
    sigset_t before_ = {};
    int count_ = 0;
};

}  // namespace orla::host
