// Shakes the order of things: with $ORLA_SHAKE, a decimal seed, every driver call may be held for
// up to some milliseconds, before and after it acts, so that races which a quiet machine never
// shows are met. Each thread draws from a generator of its own, made from the seed and the
// thread's number in the order of their first calls; so a seed repeats a run as far as threads
// allow.
//
// A call that is held has begun already: whatever it must not meet is a breach while it is held.
#pragma once

#include <atomic>
#include <cstdint>

namespace orla::emulation {

class Shake {
public:
    // Takes the seed from the environment and tells stderr what it is, or that it is none.
    Shake();

    // Keeps errno.
    void Hold() {
        if (on_) {
            Draw();
        }
    }

private:
    void Draw();

    bool on_ = false;
    uint64_t seed_ = 0;
    std::atomic<uint64_t> threads_{0};
};

}  // namespace orla::emulation
