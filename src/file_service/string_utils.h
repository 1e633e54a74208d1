// Checks and small transformations of text that hosts and files supply. Pure functions.
#pragma once

#include <string>

// Non-empty and made of decimal digits only.
[[nodiscard]] bool IsValidDigit(const std::string& text);

// The last occurrence of `tail` lies exactly at the end.
[[nodiscard]] bool IsEndsWith(const std::string& text, const std::string& tail);

// `text` with every occurrence of `from` replaced, left to right, going on behind each `to`.
[[nodiscard]] std::string ReplaceAll(std::string text, const std::string& from,
                                     const std::string& to);

// Four groups of decimal digits, each at most 255, with dots between.
[[nodiscard]] bool IsValidIp(const std::string& text);

// Splits "host:port;host_id;host_pid". False, with a log line, unless both numbers are digits
// only; the out-values are then those found so far.
[[nodiscard]] bool ParsePrivateInfo(const std::string& info, std::string* hostId,
                                    std::string* hostPid);

// A word for a shell command that the shell reads as exactly `text`. Text of letters, digits
// and "_./-" stays as it is, so that ordinary commands read as people would type them; anything
// else is put in single quotes.
[[nodiscard]] std::string ShellWord(const std::string& text);
