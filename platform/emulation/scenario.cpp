#include "scenario.h"

#include <device_driver.h>
#include <prof_driver.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>

#include "channel_record.h"
#include "channel_table.h"
#include "driver_calls.h"

namespace orla::emulation {

namespace {

using Json = nlohmann::json;

constexpr size_t kMaxFileSize = 4 << 20;
constexpr uint32_t kLargestSegment = 16 << 20;
constexpr uint32_t kMaxChannelId = 160;
constexpr size_t kMaxChannelName = 32;
constexpr uint64_t kDefaultRate = 64 << 10;
constexpr uint64_t kMaxChannelBuffer = 1 << 30;
constexpr uint32_t kMaxDelayMs = 3600 * 1000;
constexpr uint32_t kMaxFlaps = 1000000;
constexpr uint32_t kSmallestSocketBuffer = 4608;  // the system gives no less

// One object of the file, member by member. A member that nobody took is an error: a misspelt
// key must not silently mean its default. Everything here throws std::runtime_error with the
// place in the file; ParseScenario is where that ends.
class ObjectReader {
public:
    ObjectReader(const Json& value, std::string place) : value_(value), place_(std::move(place)) {
        if (!value_.is_object()) {
            Fail("an object is expected");
        }
    }

    [[noreturn]] void Fail(const std::string& what) const {
        throw std::runtime_error(place_ + ": " + what);
    }

    [[nodiscard]] const Json* Find(const char* key) {
        taken_.insert(key);
        const auto found = value_.find(key);
        return found == value_.end() ? nullptr : &*found;
    }

    template <typename T>
    [[nodiscard]] std::optional<T> Integer(const char* key, int64_t least, uint64_t most) {
        const Json* value = Find(key);
        if (value == nullptr) {
            return std::nullopt;
        }
        const bool fits =
            value->is_number_unsigned()
                ? value->get<uint64_t>() <= most &&
                      (least <= 0 || value->get<uint64_t>() >= static_cast<uint64_t>(least))
                : value->is_number_integer() && value->get<int64_t>() >= least;
        if (!fits) {
            Fail(std::string(key) + " must be an integer from " + std::to_string(least) + " to " +
                 std::to_string(most));
        }
        return value->get<T>();
    }

    [[nodiscard]] std::optional<uint32_t> Unsigned(const char* key, uint64_t most) {
        return Integer<uint32_t>(key, 0, most);
    }

    template <typename T>
    [[nodiscard]] T Required(const char* key, std::optional<T> value) {
        if (!value) {
            Fail(std::string(key) + " is missing");
        }
        return *std::move(value);
    }

    [[nodiscard]] std::optional<std::string> Text(const char* key) {
        const Json* value = Find(key);
        if (value != nullptr && !value->is_string()) {
            Fail(std::string(key) + " must be a text");
        }
        return value == nullptr ? std::nullopt : std::optional(value->get<std::string>());
    }

    [[nodiscard]] bool Switch(const char* key) {
        const Json* value = Find(key);
        if (value != nullptr && !value->is_boolean()) {
            Fail(std::string(key) + " must be true or false");
        }
        return value != nullptr && value->get<bool>();
    }

    // Calls `each(reader)` for the objects of an array; false when there is no such member.
    template <typename Each>
    bool Objects(const char* key, Each&& each) {
        const Json* value = Find(key);
        if (value == nullptr) {
            return false;
        }
        if (!value->is_array()) {
            Fail(std::string(key) + " must be an array");
        }
        for (size_t i = 0; i < value->size(); ++i) {
            ObjectReader reader((*value)[i], place_ + "." + key + "[" + std::to_string(i) + "]");
            each(reader);
            reader.Finish();
        }
        return true;
    }

    // Calls `read(reader)` for the object of that name, if there is one.
    template <typename Read>
    void Object(const char* key, Read&& read) {
        if (const Json* value = Find(key)) {
            ObjectReader reader(*value, place_ + "." + key);
            read(reader);
            reader.Finish();
        }
    }

    void Finish() const {
        for (const auto& member : value_.items()) {
            if (taken_.count(member.key()) == 0) {
                Fail("unknown member \"" + member.key() + "\"");
            }
        }
    }

private:
    const Json& value_;
    const std::string place_;
    std::set<std::string> taken_;
};

// What a device of the built-in kind answers, before its scenario says otherwise.
std::map<SimulatedDevice::InfoKey, InfoAnswer> DefaultInfo() {
    return {
        {{DEV_MODULE_SYSTEM, DEV_INFO_ENVIRONMENT}, {0}},
        {{DEV_MODULE_SYSTEM, DEV_INFO_TYPE_VERSION}, {5 << 8}},
        {{DEV_MODULE_SYSTEM, DEV_INFO_HOST_FREQ}, {100000}},
        {{DEV_MODULE_SYSTEM, DEV_INFO_DEVICE_FREQ}, {50000}},
        {{DEV_MODULE_CTRL_CPU, DEV_INFO_CORE_ID}, {0}},
        {{DEV_MODULE_CTRL_CPU, DEV_INFO_CORE_NUM}, {4}},
        {{DEV_MODULE_CTRL_CPU, DEV_INFO_ENDIAN_LITTLE}, {1}},
        {{DEV_MODULE_AI_CPU, DEV_INFO_CORE_ID}, {4}},
        {{DEV_MODULE_AI_CPU, DEV_INFO_CORE_NUM}, {4}},
        {{DEV_MODULE_AI_CPU, DEV_INFO_OCCUPY_BITMAP}, {0xF0}},
        {{DEV_MODULE_TS_CPU, DEV_INFO_CORE_NUM}, {1}},
        {{DEV_MODULE_AI_CORE, DEV_INFO_CORE_ID}, {0}},
        {{DEV_MODULE_AI_CORE, DEV_INFO_CORE_NUM}, {8}},
        {{DEV_MODULE_VECTOR_CORE, DEV_INFO_CORE_NUM}, {7}},
    };
}

// One of the words that a member may have; the first when there is no such member.
template <typename Value>
Value ReadWord(ObjectReader& reader, const char* key,
               std::initializer_list<std::pair<const char*, Value>> words) {
    const std::string text = reader.Text(key).value_or(words.begin()->first);
    std::string known;
    for (const auto& [word, value] : words) {
        if (text == word) {
            return value;
        }
        known += std::string(known.empty() ? "" : ", ") + '"' + word + '"';
    }
    reader.Fail(std::string(key) + " must be one of " + known);
}

DeviceState ReadState(ObjectReader& reader) {
    return ReadWord<DeviceState>(reader, "state",
                                 {{"up", DeviceState::kUp}, {"down", DeviceState::kDown}});
}

Flaps ReadFlaps(ObjectReader& reader) {
    Flaps flaps;
    reader.Object("flaps", [&](ObjectReader& member) {
        const auto number = [&](const char* key, uint32_t most) {
            return member.Required(key, member.Integer<uint32_t>(key, 1, most));
        };
        flaps = {number("up_ms", kMaxDelayMs), number("down_ms", kMaxDelayMs),
                 number("count", kMaxFlaps)};
    });
    return flaps;
}

Liberties ReadLiberties(ObjectReader& reader) {
    Liberties liberties;
    liberties.acceptMayBlock = reader.Switch("accept_may_block");
    liberties.idlePoll = reader.Integer<int>("idle_poll", PROF_STOPPED_ALREADY, 0);
    if (liberties.idlePoll.value_or(0) != 0 && liberties.idlePoll != PROF_STOPPED_ALREADY) {
        reader.Fail("idle_poll must be -4 or 0");
    }
    liberties.closeWaits = reader.Switch("close_waits");
    liberties.socketBuffer =
        reader.Integer<uint32_t>("socket_buffer", kSmallestSocketBuffer, kLargestSegment)
            .value_or(liberties.socketBuffer);
    liberties.destroyBusy = reader.Switch("destroy_busy");
    liberties.receive = ReadWord<ReceiveStyle>(reader, "receive",
                                               {{"plain", ReceiveStyle::kPlain},
                                                {"unaligned", ReceiveStyle::kUnaligned},
                                                {"several", ReceiveStyle::kSeveral},
                                                {"empty", ReceiveStyle::kEmpty}});
    return liberties;
}

void ReadInfo(ObjectReader& reader, std::map<SimulatedDevice::InfoKey, InfoAnswer>* info) {
    const auto type = reader.Unsigned("type", 0xFF);
    const auto version = reader.Unsigned("version", 0xFF);
    InfoAnswer& chip = (*info)[{DEV_MODULE_SYSTEM, DEV_INFO_TYPE_VERSION}];
    chip.value = static_cast<int64_t>(type.value_or(chip.value >> 8) << 8 | version.value_or(0));
    for (const auto& [key, what] : {std::pair{"host_freq_khz", DEV_INFO_HOST_FREQ},
                                    std::pair{"device_freq_khz", DEV_INFO_DEVICE_FREQ}}) {
        if (const auto frequency = reader.Integer<int64_t>(key, 0, INT64_MAX)) {
            (*info)[{DEV_MODULE_SYSTEM, what}].value = *frequency;
        }
    }
    reader.Objects("info", [&](ObjectReader& answer) {
        const auto number = [&](const char* key) {
            return answer.Integer<int32_t>(key, INT32_MIN, INT32_MAX);
        };
        const SimulatedDevice::InfoKey key = {answer.Required("module", number("module")),
                                              answer.Required("info", number("info"))};
        const auto value = answer.Integer<int64_t>("value", INT64_MIN, INT64_MAX);
        const auto result = number("result");
        if (value.has_value() == result.has_value()) {
            answer.Fail("either value or result must be given");
        }
        (*info)[key] = {value.value_or(0), result.value_or(0)};
    });
}

uint64_t ReadRate(ObjectReader& reader) {
    const Json* rate = reader.Find("rate");
    if (rate != nullptr && rate->is_string() && *rate == "unlimited") {
        return SimulatedChannel::kUnlimited;
    }
    return reader.Integer<uint64_t>("rate", 0, SimulatedChannel::kUnlimited - 1)
        .value_or(kDefaultRate);
}

void ReadBuffers(ObjectReader& reader, SimulatedChannel* channel) {
    constexpr uint64_t kRecord = sizeof(ChannelRecord);
    if (const auto bytes = reader.Integer<uint64_t>("buffer", kRecord, kMaxChannelBuffer)) {
        channel->bufferRecords = *bytes / kRecord;
    }
    channel->sideRecords =
        std::min(SimulatedChannel::UsualSideRecords(channel->id), channel->bufferRecords);
    if (const auto bytes = reader.Unsigned("side_buffer", channel->bufferRecords * kRecord)) {
        channel->sideRecords = *bytes / kRecord;
    }
    channel->maxRecords = reader.Integer<uint64_t>("records", 0, SimulatedChannel::kEndless)
                              .value_or(SimulatedChannel::kEndless);
    channel->dropAtStop = reader.Switch("drop_at_stop");
}

void AddChannel(ObjectReader& reader, SimulatedDevice* device) {
    SimulatedChannel channel;
    channel.id = reader.Required("id", reader.Integer<uint32_t>("id", 1, kMaxChannelId));
    channel.name = reader.Text("name").value_or("CHANNEL_" + std::to_string(channel.id));
    if (channel.name.size() > kMaxChannelName) {
        reader.Fail("name is longer than 32 bytes");
    }
    channel.type = reader.Unsigned("type", UINT32_MAX).value_or(0);
    channel.bytesPerSecond = ReadRate(reader);
    ReadBuffers(reader, &channel);
    if (device->FindChannel(channel.id) != nullptr) {
        reader.Fail("a second channel " + std::to_string(channel.id));
    }
    device->channels.push_back(std::move(channel));
}

void AddDevice(ObjectReader& reader, Scenario* scenario) {
    SimulatedDevice device;
    device.logicalId = reader.Required("logical", reader.Unsigned("logical", kMaxDevices - 1));
    device.physicalId = reader.Unsigned("physical", UINT32_MAX).value_or(device.logicalId);
    for (const SimulatedDevice& other : scenario->devices) {
        if (other.logicalId == device.logicalId || other.physicalId == device.physicalId) {
            reader.Fail("a second device with this id");
        }
    }
    device.state = ReadState(reader);
    device.flaps = ReadFlaps(reader);
    device.info = DefaultInfo();
    ReadInfo(reader, &device.info);
    if (!reader.Objects("channels", [&](ObjectReader& channel) { AddChannel(channel, &device); })) {
        device.channels = AllChannels(kDefaultRate);
    }
    scenario->devices.push_back(std::move(device));
}

void AddFault(ObjectReader& reader, Scenario* scenario) {
    Fault fault;
    fault.call = reader.Required("call", reader.Text("call"));
    if (!FindCall(fault.call)) {
        reader.Fail("the driver has no operation \"" + fault.call + "\"");
    }
    fault.device = reader.Unsigned("device", UINT32_MAX);
    fault.channel = reader.Unsigned("channel", UINT32_MAX);
    fault.result = reader.Integer<int>("result", INT32_MIN, INT32_MAX);
    fault.after = reader.Integer<uint64_t>("after", 0, UINT64_MAX).value_or(0);
    fault.count = reader.Integer<int64_t>("count", Fault::kForever, INT64_MAX).value_or(1);
    fault.delayMs = reader.Unsigned("delay_ms", kMaxDelayMs).value_or(0);
    scenario->faults.push_back(std::move(fault));
}

Scenario ReadScenario(const Json& json) {
    Scenario scenario;
    ObjectReader reader(json, "scenario");
    scenario.maxSegment =
        reader.Integer<uint32_t>("max_segment", 1, kLargestSegment).value_or(scenario.maxSegment);
    scenario.platformInfo =
        reader.Unsigned("platform_info", UINT32_MAX).value_or(scenario.platformInfo);
    scenario.apiVersion =
        reader.Integer<int32_t>("api_version", 0, INT32_MAX).value_or(scenario.apiVersion);
    const auto addDevice = [&](ObjectReader& device) { AddDevice(device, &scenario); };
    if (!reader.Objects("devices", addDevice)) {
        const Json builtIn = {{"logical", 0}};
        ObjectReader device(builtIn, "built-in device");
        addDevice(device);
    }
    reader.Object("liberties",
                  [&](ObjectReader& member) { scenario.liberties = ReadLiberties(member); });
    reader.Objects("faults", [&](ObjectReader& fault) { AddFault(fault, &scenario); });
    reader.Finish();
    return scenario;
}

template <typename T, typename Matches>
const T* Find(const std::vector<T>& items, Matches&& matches) {
    const auto found = std::find_if(items.begin(), items.end(), matches);
    return found == items.end() ? nullptr : &*found;
}

}  // namespace

const InfoAnswer* SimulatedDevice::FindInfo(int32_t module, int32_t what) const {
    const auto found = info.find({module, what});
    return found == info.end() ? nullptr : &found->second;
}

const SimulatedChannel* SimulatedDevice::FindChannel(uint32_t id) const {
    return Find(channels, [id](const SimulatedChannel& channel) { return channel.id == id; });
}

const SimulatedDevice* Scenario::FindDevice(uint32_t logicalId) const {
    return Find(devices,
                [=](const SimulatedDevice& device) { return device.logicalId == logicalId; });
}

std::shared_ptr<const Scenario> ParseScenario(std::string_view text, std::string* error) {
    try {
        return std::make_shared<const Scenario>(ReadScenario(Json::parse(text)));
    } catch (const std::exception& failure) {
        *error = failure.what();
        return nullptr;
    }
}

std::shared_ptr<const Scenario> LoadScenarioFromEnvironment(std::string* error) {
    const char* path = std::getenv("ORLA_SCENARIO");
    if (path == nullptr || *path == '\0') {
        return ParseScenario("{}", error);
    }
    std::ifstream file(path, std::ios::binary);
    std::string text(kMaxFileSize + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    const std::streamsize size = file.gcount();
    std::string reason;
    std::shared_ptr<const Scenario> scenario;
    if (!file.eof() || file.bad()) {
        reason = "it can't be read, or is larger than 4 MiB";
    } else {
        scenario = ParseScenario({text.data(), static_cast<size_t>(size)}, &reason);
    }
    if (scenario == nullptr) {
        *error = std::string(path) + ": " + reason;
    }
    return scenario;
}

}  // namespace orla::emulation
