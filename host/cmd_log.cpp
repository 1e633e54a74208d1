// orlactl log: sends one command text to the log daemon of each device and prints the answer.
#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "hdc/hdc_api.h"
#include "host/commands.h"
#include "host/device_session.h"
#include "host/exit_codes.h"
#include "host/limits.h"
#include "host/terminal_text.h"

namespace orla::host {

namespace {

constexpr const char* kEndMarker = "###[HDC_MSG]hdc_end_msg_used_by_framework###";
constexpr const char* kSetDone = "++OK++";
constexpr const char* kQueryMark = "[event]";
constexpr size_t kTextOfLogDaemon = 1020;  // what the relay carries to the log daemon

// With a log daemon that never answers a relay takes 0.9 s for each request, one after another:
// enough for 30 hosts at once.
constexpr auto kPatience = std::chrono::seconds(30);

struct Answer {
    uint32_t device;
    ExitCode code;
    std::string text;  // the device's own words, or why there are none
};

bool IsRefusal(const std::string& text) {
    return text != kSetDone && text.find(kQueryMark) == std::string::npos;
}

// Everything up to the end marker, or up to the end of a session that was refused as a whole.
Answer Collect(Session& session, uint32_t device) {
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    std::string text;
    while (true) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        std::string message;
        switch (session.Receive(std::max<int>(0, static_cast<int>(left.count())), &message)) {
            case ReceiveResult::kMessage:
                if (message == kEndMarker) {
                    text = text.empty() ? "an empty answer" : text;
                    return {device, IsRefusal(text) ? kExitRefused : kExitOk, text};
                }
                text += message;
                if (text.size() > limits::kLogAnswer) {
                    return {device, kExitConnection, "an answer without an end"};
                }
                break;
            case ReceiveResult::kClosed:
                return text.empty() ? Answer{device, kExitConnection, "no answer"}
                                    : Answer{device, kExitRefused, text};
            case ReceiveResult::kTimeout:
                return {device, kExitConnection, "no end of the answer in time"};
            case ReceiveResult::kFailed:
                return {device, kExitConnection, "the session broke"};
        }
    }
}

Answer AskDevice(const Client& client, uint32_t device, const std::string& text) {
    const auto session = client.Connect(device);
    if (session == nullptr) {
        return {device, kExitConnection, "no daemon listens on this device"};
    }
    if (!session->SendRequest(kRequestLog, text)) {
        return {device, kExitConnection, "the request could not be sent"};
    }
    return Collect(*session, device);
}

void PrintText(const std::vector<Answer>& answers) {
    for (const Answer& answer : answers) {
        // With one device the answer stands alone, so that a script can use it as it is.
        const std::string prefix =
            answers.size() > 1 ? fmt::format("device {}: ", answer.device) : "";
        if (answer.code == kExitOk) {
            Say("{}{}\n", prefix, PrintableLines(answer.text));
        } else {
            Complain("{}{}", prefix, PrintableLines(answer.text));
        }
    }
}

void PrintJson(const std::vector<Answer>& answers) {
    auto list = nlohmann::ordered_json::array();
    for (const Answer& answer : answers) {
        list.push_back({{"device", answer.device}, {"code", answer.code}, {"text", answer.text}});
    }
    Say("{}\n", list.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

int RunLog(const CommonOptions& options, const std::string& text) {
    if (text.size() > kTextOfLogDaemon) {
        Complain("only {} bytes reach the log daemon; nothing was sent", kTextOfLogDaemon);
        return kExitUsage;
    }
    const auto devices = SelectDevices(options);
    if (devices.empty()) {
        return kExitConnection;
    }
    const auto client = Client::Create(kHdcServiceRequests, limits::kLogMessage);
    if (client == nullptr) {
        Complain("the driver gives no client");
        return kExitConnection;
    }
    std::vector<Answer> answers;
    for (const Device& device : devices) {
        answers.push_back(AskDevice(*client, device.logicalId, text));
    }
    options.json ? PrintJson(answers) : PrintText(answers);
    return std::max_element(answers.begin(), answers.end(),
                            [](const auto& a, const auto& b) { return a.code < b.code; })
        ->code;
}

}  // namespace

Command AddLogCommand(CLI::App& app, const CommonOptions& options) {
    auto* command = app.add_subcommand("log", "Send a command to the log daemon of each device");
    auto words = std::make_shared<std::vector<std::string>>();
    command->add_option("TEXT", *words, "The command, for example: get; help; set CORE debug")
        ->required();
    return [&options, words] { return RunLog(options, fmt::format("{}", fmt::join(*words, " "))); };
}

}  // namespace orla::host
