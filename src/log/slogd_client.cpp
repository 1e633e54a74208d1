#include "log/slogd_client.h"

#include <portability.h>
#include <sys/ipc.h>
#include <sys/msg.h>

#include <cerrno>
#include <cstring>

#include "log/log_platform.h"
#include "log/self_log.h"

namespace orla {

namespace {

constexpr int kMaxPolls = 10;
constexpr uint32_t kPollPauseMs = 100;

int64_t NowMs() {
    const mmTimespec now = mmGetTickCount();
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

// The next message of `type`. False with errno.
bool Receive(int queue, long type, int flags, SlogdMessage* message) {
    *message = {0, 0xFFFFFFFF, {}};
    ssize_t size = 0;
    do {
        size = msgrcv(queue, message, kSlogdTransferSize, type, flags | IPC_NOWAIT);
    } while (size < 0 && errno == EINTR);
    return size >= 0;
}

// Takes all messages of `type` out of the queue, and returns whether there were any. One that is
// too large is cut rather than left, since nobody else ever takes it out. errno is that of the
// last attempt.
bool Drain(int queue, long type) {
    SlogdMessage dropped;
    bool found = false;
    while (Receive(queue, type, MSG_NOERROR, &dropped)) {
        found = true;
    }
    return found;
}

// 0, or -1 with errno.
int Send(int queue, const SlogdMessage& message) {
    int result = 0;
    do {
        result = msgsnd(queue, &message, kSlogdTransferSize, IPC_NOWAIT);
    } while (result != 0 && errno == EINTR);
    return result;
}

// Whether a message lies in a queue that has just been found without a reply.
bool HasRequest(int queue) {
    msqid_ds status = {};
    return msgctl(queue, IPC_STAT, &status) == 0 && status.msg_qnum > 0;
}

}  // namespace

// What lies in the queue answers nobody who still waits. A log daemon that has started anew has
// another queue, and owes nothing.
void SlogdClient::SettleDebt(int queue) {
    if (debt_.queue != queue) {
        debt_ = {};
    }
    while (true) {
        if (Drain(queue, kSlogdReply)) {
            debt_ = {};
        }
        if (errno != ENOMSG || NowMs() >= debt_.untilMs) {
            return;
        }
        static_cast<void>(ToolSleep(kPollPauseMs / 2));
    }
}

// Judges a reply: it is the one owed when the request of now had still not been taken a moment
// ago. Of two replies the second answers the request of now, and replaces the first.
bool SlogdClient::IsLate(int queue, bool isUnread, SlogdMessage* reply) {
    if (debt_.queue < 0) {
        return false;
    }
    debt_ = {};
    graceMs_ = kLateReplyMs;
    SlogdMessage second;
    if (Receive(queue, kSlogdReply, 0, &second)) {
        *reply = second;
        return false;
    }
    return isUnread;
}

// A log daemon that has taken the request of now, and has left no reply before, has dropped the
// one that it owed an answer to, and drops others the same way.
void SlogdClient::LookAtDebt(int queue, bool* isUnread) {
    *isUnread = HasRequest(queue);
    if (!*isUnread) {
        debt_ = {};
        graceMs_ = 0;
    }
}

// 0, or errno.
int SlogdClient::AwaitReply(int queue, SlogdMessage* reply, int* polls) {
    bool isUnread = false;
    while (true) {
        if (Receive(queue, kSlogdReply, 0, reply)) {
            if (!IsLate(queue, isUnread, reply)) {
                graceMs_ = kLateReplyMs;
                return 0;
            }
            continue;
        }
        if (errno != ENOMSG || ++*polls == kMaxPolls) {
            return errno;
        }
        // At the first look an idle log daemon may not have been scheduled yet.
        if (debt_.queue >= 0 && *polls > 1) {
            LookAtDebt(queue, &isUnread);
        }
        static_cast<void>(ToolSleep(kPollPauseMs));
    }
}

SlogdClient::Outcome SlogdClient::Ask(int queue, const SlogdMessage& request, SlogdMessage* reply) {
    SettleDebt(queue);
    if (Send(queue, request) != 0) {
        const int error = errno;
        SELF_LOG_ERROR("send level info to slogd failed, strerr=%s.", std::strerror(error));
        return {Result::kNotSent, error};
    }
    SELF_LOG_INFO("send level info to slogd succeed.");
    int polls = 0;
    const int error = AwaitReply(queue, reply, &polls);
    if (error == 0) {
        return {Result::kAnswered, 0};
    }
    // An earlier request stays unanswered when this one has not even been taken.
    if (error == ENOMSG && !Drain(queue, kSlogdRequest)) {
        debt_ = {queue, NowMs() + graceMs_};
    }
    SELF_LOG_ERROR(
        "receive level setting result failed from slogd, result=-1, strerr=%s, retry_time=%d.",
        std::strerror(error), polls);
    return {Result::kNoAnswer, error};
}

}  // namespace orla
