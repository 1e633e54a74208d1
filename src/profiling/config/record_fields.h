// A record's fields as one table, and the three things that are done with a table: writing a
// record to JSON, reading it from JSON, comparing two. A record has its table in its own source
// and calls these from ToObject, FromObject and operator==.
//
//     constexpr RecordField<Point> kFields[] = {{"x", &Point::x, 0}, {"name", &Point::name, ""}};
#pragma once

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <string>
#include <type_traits>
#include <variant>

namespace analysis::nedra::message {

// What a field of each type is given when its key is missing, in a form that a table can hold.
template <typename T>
using AbsentValue = std::conditional_t<std::is_same_v<T, std::string>, const char*, T>;

// Takes a JSON value as the type of its field. False for any other type and for an integer that
// the field cannot hold: booleans and fractions are no integers, although the library converts
// them.
inline bool TakeValue(const nlohmann::json& value, std::string& out) {
    const auto* text = value.get_ptr<const std::string*>();
    if (text != nullptr) {
        out = *text;
    }
    return text != nullptr;
}

template <typename Integer>
bool TakeValue(const nlohmann::json& value, Integer& out) {
    if (!value.is_number_integer()) {
        return false;
    }
    using Limits = std::numeric_limits<Integer>;
    // The library keeps a number of either sign as signed when a program or "-0" made it.
    const bool isNegative = !value.is_number_unsigned() && value.get<int64_t>() < 0;
    const bool fits = isNegative ? value.get<int64_t>() >= int64_t{Limits::min()}
                                 : value.get<uint64_t>() <= uint64_t{Limits::max()};
    if (fits) {
        out = value.get<Integer>();
    }
    return fits;
}

[[noreturn]] inline void RefuseValue(const char* what, const nlohmann::json& value) {
    constexpr int kTypeMismatch = 302;  // the library's number for it
    throw nlohmann::json::type_error::create(
        kTypeMismatch, std::string(what) + " has a wrong type or range: " + value.type_name(),
        &value);
}

template <typename Record>
class RecordField {
public:
    template <typename T>
    constexpr RecordField(const char* key, T Record::*member, AbsentValue<T> absent)
        : key_(key), slot_(Slot<T>{member, absent}) {}

    void Write(const Record& record, nlohmann::json& object) const {
        std::visit([&](const auto& slot) { object[key_] = record.*slot.member; }, slot_);
    }

    void Read(const nlohmann::json::object_t& object, Record& record) const {
        const auto found = object.find(key_);
        std::visit(
            [&](const auto& slot) {
                auto& member = record.*slot.member;
                if (found == object.end()) {
                    member = slot.absent;
                } else if (!TakeValue(found->second, member)) {
                    RefuseValue(key_, found->second);
                }
            },
            slot_);
    }

    bool IsSame(const Record& left, const Record& right) const {
        return std::visit([&](const auto& slot) { return left.*slot.member == right.*slot.member; },
                          slot_);
    }

private:
    template <typename T>
    struct Slot {
        T Record::*member;
        AbsentValue<T> absent;
    };

    const char* key_;
    std::variant<Slot<std::string>, Slot<int32_t>, Slot<uint64_t>> slot_;
};

template <typename Record, size_t N>
void WriteFields(const RecordField<Record> (&fields)[N], const Record& record,
                 nlohmann::json& object) {
    for (const auto& field : fields) {
        field.Write(record, object);
    }
}

// Fields are read in the order of the table. Throws the library's type error for a value that its
// field does not take, and for what is no object.
template <typename Record, size_t N>
void ReadFields(const RecordField<Record> (&fields)[N], const nlohmann::json& object,
                Record& record) {
    const auto* members = object.get_ptr<const nlohmann::json::object_t*>();
    if (members == nullptr) {
        RefuseValue("the record", object);
    }
    for (const auto& field : fields) {
        field.Read(*members, record);
    }
}

template <typename Record, size_t N>
bool SameFields(const RecordField<Record> (&fields)[N], const Record& left, const Record& right) {
    for (const auto& field : fields) {
        if (!field.IsSame(left, right)) {
            return false;
        }
    }
    return true;
}

}  // namespace analysis::nedra::message
