// A record's fields as one table, and the three things that are done with a table: writing a
// record to JSON, reading it from JSON, comparing two. A record has its table in its own source
// and calls these from ToObject, FromObject and operator==.
//
//     constexpr RecordField<Point> kFields[] = {{"x", &Point::x, 0}, {"name", &Point::name, ""}};
#pragma once

#include <cstdint>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <variant>

namespace analysis::nedra::message {

// What a field of each type is given when its key is missing, in a form that a table can hold.
template <typename T>
using AbsentValue = std::conditional_t<std::is_same_v<T, std::string>, const char*, T>;

// A JSON value as the type of its field. Throws for any other type and for an integer that the
// field cannot hold: booleans and fractions are no integers, although the library converts them.
template <typename T>
T TakeValue(const nlohmann::json& value) {
    if constexpr (std::is_same_v<T, std::string>) {
        return value.get_ref<const std::string&>();
    } else {
        using Limits = std::numeric_limits<T>;
        const auto number = value.get_ref<const nlohmann::json::number_integer_t&>();
        const bool fits = value.is_number_unsigned()
                              ? value.get<uint64_t>() <= uint64_t{Limits::max()}
                              : number >= int64_t{Limits::min()} && number < 0;
        if (!fits) {
            throw std::out_of_range("integer " + value.dump() + " does not fit its field");
        }
        return value.get<T>();
    }
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
        std::visit([&](const auto& slot) { slot.Read(found, object.end(), record); }, slot_);
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

        template <typename Iterator>
        void Read(Iterator found, Iterator end, Record& record) const {
            record.*member = found == end ? T{absent} : TakeValue<T>(found->second);
        }
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

// Fields are read in the order of the table. Throws as TakeValue, and for what is no object.
template <typename Record, size_t N>
void ReadFields(const RecordField<Record> (&fields)[N], const nlohmann::json& object,
                Record& record) {
    const auto& members = object.get_ref<const nlohmann::json::object_t&>();
    for (const auto& field : fields) {
        field.Read(members, record);
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
