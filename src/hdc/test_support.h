// For the unit tests of any module: what the code under test logs, faults and foreign bytes for it,
// waiting for a condition, a thread as small as those of the daemon, and a system without threads.
#pragma once

#include <gtest/gtest.h>
#include <hdc_driver.h>
#include <portability.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "hdc/hdc_packet.h"
#include "hdc/hdc_session.h"
#include "platform/emulation/control.h"

namespace orla::test {

// Collects lines of all levels from its construction on. One at a time.
class LogCapture {
public:
    LogCapture() { control::SetLogLevel(control::LogLevel::kDebug); }
    ~LogCapture() { control::SetLogLevel(control::LogLevel::kInfo); }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // "E text", "W text", "I text", "D text" or "V text" (event), without the prefix of their
    // side, in their order, and forgets them. Only those whose letter is in `levels`.
    std::vector<std::string> Take(const std::string& levels = "EWIDV") {
        std::vector<std::string> taken;
        for (const control::LogLine& line : control::CapturedLines()) {
            const char letter = "DIWEV"[static_cast<int>(line.level)];
            if (levels.find(letter) != std::string::npos) {
                taken.push_back(std::string{letter, ' '} + WithoutPrefix(line.text));
            }
        }
        control::StartLogCapture();
        return taken;
    }

private:
    static std::string WithoutPrefix(const std::string& text) {
        const size_t mark = text.find(">>> ");
        const size_t start = mark == std::string::npos ? 0 : mark + 4;
        const bool namesThread = text.compare(start, 5, "(tid:") == 0;
        return text.substr(namesThread ? text.find(") ", start) + 2 : start);
    }

    control::LogCapture capture_;
};

// The next `count` calls of a driver's operation, behind `after` that go on as usual, answer
// `result`.
inline void InjectFault(const char* call, int result, uint64_t after = 0, int64_t count = 1) {
    ASSERT_TRUE(control::InjectFault({call, {}, {}, result, after, count, 0}));
}

// Bytes of which no two pieces are the same, wherever a message is cut.
inline std::string Text(size_t size) {
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i) {
        text[i] = static_cast<char>(i * 31 + i / 251);
    }
    return text;
}

// A segment as it travels, without padding, with whatever its header states.
inline std::string Segment(const std::string& value, uint8_t isLast,
                           std::optional<uint32_t> length = {}, uint32_t type = kSegmentType) {
    std::string bytes(sizeof(IdeHdcPacket), '\0');
    auto* packet = reinterpret_cast<IdeHdcPacket*>(bytes.data());
    packet->len = length.value_or(static_cast<uint32_t>(value.size()));
    packet->type = type;
    packet->isLast = isLast;
    return bytes + value;
}

// Gives bytes to the driver as one buffer, whatever they are.
inline void SendRaw(const HdcSessionPtr& session, std::string bytes) {
    drvHdcMsg_t message = nullptr;
    HdcSession::Sending turn(*session);
    ASSERT_EQ(0, session->AllocMsg(&message, 1));
    ASSERT_EQ(0, drvHdcAddMsgBuffer(message, bytes.data(), static_cast<int>(bytes.size())));
    ASSERT_EQ(0, turn.Send(message, HDC_FLAG_WAIT));
    turn.Complete();
    ASSERT_EQ(0, drvHdcFreeMsg(message));
}

// Waits until `condition` holds. False after a minute, which only a fault takes.
[[nodiscard]] inline bool WaitFor(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

// In a program with thread_limit_test_support.h: how many more threads the system gives; negative:
// as many as are wanted.
inline std::atomic<int> threadsLeft{-1};
// What happens in the meantime when it gives none.
inline std::function<void()> onRefused = [] {};

// Runs `body` on a thread with the stack of the daemon's threads and waits for its end. False
// when the thread could not be started.
[[nodiscard]] inline bool RunOnSmallStack(std::function<void()> body) {
    mmThreadAttr attributes{};
    attributes.stackFlag = 1;
    attributes.stackSize = 128 * 1024;
    mmUserBlock_t routine{};
    routine.procFunc = [](void* argument) -> void* {
        (*static_cast<std::function<void()>*>(argument))();
        return nullptr;
    };
    routine.pulArg = &body;
    mmThread thread{};
    return mmCreateTaskWithThreadAttr(&thread, &routine, &attributes) == EN_OK &&
           mmJoinTask(&thread) == EN_OK;
}

}  // namespace orla::test
