// The input is a series of received messages, each behind a 2-byte length: whatever they hold,
// they are taken or refused, and no more bytes come out than came in.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include "server/scripted_comm_opt_test.h"
#include "server/velt_msg_file.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::deque<Velt::ScriptedCommOpt::Delivery> deliveries;
    size_t offset = 0;
    while (offset + 2 <= size) {
        const size_t wanted = data[offset] | (data[offset + 1] << 8);
        offset += 2;
        const size_t length = wanted < size - offset ? wanted : size - offset;
        deliveries.push_back({0, std::string(data + offset, data + offset + length)});
        offset += length;
    }
    const auto& peer = Velt::ScriptedCommOpt::Fresh(deliveries);
    const Velt::CommHandle session = peer.Session();
    std::string text;
    const int file = memfd_create("fuzz", MFD_CLOEXEC);
    while (!peer.deliveries.empty()) {
        static_cast<void>(Velt::RecvFile(session, file));
        static_cast<void>(Velt::RecvMsg(session, text));
        static_cast<void>(Velt::WaitResponse(session));
    }
    const off_t stored = lseek(file, 0, SEEK_END);
    close(file);
    if (text.size() > size || stored > static_cast<off_t>(size)) {
        std::abort();
    }
    return 0;
}
