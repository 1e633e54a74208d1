// JSON from outside, parsed on threads with small stacks: what is too long, or is nested without
// end, is refused before it costs the memory of a parsed tree, or the stack of those who walk it.
#pragma once

#include <nlohmann/json.hpp>
#include <string_view>

namespace analysis::nedra::message {

constexpr size_t kMaxJsonLength = 1024 * 1024;  // bytes; a tree takes some 30 times as many
constexpr size_t kMaxJsonNesting = 32;          // objects and arrays within each other

// The JSON of `text`; comments are not allowed. Takes time in proportion to its length. Throws a
// std::exception that says why for a text that is no JSON, is not UTF-8, is longer than
// kMaxJsonLength or is nested deeper than kMaxJsonNesting. Any thread.
[[nodiscard]] nlohmann::json ParseBoundedJson(std::string_view text);

}  // namespace analysis::nedra::message
