// The SysV message queue between the log level service and the local log daemon, which makes and
// owns it. The service, and whatever stands in for the log daemon, use these; a message is the
// same in both directions, and the receiver picks its own by their type.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>

constexpr key_t kSlogdQueueKey = 0x474F4C44;
constexpr long kSlogdRequest = 1;  // `type` of what goes to the log daemon
constexpr long kSlogdReply = 2;    // and of its answer

// What of a message travels, in every msgsnd and msgrcv: the device id and this much of the text.
constexpr size_t kSlogdTextSize = 1020;
constexpr size_t kSlogdTransferSize = sizeof(uint32_t) + kSlogdTextSize;

// A message as the queue's calls take it. The last 8 bytes never travel: zero, they end a text
// of full length.
struct SlogdMessage {
    long type;
    uint32_t deviceId;  // of a request: physical id; of a reply: without meaning
    char text[kSlogdTextSize + 8];
};
static_assert(sizeof(SlogdMessage) == 1040 && offsetof(SlogdMessage, deviceId) == 8 &&
              offsetof(SlogdMessage, text) == 12 && kSlogdTransferSize == 1024);
