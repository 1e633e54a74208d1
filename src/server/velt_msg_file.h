// Files over a session of the framework: the content as a series of data messages, and the
// peer's acknowledgement behind it.
//
//     this side   data, status 0, totalLen N, offset 0, sliceLen 512000 at most
//                 … until offset + sliceLen is N; a file of 0 bytes is one message
//     peer        control, status 6 (or whatever else: the sender doesn't mind)
//
// The sender uses one block for all slices and never holds a file in memory. All operations
// answer a MsgResult, block for as long as the peer takes, and leave the descriptor open.
#pragma once

#include <cstdint>

#include "hdc/velt_packet.h"
#include "server/velt_comm_opt.h"

namespace Velt {

// Sends a file of less than 4 GiB from its first byte on, as long as it is at the start. kMsgOk
// whatever the acknowledgement said; kMsgFailed when it can't be read up to that size, the end
// having moved included, or is too long.
[[nodiscard]] int SendFile(const CommHandle& session, uint16_t type, uint16_t devId, int fd);

// Sends a file of the driver's, whose size can't be learned by seeking, with one read of at
// most 512000 bytes. A read that fails with EIO counts as an empty file.
[[nodiscard]] int SendEventFile(const CommHandle& session, uint16_t type, uint16_t devId, int fd);

// Receives a file into a descriptor and acknowledges it. A control message from the peer ends
// the file early, with kMsgOk.
[[nodiscard]] int RecvFile(const CommHandle& session, int fd);

}  // namespace Velt
