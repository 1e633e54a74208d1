// "slog.conf" is written by people and tools: any bytes may stand in it. The bytes go through
// the line reader, on a stream in memory, and each line through the parser; nothing is logged.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "log/cfg_file_parse.h"

namespace {

bool IsSound(const char* name, const char* value) {
    const size_t nameLength = strnlen(name, kConfigNameLimit);
    const size_t valueLength = strnlen(value, kConfigValueLimit);
    return nameLength > 0 && nameLength < kConfigNameLimit && name[nameLength - 1] != ' ' &&
           valueLength > 0 && valueLength < kConfigValueLimit && value[valueLength - 1] != ' ' &&
           std::strpbrk(value, "#\t") == nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::FILE* const file = fmemopen(const_cast<uint8_t*>(data), size, "r");
    if (file == nullptr) {
        return 0;  // of no bytes there is no stream
    }
    // Exactly as large as promised, on the heap, so that an overrun is seen.
    std::vector<char> line(kConfigLineSize), name(kConfigNameLimit), value(kConfigValueLimit);
    for (int error = 0; NextConfigLine(file, line.data(), kConfigLineSize); error = 0) {
        if (ParseConfigLine(line.data(), name.data(), value.data(), &error) ==
                ConfigLine::kAccepted &&
            !IsSound(name.data(), value.data())) {
            std::abort();
        }
    }
    std::fclose(file);
    return 0;
}
