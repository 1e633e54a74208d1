// The modules of the platform that have a log level of their own: upper-case short name and
// numeric id. The configuration may name each of them, and so may a command to the log daemon.
// Constant data; any thread.
#pragma once

#include <cstring>

namespace orla {

struct LogModule {
    const char* name;
    int id;
};

// In the order of their ids; the empty row ends the table.
inline constexpr LogModule kLogModules[] = {
    {"SYSTEM", 0},    {"CORE", 1},        {"DRIVER", 2},       {"RUNTIME", 3},    {"FIRMWARE", 4},
    {"BOOT", 5},      {"KERNEL", 6},      {"MEMORY", 7},       {"CACHE", 8},      {"POWER", 9},
    {"CLOCK", 10},    {"THERMAL", 11},    {"SENSOR", 12},      {"PCIE", 13},      {"DMA", 14},
    {"NETWORK", 15},  {"LINK", 16},       {"STORAGE", 17},     {"FILE", 18},      {"UPGRADE", 19},
    {"SECURITY", 20}, {"AUTH", 21},       {"CRYPTO", 22},      {"LICENSE", 23},   {"SCHEDULER", 24},
    {"TASK", 25},     {"QUEUE", 26},      {"EVENT", 27},       {"STREAM", 28},    {"CONTEXT", 29},
    {"TRACE", 30},    {"PROFILER", 31},   {"DUMP", 32},        {"DEBUG", 33},     {"MONITOR", 34},
    {"HEALTH", 35},   {"FAULT", 36},      {"RECOVERY", 37},    {"CHANNEL", 38},   {"TRANSFER", 39},
    {"COMPILER", 40}, {"LOADER", 41},     {"GRAPH", 42},       {"OPERATOR", 43},  {"KERNELLIB", 44},
    {"TENSOR", 45},   {"MATH", 46},       {"VECTOR", 47},      {"MATRIX", 48},    {"QUANT", 49},
    {"TRAINING", 50}, {"INFERENCE", 51},  {"MODEL", 52},       {"DATASET", 53},   {"PREPROC", 54},
    {"IMAGE", 55},    {"VIDEO", 56},      {"AUDIO", 57},       {"CODEC", 58},     {"CAMERA", 59},
    {"DISPLAY", 60},  {"COLLECTIVE", 61}, {"CLUSTER", 62},     {"CONTAINER", 63}, {"VIRTUAL", 64},
    {"SERVICE", 65},  {"TOOL", 66},       {"APPLICATION", 67}, {"OTHER", 68},     {nullptr, -1},
};

// The row of that name, or null. Names are compared as written.
inline const LogModule* FindLogModule(const char* name) {
    for (const LogModule* module = kLogModules; module->name != nullptr; ++module) {
        if (std::strcmp(module->name, name) == 0) {
            return module;
        }
    }
    return nullptr;
}

}  // namespace orla
