// orlactl check: whether the records of received channel files are all there, once and in order.
#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "host/channel_check.h"
#include "host/commands.h"
#include "host/exit_codes.h"
#include "host/terminal_text.h"

namespace orla::host {

namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kPiece = 1 << 20;

// False when the file cannot be read.
bool CheckFile(const std::string& name, ChannelCheck* check) {
    std::ifstream in(name, std::ios::binary);
    std::string piece(kPiece, '\0');
    while (in.read(piece.data(), kPiece) || in.gcount() > 0) {
        check->Take({piece.data(), static_cast<size_t>(in.gcount())});
    }
    check->Finish();
    return in.is_open() && !in.bad();
}

Json ToJson(const std::string& name, const ChannelCheck& check) {
    Json streams = Json::array();
    for (const auto& [stream, counts] : check.streams()) {
        streams.push_back({{"device", stream.device},
                           {"channel", stream.channel},
                           {"start", stream.start},
                           {"records", counts.records},
                           {"lost", counts.lost},
                           {"doubled", counts.doubled},
                           {"reordered", counts.reordered},
                           {"clock_back", counts.clockBack}});
    }
    return {{"file", name},
            {"clean", check.clean()},
            {"damaged", check.damaged()},
            {"streams", streams}};
}

void Print(const std::string& name, const ChannelCheck& check) {
    Say("{}: {}\n", Printable(name),
        check.clean()             ? "complete and in order"
        : check.streams().empty() ? "no records"
                                  : "not as it was sent");
    for (const auto& [stream, counts] : check.streams()) {
        Say("  device {}, channel {}, start {}: {} records, {} lost, {} doubled, {} reordered{}\n",
            stream.device, stream.channel, stream.start, counts.records, counts.lost,
            counts.doubled, counts.reordered,
            counts.clockBack > 0 ? fmt::format(", {} older than the one before", counts.clockBack)
                                 : "");
    }
    if (check.damaged() > 0) {
        Say("  {} damaged\n", check.damaged());
    }
}

int RunCheck(const CommonOptions& common, const std::vector<std::string>& files) {
    int code = kExitOk;
    Json list = Json::array();
    for (const std::string& file : files) {
        ChannelCheck check;
        if (!CheckFile(file, &check)) {
            Complain("{}: {}", Printable(file), std::strerror(errno));
            code = kExitUsage;  // whatever the others hold: the answer is not whole
            continue;
        }
        code = check.clean() || code == kExitUsage ? code : kExitIncomplete;
        if (common.json) {
            list.push_back(ToJson(file, check));
        } else {
            Print(file, check);
        }
    }
    if (common.json) {
        Say("{}\n", list.dump(2, ' ', false, Json::error_handler_t::replace));
    }
    return code;
}

}  // namespace

Command AddCheckCommand(CLI::App& app, const CommonOptions& common) {
    auto* command = app.add_subcommand(
        "check", "Check received channel files of a simulated driver, record by record");
    auto files = std::make_shared<std::vector<std::string>>();
    command->add_option("FILE", *files, "Files below the data folder of a profile")->required();
    return [&common, files] { return RunCheck(common, *files); };
}

}  // namespace orla::host
