// The byte format of the emulated channel on its Unix socket, for the end that writes it and the
// end that reads it. docs/emulation.md gives the same to clients in other languages.
//
//   client -> server, once       hello     | magic "OHDC" | version | run env | vf id | pid | 0 |
//   both directions, after that  frame     | length | bytes, exactly one driver buffer |
//
// All numbers are unsigned, 32 bits, little-endian, which is how the supported processors
// store them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace orla::emulation {

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "integers travel as they are stored");

constexpr char kHelloMagic[4] = {'O', 'H', 'D', 'C'};
constexpr uint32_t kHelloVersion = 1;

struct Hello {
    char magic[4];
    uint32_t version;
    uint32_t runEnvironment;  // 1 physical, 2 container, 3 virtual, 4 container in it
    uint32_t virtualFunction;
    uint32_t pid;       // 0: the process that the socket's peer credentials name
    uint32_t reserved;  // 0

    [[nodiscard]] bool Valid() const {
        return std::memcmp(magic, kHelloMagic, sizeof(magic)) == 0 && version == kHelloVersion &&
               reserved == 0;
    }
};
static_assert(sizeof(Hello) == 24 && offsetof(Hello, version) == 4 &&
              offsetof(Hello, runEnvironment) == 8 && offsetof(Hello, virtualFunction) == 12 &&
              offsetof(Hello, pid) == 16 && offsetof(Hello, reserved) == 20);

struct FrameHeader {
    uint32_t length;  // 1 to the maximum segment
};
static_assert(sizeof(FrameHeader) == 4);

}  // namespace orla::emulation
