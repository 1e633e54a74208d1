// What a server manager waits with. VeltHdcEpoll is the one implementation. One thread uses an
// object at a time: its server manager's. Operations answer 0, or -1 after a log line.
#pragma once

#include <cstdint>

namespace Velt {

// Bits of VeltEvent::mask.
constexpr uint32_t kEventConnect = 1;  // a peer wants to connect
constexpr uint32_t kEventData = 2;     // data can be read
constexpr uint32_t kEventHangUp = 4;

// An event, and the caller's data that comes back with it.
struct VeltEvent {
    uint32_t mask = 0;
    uint64_t data = 0;
};
static_assert(sizeof(VeltEvent) == 16);

// Operations of Ctl.
constexpr int kEpollAdd = 0;
constexpr int kEpollDel = 1;

class VeltEpoll {
public:
    virtual ~VeltEpoll() = default;

    // Makes the wait for up to `size` events at once; a second call changes nothing and is a
    // success.
    [[nodiscard]] virtual int Create(int size) = 0;
    virtual int Destroy() = 0;
    [[nodiscard]] virtual int Ctl(int64_t handle, const VeltEvent& event, int operation) = 0;
    [[nodiscard]] virtual int Add(int64_t handle, const VeltEvent& event) {
        return Ctl(handle, event, kEpollAdd);
    }
    [[nodiscard]] virtual int Del(int64_t handle, const VeltEvent& event) {
        return Ctl(handle, event, kEpollDel);
    }
    // Waits for at most `timeout` ms; the number of events, at most Size(). `events` has `size`
    // elements, at least Size().
    [[nodiscard]] virtual int Wait(VeltEvent* events, int size, int timeout) = 0;
    // What to do with an event that nobody knows, and after a failed wait: pauses. Always 0.
    virtual int ProcessOther() = 0;
    [[nodiscard]] virtual int Size() = 0;
};

}  // namespace Velt
