// Whether a server manager may accept now, from what became of the accepts before: it takes in
// what it can serve, and does not spin on what it can't take. Who isn't accepted waits at the
// driver, which tells of him again in the next round.
//
//     a session that was taken         go on
//     a session without a thread       it was refused; no other is accepted in this round, on no
//                                      device, and a pause follows
//     an accept that failed            a peer that vanished; the second in a row is a device that
//                                      went away, and only a new server will do when it is back
//     two events without a session     a pause follows
//
// The manager's thread alone.
#pragma once

#include <cstdint>
#include <map>

namespace Velt {

class AcceptGate {
public:
    // To be asked before each accept.
    [[nodiscard]] bool MayAccept() const { return !exhausted_; }

    // What became of an event.
    void Taken(int64_t server);
    void Refused() { exhausted_ = true; }
    void OtherEvent() { ++fruitless_; }
    // True when `server` is of no more use. Its failures are then counted anew.
    [[nodiscard]] bool AcceptFailed(int64_t server);

    // A server that is gone.
    void Forget(int64_t server) { failures_.erase(server); }

    // Ends a round. True when the loop should pause before the next.
    [[nodiscard]] bool EndRound();

private:
    static constexpr uint32_t kMaxFailures = 2;

    bool exhausted_ = false;                // threads ran out in this round
    uint32_t fruitless_ = 0;                // events in a row that led to no session
    std::map<int64_t, uint32_t> failures_;  // accepts in a row that failed, by server
};

}  // namespace Velt
