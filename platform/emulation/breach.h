// What a caller of the driver must never do, and how it ends: a line on stderr and in the device
// log that names both calls, their threads and the handle, and then abort(). A real driver would
// crash, mix up messages or serve another host's data; here the first such call is the last.
//
// Any thread. Nothing here costs more than a few instructions until something is wrong.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <string>

#include "driver_calls.h"

namespace orla::emulation {

using ThreadName = std::array<char, 16>;

// One operation on one thread, small enough for an atomic.
class Caller {
public:
    // Names the current thread, which is in `call`.
    explicit Caller(Call call);
    // `value`: that of another caller, not 0.
    [[nodiscard]] static Caller Of(uint64_t value) { return Caller(value); }

    [[nodiscard]] uint64_t value() const { return value_; }  // never 0
    // "halHdcSend on thread 12 (name)". `name`: as it was when the thread called; empty for one
    // that is still there.
    [[nodiscard]] std::string Text(const ThreadName& name = {}) const;

private:
    explicit Caller(uint64_t value) : value_(value) {}

    uint64_t value_;
};

// The name of this thread.
[[nodiscard]] ThreadName OwnThreadName();

// "handle 0x3…", as a breach names it.
[[nodiscard]] std::string HandleText(uint64_t handle);

// Ends the process. `what` was done by `now`, to `subject`, against what `before` did; `before` is
// empty when there is no other call.
[[noreturn]] void Breach(const char* what, const std::string& subject, const std::string& now,
                         const std::string& before = "") noexcept;

}  // namespace orla::emulation
