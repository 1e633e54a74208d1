#include "profiling/config/bounded_json.h"

#include <algorithm>
#include <stdexcept>

namespace analysis::nedra::message {

using nlohmann::json;

namespace {

// How deep the brackets of `text` nest outside of its strings. Up to the first error in a text this
// sees the same brackets as the parser, which goes no further.
size_t CountNesting(std::string_view text) {
    size_t deepest = 0;
    size_t depth = 0;
    bool isInString = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (isInString && c == '\\') {
            ++i;
        } else if (c == '"') {
            isInString = !isInString;
        } else if (!isInString && (c == '{' || c == '[')) {
            deepest = std::max(deepest, ++depth);
        } else if (!isInString && (c == '}' || c == ']') && depth > 0) {
            --depth;
        }
    }
    return deepest;
}

}  // namespace

// The parser's callback, which could bound the nesting as well, makes the parser walk through all
// earlier members of an object or array at the end of each of them: its time is quadratic.
json ParseBoundedJson(std::string_view text) {
    if (text.size() > kMaxJsonLength) {
        throw std::length_error("JSON is too long");
    }
    if (CountNesting(text) > kMaxJsonNesting) {
        throw std::length_error("JSON is nested too deep");
    }
    return json::parse(text);
}

}  // namespace analysis::nedra::message
