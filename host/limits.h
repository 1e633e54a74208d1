// How much a device may make this tool hold, or write, in one place. What lies above is refused and
// told. Every figure is far above what a device has reason to send.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orla::host::limits {

// Messages of the sessions, in bytes. One is joined before it is looked at.
constexpr uint32_t kLogMessage = 1 << 20;   // of an answer, which has a few kB at most
constexpr uint32_t kPullMessage = 1 << 20;  // a slice has 512,000 bytes at most
constexpr size_t kLogAnswer = 1 << 20;      // all messages of one answer together

// One pull.
constexpr size_t kPulledFiles = 100'000;
constexpr size_t kControlMessages = 1000;  // in a row, with which a device says nothing

// One job: two files for each of more processes than a device has.
constexpr size_t kJobFiles = 200'000;
constexpr size_t kJobNames = 32u << 20;  // bytes of all their names together

// Names of files. No device nests deeper than a few levels.
constexpr size_t kName = 4096;  // bytes
constexpr size_t kNameParts = 8;

}  // namespace orla::host::limits
