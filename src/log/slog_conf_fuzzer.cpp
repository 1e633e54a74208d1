// "slog.conf" is written by people and tools: any bytes may stand in it. The bytes go through
// the line reader, on a stream in memory, and each line through the parser; nothing is logged.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "log/cfg_file_parse.h"

namespace {

void Check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

void CheckItem(const char* name, const char* value) {
    const size_t nameLength = strnlen(name, kConfigNameLimit);
    const size_t valueLength = strnlen(value, kConfigValueLimit);
    Check(nameLength > 0 && nameLength < kConfigNameLimit && name[nameLength - 1] != ' ');
    Check(valueLength > 0 && valueLength < kConfigValueLimit);
    Check(std::strpbrk(value, "#\t") == nullptr && value[valueLength - 1] != ' ');
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    struct Close {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    const std::unique_ptr<std::FILE, Close> file(
        fmemopen(const_cast<uint8_t*>(data), size, "r"));  // opened for reading only
    Check(file != nullptr);
    // Exactly as large as promised, on the heap, so that an overrun is seen.
    const auto line = std::make_unique<char[]>(kConfigLineSize);
    const auto name = std::make_unique<char[]>(kConfigNameLimit);
    const auto value = std::make_unique<char[]>(kConfigValueLimit);
    while (NextConfigLine(file.get(), line.get(), kConfigLineSize)) {
        int error = 0;
        if (ParseConfigLine(line.get(), name.get(), value.get(), &error) == ConfigLine::kAccepted) {
            CheckItem(name.get(), value.get());
        }
    }
    return 0;
}
