#include "server/velt_accept_gate.h"

namespace Velt {

void AcceptGate::Taken(int64_t server) {
    fruitless_ = 0;
    failures_.erase(server);
}

bool AcceptGate::AcceptFailed(int64_t server) {
    ++fruitless_;
    if (++failures_[server] < kMaxFailures) {
        return false;
    }
    failures_.erase(server);
    return true;
}

bool AcceptGate::EndRound() {
    const bool pause = exhausted_ || fruitless_ >= kMaxFailures;
    if (pause) {
        exhausted_ = false;
        fruitless_ = 0;
    }
    return pause;
}

}  // namespace Velt
