// The configuration of the log side in memory: the items of one "slog.conf" as a list of name
// and value pairs. Items go to the head, so that of a name that stands twice the later line
// wins. A missing or unreadable file leaves the list empty, and every reader at its default.
//
// The list is filled on the main thread before any reader exists (LogPathInit) and freed when
// the log component ends; lookups take a mutex that exists in between, and outside of that time
// find nothing.
#pragma once

#include <cstddef>
#include <cstdint>

#include "log/cfg_file_parse.h"

struct LogConfItem {
    char name[64];     // at most 62 characters
    char value[1024];  // at most 1022 characters
    LogConfItem* next;
};

// What the list answers, besides 0 and the codes of reading.
constexpr int kLogConfBadArgument = 1;
constexpr int kLogConfSeekFailed = 15;
constexpr int kLogConfNotFound = 21;
constexpr int kLogConfMutexFailed = 51;

// Finds the file (the default one, else "slog.conf" beside the executable) and fills the list.
// 0, or -1 when there is none that can be read. Main thread only. Tells its trouble in finding
// the file on standard output.
[[nodiscard]] int LogConfInit();

// Reads `path` into the list, in front of what it holds; null means the default file. 0, though
// single lines may have been refused, kConfigOpenFailed, kLogConfSeekFailed or
// kLogConfMutexFailed. Takes no lock.
[[nodiscard]] int LogConfListInit(const char* path);

// Copies the value of `name` into `value`. `nameLength` is at most 63, `valueSize` at most 1023
// bytes. 0, kLogConfBadArgument, kConfigCopyFailed (`value` is empty then) or kLogConfNotFound
// (`value` is unchanged).
[[nodiscard]] int LogConfListGetValue(const char* name, size_t nameLength, char* value,
                                      uint32_t valueSize);

// Replaces the list by what `path` holds, under the mutex. Results as LogConfListInit.
[[nodiscard]] int LogConfListUpdate(const char* path);

// Calls `callback(item, argument)` for each item from the head, under the mutex, until one gives
// a result other than 0, which is handed on. -1 for a null `callback`, which must not call back
// into the list.
using LogConfCallback = int (*)(const LogConfItem* item, void* argument);
[[nodiscard]] int LogConfListForEach(LogConfCallback callback, void* argument);

// Frees the items and the mutex.
void LogConfListFree();

// The value of "zip_switch", 0 or 1. A missing or illegal one leaves the value before, 0 at
// first.
[[nodiscard]] uint32_t LogConfGetZipSwitch();
