// The two numbers of a device. Logical ids are what the driver enumerates and listens on;
// physical ids name the chip and stay when the logical numbering changes. These operations
// translate; they ask the driver anew on every call, so that a device which is away fails and
// one that came back is found under the id that it has then. No state; any thread.
//
// All return 0 on success and -1 on failure, with a log line of the core.
#pragma once

#include <cstdint>

constexpr uint32_t kMaxDevices = 1124;  // entries of every device list, of this system's making
constexpr uint32_t kMaxDriverIds = 64;  // ids that the driver fills in one query

// Logical ids of the devices that are up. `devNum` gets the driver's count as it is: callers
// check that it lies in 1..1124, since for any other `list` is untouched. At most the first 64
// entries are filled. `list` has `len` entries, which must be 1124, zeroed by the caller.
[[nodiscard]] int IdeGetDevList(uint32_t* devNum, uint32_t* list, uint32_t len);

// The same with physical ids. `devNum` gets the number of ids in the list: the driver's count,
// but 64 when the driver has more than that and not above 1124, since only 64 have ids. A
// count above 1124 is handed on, without ids. On failure the list may be filled in part.
[[nodiscard]] int IdeGetPhyDevList(uint32_t* devNum, uint32_t* list, uint32_t len);

// The logical id of a physical id. Fails, with `logId` untouched, when no device that is up has
// that id (in silence) or one of them can't be translated.
[[nodiscard]] int IdeGetLogIdByPhyId(uint32_t phyId, uint32_t* logId);
