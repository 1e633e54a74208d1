#include "shake.h"

#include <sched.h>

#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <thread>

namespace orla::emulation {

namespace {

constexpr uint64_t kOneInHeld = 32;     // calls are held
constexpr uint64_t kOneInYielding = 8;  // calls let other threads go first
constexpr uint64_t kLongestUs = 3000;

// splitmix64.
uint64_t Next(uint64_t* state) {
    uint64_t mixed = *state += 0x9E3779B97F4A7C15;
    mixed = (mixed ^ mixed >> 30) * 0xBF58476D1CE4E5B9;
    mixed = (mixed ^ mixed >> 27) * 0x94D049BB133111EB;
    return mixed ^ mixed >> 31;
}

}  // namespace

Shake::Shake() {
    const char* text = std::getenv("ORLA_SHAKE");
    if (text == nullptr || *text == '\0') {
        return;
    }
    char* end = nullptr;
    seed_ = std::strtoull(text, &end, 10);
    on_ = *text >= '0' && *text <= '9' && *end == '\0';
    if (on_) {
        std::fprintf(stderr, "orla platform: ORLA_SHAKE=%" PRIu64 "\n", seed_);
    } else {
        std::fprintf(stderr, "orla platform: ORLA_SHAKE is not a number: %s\n", text);
    }
}

void Shake::Draw() {
    thread_local uint64_t state = 0;
    if (state == 0) {
        state = seed_ + (++threads_ << 32);
        static_cast<void>(Next(&state));
    }
    const uint64_t drawn = Next(&state);
    const int error = errno;
    if (drawn % kOneInHeld == 0) {
        std::this_thread::sleep_for(std::chrono::microseconds((drawn >> 32) % kLongestUs));
    } else if (drawn % kOneInYielding == 0) {
        sched_yield();
    }
    errno = error;
}

}  // namespace orla::emulation
