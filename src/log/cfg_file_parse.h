// Reading "slog.conf", a text file of lines "name = value  # note". The work is cut in three, so
// that the parser can be driven without any file: opening a file, taking its lines that may hold
// an item, and parsing one such line. No state; any thread may call.
//
//     # comment                 skipped, and so is an empty line
//     global_level = debug      an item; blanks around name and value don't count
//     ERROR_NOTE = a b # note   inner blanks stay, the value ends at "#" or a tab
//     [section]                 a line with both brackets ends the file
#pragma once

#include <cstdint>
#include <cstdio>

constexpr uint32_t kConfigNameLimit = 63;     // of a name with its terminating zero
constexpr uint32_t kConfigValueLimit = 1023;  // of a value with its terminating zero
constexpr uint32_t kConfigLineSize = 1087;    // of a line with its terminating zero

extern const char kDefaultConfigFile[];

// What reading answers, besides 0.
constexpr int kConfigPathInvalid = 2;
constexpr int kConfigOpenFailed = 3;
constexpr int kConfigOutOfMemory = 4;
constexpr int kConfigCopyFailed = 7;
constexpr int kConfigValueEmpty = 18;
constexpr int kConfigValueCopyFailed = 20;
constexpr int kConfigRefused = 21;

// Opens the file for reading; null means the default file, and a leading "~" the user's home
// directory. The resolved path has to end in ".cfg", ".conf" or ".info", at the first place
// where that stands in it. `*file` is the caller's to close; null when the result is not 0:
// kConfigPathInvalid, kConfigOpenFailed or kConfigOutOfMemory, with a log line.
[[nodiscard]] int OpenConfigFile(const char* path, std::FILE** file);

// Takes the next line that may hold an item, without leading blanks, its line feed still there;
// a line longer than the limit comes in pieces. False at the end: of the file, or at the line
// with brackets. Skips what does not fit `size`, with a log line.
[[nodiscard]] bool NextConfigLine(std::FILE* file, char* item, uint32_t size);

// What became of a line.
enum class ConfigLine {
    kAccepted,
    kNoSymbol,  // no "="
    kNoName,    // nothing before it
    kNameTooLong,
    kTextTooLong,    // more behind it than a value may have
    kNothingBehind,  // nothing behind it, for a name that needs a value
    kValueEmpty,     // only a comment behind it, for a name that needs a value
    kValueTooLong,
    kWordTooLong,  // no room for the word that stands for an empty value
};

// Takes a line apart: `name` and `value` have room for kConfigNameLimit and kConfigValueLimit
// bytes. Pure: no logging, no allocation. Unless accepted, `value` has no meaning, and `name`
// has one from kTextTooLong on. `*error` is the error of the copy that failed, else 0.
[[nodiscard]] ConfigLine ParseConfigLine(const char* line, char* name, char* value, int* error);

// The same with its log lines and a result code: 0 or one of the above.
[[nodiscard]] int ParseConfigItem(const char* line, char* name, char* value);
