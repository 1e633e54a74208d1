// For the tests of sampling: the records that a host got.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "profiling/datapath/transport_test_support.h"

namespace orla::test {

struct Record {
    uint64_t time = 0;
    std::string data = {};
};
using Records = std::map<std::string, std::vector<Record>>;  // by file

// Every byte of `chunk` has to belong to a whole record that follows those in `records`. An index
// that is left out becomes a record without time and data.
inline void AppendRecords(const std::string& chunk, std::vector<Record>* records) {
    size_t at = 0;
    const auto field = [&chunk, &at](const std::string& label) {
        EXPECT_EQ(chunk.compare(at, label.size(), label), 0) << chunk.substr(at, 80);
        size_t digits = 0;
        const uint64_t value = std::stoull(chunk.substr(at + label.size(), 20), &digits);
        at += label.size() + digits;
        return value;
    };
    while (at < chunk.size() && !testing::Test::HasFailure()) {
        const uint64_t time = field("TimeStamp:");
        const size_t index = field("\nIndex:");
        ASSERT_GE(index, records->size());
        records->resize(index);
        const size_t length = field("\nDataLen:");
        ASSERT_LT(at + length + 1, chunk.size());
        EXPECT_EQ(chunk[at], '\n');
        EXPECT_EQ(chunk[at + 1 + length], '\n');
        records->push_back({time, chunk.substr(at + 1, length)});
        at += length + 2;
    }
}

inline Records RecordsOf(PacedHost& host) {
    Records records;
    for (const auto& chunk : ChunksOf(host)) {
        AppendRecords(chunk->chunk(), &records[chunk->filename()]);
    }
    return records;
}

}  // namespace orla::test
