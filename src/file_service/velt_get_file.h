// The component that hands a device's log and dump files to the host, request type 14 of
// service type 12. One request names a type of files; the answer is each of its files, name and
// content, and an end message:
//
//     host    data            "slog"
//     device  data, status 6  "/device-0/a.log\0"       for each file
//             data, status 0  content, in slices
//     host    control, 6      acknowledgement
//     device  data, status 6  "game_over\0"
//
// Where the files come from and how they are made ready is told in device_files.h. A file that
// breaks off, or whose copy came out short, is followed by a control message of status 4, and the
// next file. When the session has gone the rest is left, and nothing is copied any more.
#pragma once

#include "server/velt_component.h"

class VeltGetFile final : public Velt::VeltComponent {
public:
    int Init() override { return 0; }
    std::string GetName() override { return "TransferFile"; }
    int32_t GetType() override { return Velt::kComponentFile; }
    // Serves one request; blocks while the host reads and acknowledges. 0 when the end message,
    // or a refusal, went out; -1 when the host gets nothing or not all of it.
    int Process(const Velt::CommHandle& session,
                const std::shared_ptr<Velt::MsgProto>& message) override;
    int UnInit() override { return 0; }
};
