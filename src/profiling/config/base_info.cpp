#include "profiling/config/base_info.h"

#include <exception>

#include "hdc/log_side.h"
#include "profiling/config/bounded_json.h"

namespace analysis::nedra::message {

using nlohmann::json;

std::string BaseInfo::ToString() const {
    json object = json::object();
    ToObject(object);
    return object.dump(-1, ' ', false, json::error_handler_t::replace);
}

bool BaseInfo::FromString(const std::string& text) {
    if (text.empty()) {
        return false;
    }
    try {
        FromObject(ParseBoundedJson(text));
        return true;
    } catch (const std::exception& e) {
        PROF_LOGE("%s ::FromString(): %s", GetClassName().c_str(), e.what());
        return false;
    }
}

}  // namespace analysis::nedra::message
