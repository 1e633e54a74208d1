// The input is the text of a tuning file. Whatever it holds, no number comes out of its range.
#include <cstdint>
#include <cstdlib>

#include "profiling/config/json_parser.h"

namespace {

void Require(bool condition) {
    if (!condition) {
        std::abort();
    }
}

bool IsZeroOrIn(uint32_t value, uint32_t min, uint32_t max) {
    return value == 0 || (value >= min && value <= max);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Tracelets::Parser::JsonParser parser;
    parser.Load({reinterpret_cast<const char*>(data), size}, "prof.json");
    for (uint32_t id = 0; id < 160; ++id) {
        Require(IsZeroOrIn(parser.GetChannelPeriod(id), 1, 1000));
        Require(IsZeroOrIn(parser.GetChannelBufSize(id), 0x100000, 0x400000));
        Require(IsZeroOrIn(parser.GetReportBufLen(id), 8192, 0x80000));
    }
    Require(IsZeroOrIn(parser.GetChannelThreshold(45), 10, 95));
    return 0;
}
