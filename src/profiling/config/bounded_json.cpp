#include "profiling/config/bounded_json.h"

#include <stdexcept>

namespace analysis::nedra::message {

using nlohmann::json;

namespace {

// The parser asks this at every step. `depth` counts what is open around the step.
bool RefuseDeepNesting(int depth, json::parse_event_t event, json& /*parsed*/) {
    const bool opens =
        event == json::parse_event_t::object_start || event == json::parse_event_t::array_start;
    if (opens && depth >= kMaxJsonNesting) {
        throw std::length_error("JSON is nested too deep");
    }
    return true;
}

}  // namespace

json ParseBoundedJson(std::string_view text) {
    return json::parse(text, RefuseDeepNesting);
}

}  // namespace analysis::nedra::message
