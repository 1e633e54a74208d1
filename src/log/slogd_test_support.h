// For the tests of the log level service: the queue of the log daemon, and what serves it there:
// the real stand-in as a process of its own, or a script of the test on a thread. The queue's key
// is the real one, so these tests run where the queues are private: in the sandbox. Key and sizes
// are spelled out here once more, so that a change of the format does not go unnoticed.
#pragma once

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/msg.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "hdc/stand_in_test_support.h"

namespace orla::test {

constexpr key_t kSlogdKey = 0x474F4C44;
constexpr size_t kSlogdTextSize = 1020;

struct SlogdMessage {
    explicit SlogdMessage(const std::string& words = "") { words.copy(text, sizeof(text) - 1); }
    long type = 2;
    uint32_t deviceId = 0;
    char text[4096] = {};
};

inline void SendReply(int queue, const SlogdMessage& reply, size_t textSize = kSlogdTextSize) {
    EXPECT_EQ(msgsnd(queue, &reply, sizeof(uint32_t) + textSize, IPC_NOWAIT), 0);
}

// The queue, made and removed here.
class SlogdQueue {
public:
    explicit SlogdQueue(int mode = 0600) : id_(msgget(kSlogdKey, IPC_CREAT | IPC_EXCL | mode)) {
        EXPECT_GE(id_, 0) << "another log daemon's queue is in the way";
    }
    ~SlogdQueue() { Remove(); }
    SlogdQueue(const SlogdQueue&) = delete;
    SlogdQueue& operator=(const SlogdQueue&) = delete;

    void Remove() const { msgctl(id_, IPC_RMID, nullptr); }
    int id() const { return id_; }
    msqid_ds Status() const {
        msqid_ds status = {};
        EXPECT_EQ(msgctl(id_, IPC_STAT, &status), 0);
        return status;
    }

private:
    const int id_;
};

// Hands each request to a script, on a thread of its own, until the queue goes.
class ScriptedSlogd {
public:
    using Script = std::function<void(int queue, const SlogdMessage& request)>;
    explicit ScriptedSlogd(Script script)
        : thread_([this, script = std::move(script)] {
              SlogdMessage request;
              while (msgrcv(queue.id(), &request, sizeof(uint32_t) + sizeof(request.text), 1, 0) >=
                     0) {
                  script(queue.id(), request);
                  request = SlogdMessage();
              }
          }) {}
    ~ScriptedSlogd() {
        queue.Remove();
        thread_.join();
    }

    const SlogdQueue queue;

private:
    std::thread thread_;
};

struct SlogdProgram : StandIn {
    explicit SlogdProgram(std::vector<std::string> options = {})
        : StandIn("orla-slogd", std::move(options)) {}
};

}  // namespace orla::test
