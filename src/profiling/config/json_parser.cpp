#include "profiling/config/json_parser.h"

#include <cstddef>
#include <fstream>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>

#include "hdc/log_side.h"
#include "profiling/config/bounded_json.h"
#include "profiling/config/utils.h"

namespace Tracelets::Parser {

using analysis::nedra::common::utils::Utils;
using analysis::nedra::message::kMaxJsonLength;
using analysis::nedra::message::ParseBoundedJson;
using nlohmann::json;

namespace {

struct Range {
    uint32_t min;
    uint32_t max;
};

struct ModuleRow {
    const char* name;
    uint32_t id;
    Range reportBufLen;
};

constexpr Range kSmallReport{8192, 32768};
constexpr Range kLargeReport{0x20000, 0x80000};
constexpr ModuleRow kModules[] = {
    {"DATA_PREPROCESS", 0, kSmallReport}, {"COLLNET", 1, kSmallReport},
    {"APPAPI", 2, kSmallReport},          {"FRAMEWORK", 3, kLargeReport},
    {"RUNTIME", 4, kSmallReport},         {"TRACELET", 5, kSmallReport},
};

struct ExternalModuleRow {
    uint32_t externalId;
    uint32_t id;
};

constexpr ExternalModuleRow kExternalModules[] = {{48, 2}, {45, 3}, {7, 4}, {3, 1}};

struct ChannelRow {
    const char* name;
    uint32_t id;
    Range threshold;
};

constexpr Range kAnything{0, std::numeric_limits<uint32_t>::max()};
constexpr Range kPercent{10, 95};
constexpr ChannelRow kChannels[] = {
    {"HBM", 1, kAnything},
    {"PCIE", 3, kAnything},
    {"NIC", 4, kAnything},
    {"DVPP", 6, kAnything},
    {"DDR", 7, kAnything},
    {"LLC", 8, kAnything},
    {"FABRICLINK", 9, kAnything},
    {"TS_CPU", 10, kAnything},
    {"AI_CORE", 43, kAnything},
    {"TS_FW", 44, kAnything},
    {"HWTS_LOG", 45, kPercent},
    {"FMK", 46, kAnything},
    {"L2_CACHE_TASK", 47, kAnything},
    {"AIV_HWTS_LOG", 48, kPercent},
    {"TS_FW1", 49, kAnything},
    {"STARS_SOC_LOG", 50, kAnything},
    {"STARS_BLOCK_LOG", 51, kAnything},
    {"STARS_SOC_PROFILE", 52, kAnything},
    {"FFTS_PROFILIE_TASK", 53, kAnything},
    {"FFTS_PROFILIE_SAMPLE", 54, kAnything},
    {"ROCE", 129, kAnything},
    {"NPU_APP_MEM", 130, kAnything},
    {"NPU_DEV_MEM", 131, kAnything},
    {"LP_FREQ_CONV", 132, kAnything},
};

constexpr Range kPeriod{1, 1000};
constexpr Range kChannelBufSize{0x100000, 0x400000};

// A read of the wrong kind of value, by the key of its object, its place in its array, or neither.
void LogBadRead(const char* key, const std::exception& e) {
    PROF_LOGE("\"%s\" in config file has exception, which is \"%s\"", key, e.what());
}

void LogBadRead(long index, const std::exception& e) {
    PROF_LOGE("\"%ld\" in config file has exception, which is \"%s\"", index, e.what());
}

void LogBadRead(std::nullptr_t /*key*/, const std::exception& e) {
    PROF_LOGE("unknown type in config file has exception, which is \"%s\"", e.what());
}

void Expect(bool isWanted, const char* wanted, const json& value) {
    if (!isWanted) {
        throw std::invalid_argument(std::string("type must be ") + wanted + ", but is " +
                                    value.type_name());
    }
}

std::string ToText(const json& value) {
    Expect(value.is_string(), "string", value);
    return value.get<std::string>();
}

// A double holds every number of 32 bits, and what is out of range stays out of range in it.
uint32_t ToNumber(const json& value) {
    Expect(value.is_number(), "number", value);
    const auto number = value.get<double>();
    if (!(number >= 0 && number <= std::numeric_limits<uint32_t>::max())) {
        throw std::out_of_range("number must fit in 32 bits without a sign");
    }
    return static_cast<uint32_t>(number);
}

const json* ToObject(const json& value) {
    Expect(value.is_object(), "object", value);
    return &value;
}

const json* ToArray(const json& value) {
    Expect(value.is_array(), "array", value);
    return &value;
}

// Nothing, with a log line, for a value of the wrong kind.
template <typename T, typename Key>
std::optional<T> Convert(const json& value, Key key, T (*convert)(const json&)) {
    try {
        return convert(value);
    } catch (const std::exception& e) {
        LogBadRead(key, e);
        return std::nullopt;
    }
}

// The member `key` of an object; nothing when it is missing or of the wrong kind.
template <typename T>
std::optional<T> Read(const json& object, const char* key, T (*convert)(const json&)) {
    const auto found = object.find(key);
    return found == object.end() ? std::nullopt : Convert(*found, key, convert);
}

// A block of the file; an empty one when there is none.
const json& ReadBlock(const json& object, const char* key, const json* (*convert)(const json&)) {
    static const json nothing = json::object();
    return *Read(object, key, convert).value_or(&nothing);
}

uint32_t ReadNumber(const json& object, const char* key) {
    return Read(object, key, ToNumber).value_or(0);
}

bool ReadSwitch(const json& object, const char* key) {
    return Read(object, key, ToText).value_or("on") != "off";
}

// Sets `out` to the member, or to 0 when there is none or it is out of `range`. False only for a
// number out of range.
bool ReadInRange(const json& object, const char* key, const Range& range, uint32_t& out) {
    const auto value = Read(object, key, ToNumber);
    const bool isGood = !value || (*value >= range.min && *value <= range.max);
    out = isGood ? value.value_or(0) : 0;
    return isGood;
}

template <typename Row, size_t N>
const Row* FindByName(const Row (&table)[N], const std::string& name) {
    for (const Row& row : table) {
        if (name == row.name) {
            return &row;
        }
    }
    return nullptr;
}

// Nothing for an unreadable file. One that is longer than the parser takes comes out longer, too.
std::optional<std::string> ReadFile(const std::string& path) {
    std::ifstream stream(path);
    if (!stream.is_open()) {
        return std::nullopt;
    }
    std::string text(kMaxJsonLength + 1, '\0');
    stream.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (stream.bad()) {
        return std::nullopt;
    }
    text.resize(static_cast<size_t>(stream.gcount()));
    return text;
}

// What an entry says, or what one that was never named would say.
template <typename Info>
Info Lookup(const std::map<uint32_t, Info>& table, uint32_t id) {
    const auto found = table.find(id);
    return found == table.end() ? Info{} : found->second;
}

}  // namespace

void JsonParser::Init(const std::string& path) {
    if (inited_) {
        return;
    }
    inited_ = true;
    const auto text = ReadFile(path);
    if (!text) {
        PROF_LOGW("Json file path cannot open, path: %s", Utils::BaseName(path).c_str());
        profSwitch_ = false;
        uploaderQueueLen_ = pollPeriod_ = duration_ = 0;
        return;
    }
    Load(*text, path);
}

void JsonParser::Load(std::string_view text, const std::string& path) {
    json root = json::object();
    try {
        root = ParseBoundedJson(text);
    } catch (const std::exception&) {
        PROF_LOGW("Json file config load fail, path:%s", Utils::BaseName(path).c_str());
    }
    if (!Convert(root, nullptr, ToObject)) {
        root = json::object();
    }
    profSwitch_ = ReadSwitch(root, "profiler");
    const json& software = ReadBlock(root, "swstack", ToObject);
    uploaderQueueLen_ = ReadNumber(software, "uploader_queue_len");
    const json& modules = ReadBlock(software, "modules", ToArray);
    const json& device = ReadBlock(root, "device", ToObject);
    pollPeriod_ = ReadNumber(device, "poll_peroid");
    const json& channels = ReadBlock(device, "channels", ToArray);
    duration_ = ReadNumber(root, "duration");
    AddEach(modules, &JsonParser::AddModule);
    AddEach(channels, &JsonParser::AddChannel);
}

void JsonParser::AddEach(const json& entries, void (JsonParser::*add)(const json&)) {
    long index = 0;
    for (const json& entry : entries) {
        if (Convert(entry, index++, ToObject)) {
            (this->*add)(entry);
        }
    }
}

void JsonParser::AddModule(const json& entry) {
    const ModuleRow* row = FindByName(kModules, Read(entry, "module", ToText).value_or(""));
    if (row == nullptr) {
        PROF_LOGE("Module Id is invalid.");
        return;
    }
    ModuleInfo info;
    info.moduleId = row->id;
    info.profSwitch = ReadSwitch(entry, "prof_switch");
    info.reporterSwitch = ReadSwitch(entry, "reporter_switch");
    if (!ReadInRange(entry, "report_buffer_len", row->reportBufLen, info.reportBufLen)) {
        PROF_LOGW("The reporter buffer len of Module %d is out of range",
                  static_cast<int>(row->id));
    }
    moduleInfo_.emplace(info.moduleId, info);
}

void JsonParser::AddChannel(const json& entry) {
    const ChannelRow* row = FindByName(kChannels, Read(entry, "channel", ToText).value_or(""));
    if (row == nullptr) {
        PROF_LOGE("Channel Id is invalid.");
        return;
    }
    ChannelInfo info;
    info.channelId = row->id;
    const int id = static_cast<int>(row->id);
    if (!ReadInRange(entry, "peroid", kPeriod, info.period)) {
        PROF_LOGW("The peroid of Channel %d is out of range", id);
    }
    if (!ReadInRange(entry, "channel_buffer_size", kChannelBufSize, info.channelBufSize)) {
        PROF_LOGW("The channel buffer size of Channel %d is out of range", id);
    }
    info.driverBufSize = ReadNumber(entry, "driver_buffer_size");
    if (!ReadInRange(entry, "threshold", row->threshold, info.threshold)) {
        PROF_LOGW("The threshold of Channel %d is out of range", id);
    }
    info.profSwitch = ReadSwitch(entry, "prof_switch");
    info.reporterSwitch = ReadSwitch(entry, "reporter_switch");
    channelInfo_.emplace(info.channelId, info);
}

bool JsonParser::GetChannelProfSwitch(uint32_t channelId) const {
    return Lookup(channelInfo_, channelId).profSwitch;
}

bool JsonParser::GetChannelReporterSwitch(uint32_t channelId) const {
    return Lookup(channelInfo_, channelId).reporterSwitch;
}

uint32_t JsonParser::GetChannelBufSize(uint32_t channelId) const {
    return Lookup(channelInfo_, channelId).channelBufSize;
}

uint32_t JsonParser::GetDriverBufSize(uint32_t channelId) const {
    return Lookup(channelInfo_, channelId).driverBufSize;
}

uint32_t JsonParser::GetChannelPeriod(uint32_t channelId) const {
    return Lookup(channelInfo_, channelId).period;
}

uint32_t JsonParser::GetChannelThreshold(uint32_t channelId) const {
    return Lookup(channelInfo_, channelId).threshold;
}

bool JsonParser::GetModuleReporterSwitch(uint32_t moduleId) const {
    return Lookup(moduleInfo_, moduleId).reporterSwitch;
}

uint32_t JsonParser::GetReportBufLen(uint32_t moduleId) const {
    return Lookup(moduleInfo_, moduleId).reportBufLen;
}

bool JsonParser::GetModuleProfSwitch(uint32_t externalModuleId) const {
    for (const ExternalModuleRow& row : kExternalModules) {
        if (row.externalId == externalModuleId) {
            return Lookup(moduleInfo_, row.id).profSwitch;
        }
    }
    return true;
}

}  // namespace Tracelets::Parser
