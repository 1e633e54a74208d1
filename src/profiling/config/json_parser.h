// The tuning file: an optional JSON file that switches channels and modules of the profiling
// agent off and sets the sizes of their buffers and how often they report.
//
//     {"profiler": "on", "duration": 0,
//      "swstack": {"uploader_queue_len": 0,
//                  "modules": [{"module": "RUNTIME", "prof_switch": "on",
//                               "reporter_switch": "on", "report_buffer_len": 8192}]},
//      "device": {"poll_peroid": 0,
//                 "channels": [{"channel": "HWTS_LOG", "peroid": 10,
//                               "channel_buffer_size": 1048576, "driver_buffer_size": 0,
//                               "threshold": 50, "prof_switch": "on",
//                               "reporter_switch": "on"}]}}
//
// Whatever the file does not mention has its default: switches are on (only "off" is off), and a
// number is 0, which means "use your own". A bad value costs that value only, with a log line; a
// bad file means defaults for everything. The first entry of a channel or module counts.
//
// What acts is said in docs/operations.md; the other members are read and checked only.
//
// One thread calls Init, before any other thread calls a getter. After that nothing changes, and
// the getters, which the data path calls for every channel event, take no lock.
#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

#include "profiling/config/singleton.h"

namespace Tracelets::Parser {

// Where the file is on a device. The start of the profiling component gives it to Init when it
// exists.
constexpr const char* kTuningFile = "/etc/prof.json";

class JsonParser : public analysis::nedra::common::singleton::Singleton<JsonParser> {
public:
    JsonParser() = default;

    // Reads the file. Once: a second call does nothing. The file is no longer and no deeper nested
    // than JSON of the agent may be.
    void Init(const std::string& path);
    // What Init does with the bytes of the file: `path` is for log lines.
    void Load(std::string_view text, const std::string& path);

    // Of a channel id of the driver. True, or 0, for an unknown one.
    [[nodiscard]] bool GetChannelProfSwitch(uint32_t channelId) const;
    [[nodiscard]] bool GetChannelReporterSwitch(uint32_t channelId) const;
    [[nodiscard]] uint32_t GetChannelBufSize(uint32_t channelId) const;  // bytes, of the reader
    [[nodiscard]] uint32_t GetDriverBufSize(uint32_t channelId) const;   // bytes
    [[nodiscard]] uint32_t GetChannelPeriod(uint32_t channelId) const;   // the driver's unit
    [[nodiscard]] uint32_t GetChannelThreshold(uint32_t channelId) const;

    // Of a module of the host software, 0 to 5. True, or 0, for an unknown one.
    [[nodiscard]] bool GetModuleReporterSwitch(uint32_t moduleId) const;
    [[nodiscard]] uint32_t GetReportBufLen(uint32_t moduleId) const;  // bytes
    // Here the module is given by the number that it has outside of the agent.
    [[nodiscard]] bool GetModuleProfSwitch(uint32_t externalModuleId) const;

    // Nobody acts on these yet.
    [[nodiscard]] bool GetProfSwitch() const { return profSwitch_; }
    [[nodiscard]] uint32_t GetUploaderQueueLen() const { return uploaderQueueLen_; }
    [[nodiscard]] uint32_t GetPollPeriod() const { return pollPeriod_; }
    [[nodiscard]] uint32_t GetDuration() const { return duration_; }

private:
    struct ChannelInfo {
        uint32_t channelId = 0;
        uint32_t period = 0;
        uint32_t channelBufSize = 0;
        uint32_t driverBufSize = 0;
        uint32_t threshold = 0;
        bool profSwitch = true;
        bool reporterSwitch = true;
    };
    struct ModuleInfo {
        uint32_t moduleId = 0;
        bool profSwitch = true;
        bool reporterSwitch = true;
        uint32_t reportBufLen = 0;
    };

    // Calls `add` for each entry that is an object.
    void AddEach(const nlohmann::json& entries, void (JsonParser::*add)(const nlohmann::json&));
    void AddModule(const nlohmann::json& entry);
    void AddChannel(const nlohmann::json& entry);

    // Constant after Init.
    std::map<uint32_t, ChannelInfo> channelInfo_;
    std::map<uint32_t, ModuleInfo> moduleInfo_;
    bool profSwitch_ = true;
    bool inited_ = false;
    uint32_t uploaderQueueLen_ = 0;
    uint32_t pollPeriod_ = 0;
    uint32_t duration_ = 0;
};

}  // namespace Tracelets::Parser
