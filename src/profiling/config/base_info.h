// The JSON records that ride in protobuf text fields: their common base. A record is a plain
// value; it is owned by the thread that made it, or shared and unchanged from then on.
//
// The text of a record has its keys in byte order and no white space, and is always UTF-8:
// whatever is not comes out as U+FFFD, so that a bad text in one field never holds back an
// answer.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace analysis::nedra::message {

class BaseInfo {
public:
    virtual ~BaseInfo() = default;

    // Writes all fields into `object`, a JSON object or null.
    virtual void ToObject(nlohmann::json& object) const = 0;
    // Reads all fields. A key that is missing gives the field's absent value, an unknown one is
    // ignored. Throws when `object` is no object or a value has another type than its field;
    // the fields read before that keep what was read.
    virtual void FromObject(const nlohmann::json& object) = 0;
    // The name for log lines.
    virtual std::string GetClassName() const { return "BaseInfo"; }

    [[nodiscard]] std::string ToString() const;
    // Reads the record from a text. False for an empty text, and with one log line for a text
    // that cannot be read; the record is then partly filled and must be dropped.
    [[nodiscard]] bool FromString(const std::string& text);

protected:
    BaseInfo() = default;
    BaseInfo(const BaseInfo&) = default;
    BaseInfo(BaseInfo&&) = default;
    BaseInfo& operator=(const BaseInfo&) = default;
    BaseInfo& operator=(BaseInfo&&) = default;
};

}  // namespace analysis::nedra::message
