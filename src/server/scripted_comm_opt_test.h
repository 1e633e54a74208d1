// For tests: an option without a transport. Its sessions read what a test scripted and keep what
// is written to them.
#pragma once

#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "server/velt_comm_opt_manager.h"
#include "server/velt_msg_proto.h"

namespace Velt {

class ScriptedCommOpt : public VeltCommOpt {
public:
    struct Delivery {
        int ret;
        std::string bytes;                // a block of them, unless empty
        std::optional<int32_t> length{};  // what is said of them instead of their number
    };
    std::deque<Delivery> deliveries;  // when none is left, the peer has gone
    std::vector<std::string> written;
    std::function<int()> onWrite;  // what a write answers; null: 0

    // The one of the process, with a script of its own.
    static ScriptedCommOpt& Fresh(std::deque<Delivery> deliveries = {}) {
        static const auto option = std::make_shared<ScriptedCommOpt>();
        static const bool known = VeltCommOptManager::instance().CommOptsRegister(option);
        option->deliveries = known ? std::move(deliveries) : std::deque<Delivery>{};
        option->written.clear();
        option->onWrite = nullptr;
        return *option;
    }
    static CommHandle Session() { return {kType, 1}; }

    std::string CommOptName() override { return "scripted"; }
    int32_t CommOptType() override { return kType; }
    int64_t OpenServer(const CommOptions&) override { return kNoHandle; }
    int CloseServer(int64_t&) override { return -1; }
    int64_t OpenClient(const CommOptions&) override { return kNoHandle; }
    int CloseClient(int64_t&) override { return -1; }
    int64_t Accept(int64_t) override { return kNoHandle; }
    int64_t Connect(int64_t, const CommOptions&) override { return kNoHandle; }
    int Close(int64_t&) override { return 0; }
    std::shared_ptr<VeltDevice> GetDevice() override { return nullptr; }
    void Timer() override {}

    int Write(int64_t, const void* buffer, int32_t length, int) override {
        written.emplace_back(static_cast<const char*>(buffer), static_cast<size_t>(length));
        return onWrite == nullptr ? 0 : onWrite();
    }
    int Read(int64_t, void** buffer, int32_t* length, int) override {
        if (deliveries.empty()) {
            return 1;
        }
        const Delivery next = deliveries.front();
        deliveries.pop_front();
        if (!next.bytes.empty()) {
            *buffer = std::malloc(next.bytes.size());  // no byte more, so that a sanitizer sees it
            std::memcpy(*buffer, next.bytes.data(), next.bytes.size());
        }
        *length = next.length.value_or(static_cast<int32_t>(next.bytes.size()));
        return next.ret;
    }

private:
    static constexpr int32_t kType = 90;
};

// A message as its sender states it, whatever follows the header.
inline std::string MsgBytes(uint16_t msgType, uint16_t status, uint32_t totalLen, uint32_t sliceLen,
                            uint32_t offset, const std::string& data) {
    const MsgProto header{kMsgMagic, kMsgVersion, 0,      14,      3,
                          totalLen,  sliceLen,    offset, msgType, status};
    return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + data;
}
inline std::string DataBytes(const std::string& data) {
    const auto size = static_cast<uint32_t>(data.size());
    return MsgBytes(kMsgData, 0, size, size, 0, data);
}
inline std::string ControlBytes(uint16_t status) {
    return MsgBytes(kMsgControl, status, 0, 0, 0, "");
}

}  // namespace Velt
