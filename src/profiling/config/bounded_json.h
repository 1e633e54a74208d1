// JSON from outside, parsed on threads with small stacks: what is nested without end is refused
// while it is parsed, before it costs memory for its depth or a stack for those who walk it.
#pragma once

#include <nlohmann/json.hpp>
#include <string_view>

namespace analysis::nedra::message {

constexpr int kMaxJsonNesting = 32;  // objects and arrays within each other

// The JSON of `text`; comments are not allowed. Throws a std::exception that says why for a text
// that is no JSON, is not UTF-8, or is nested deeper than kMaxJsonNesting. Any thread.
[[nodiscard]] nlohmann::json ParseBoundedJson(std::string_view text);

}  // namespace analysis::nedra::message
