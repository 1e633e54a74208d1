// The input is a stream of driver buffers, each behind a 2-byte length: whatever they hold, the
// joiner takes or refuses them, and hands out no more bytes than it was given.
#include <cstdlib>

#include "hdc/hdc_packet.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    orla::MessageJoiner joiner(orla::kCoreSide);
    size_t offset = 0;
    while (offset + 2 <= size && !joiner.finished()) {
        const size_t wanted = data[offset] | (data[offset + 1] << 8);
        offset += 2;
        const size_t length = wanted < size - offset ? wanted : size - offset;
        if (!joiner.Add(reinterpret_cast<const char*>(data + offset),
                        static_cast<uint32_t>(length))) {
            return 0;
        }
        offset += length;
    }
    uint32_t length = 0;
    const orla::HeapBlock message = joiner.Take(&length);
    if (message != nullptr && length > size) {
        std::abort();
    }
    return 0;
}
