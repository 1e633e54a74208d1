// The relay's end of the queue of slogd_queue.h: one request to the local log daemon, and its
// reply.
//
// A reply carries no word of its request, so requests go out one at a time, and a reply that the
// log daemon still owes to an earlier one must not be taken for the answer of the next. The log
// daemon takes requests one after another, and that tells what it owes: nothing for a request that
// could be taken back, and nothing for an earlier one once it has taken the next.
#pragma once

#include <cstdint>

#include "log/slogd_queue.h"

namespace orla {

class SlogdClient {
public:
    enum class Result { kAnswered, kNotSent, kNoAnswer };
    struct Outcome {
        Result result;
        int error;  // errno of what failed; ENOMSG when the log daemon was silent for 0.9 s
    };

    // Sends `request` and waits for its reply, 0.9 s at most. A request without a reply is taken
    // back if the log daemon has not taken it. One that it has taken may be answered late: the next
    // call waits for that reply first, until a second has passed since this one gave up, unless the
    // log daemon is known to take requests without answering them. `reply` is unspecified without
    // an answer. Failures are logged. One thread at a time.
    Outcome Ask(int queue, const SlogdMessage& request, SlogdMessage* reply);

private:
    struct Debt {
        int queue = -1;       // whose log daemon owes a reply; -1: nobody does
        int64_t untilMs = 0;  // how long it is waited for before the next request
    };

    void SettleDebt(int queue);
    int AwaitReply(int queue, SlogdMessage* reply, int* polls);
    bool IsLate(int queue, bool isUnread, SlogdMessage* reply);
    void LookAtDebt(int queue, bool* isUnread);

    Debt debt_;
    int64_t graceMs_ = kLateReplyMs;

    static constexpr int64_t kLateReplyMs = 1000;
};

}  // namespace orla
