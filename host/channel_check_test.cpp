// The checker finds each kind of fault, whatever the pieces that the bytes come in.
#include "host/channel_check.h"

#include <gtest/gtest.h>

#include <functional>
#include <vector>

namespace orla::host {
namespace {

using Records = std::vector<std::string>;

std::string Record(uint64_t sequence, uint64_t time, uint32_t start = 1) {
    emulation::ChannelRecord record{emulation::kChannelRecordMagic, 8, 0, sequence, time, start, 0};
    record.check = CheckOf(record);
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

struct Case {
    const char* name;
    std::function<void(Records*)> fault;
    uint64_t records, lost, doubled, reordered, damaged, clockBack;
};

class ChannelFault : public testing::TestWithParam<Case> {};

TEST_P(ChannelFault, IsFoundInPiecesOfAnySize) {
    Records records;
    for (uint64_t i = 0; i < 10; ++i) {
        records.push_back(Record(i, 100 + i));
    }
    GetParam().fault(&records);
    std::string bytes;
    for (const std::string& record : records) {
        bytes += record;
    }
    for (const size_t piece : {size_t{1}, size_t{31}, size_t{64}, bytes.size() + 1}) {
        ChannelCheck check;
        for (size_t at = 0; at < bytes.size(); at += piece) {
            check.Take(std::string_view(bytes).substr(at, piece));
        }
        check.Finish();
        ChannelCounts sum;
        for (const auto& [stream, counts] : check.streams()) {
            sum.records += counts.records;
            sum.lost += counts.lost;
            sum.doubled += counts.doubled;
            sum.reordered += counts.reordered;
            sum.clockBack += counts.clockBack;
        }
        const Case& wanted = GetParam();
        EXPECT_EQ(sum.records, wanted.records);
        EXPECT_EQ(sum.lost, wanted.lost);
        EXPECT_EQ(sum.doubled, wanted.doubled);
        EXPECT_EQ(sum.reordered, wanted.reordered);
        EXPECT_EQ(sum.clockBack, wanted.clockBack);
        EXPECT_EQ(check.damaged(), wanted.damaged);
        EXPECT_EQ(check.clean(), wanted.lost + wanted.doubled + wanted.reordered + wanted.damaged +
                                         wanted.clockBack ==
                                     0);
    }
}

INSTANTIATE_TEST_SUITE_P(
    ChannelCheck, ChannelFault,
    testing::Values(
        Case{"none", [](Records*) {}, 10, 0, 0, 0, 0, 0},
        Case{"lost", [](Records* r) { r->erase(r->begin() + 3, r->begin() + 6); }, 7, 3, 0, 0, 0,
             0},
        Case{"lost_at_front", [](Records* r) { r->erase(r->begin()); }, 9, 1, 0, 0, 0, 0},
        Case{"doubled", [](Records* r) { r->push_back((*r)[4]); }, 11, 0, 1, 0, 0, 0},
        Case{"swapped", [](Records* r) { std::swap((*r)[4], (*r)[5]); }, 10, 0, 0, 1, 0, 0},
        Case{"late_and_again",
             [](Records* r) {
                 std::rotate(r->begin() + 2, r->begin() + 4, r->begin() + 7);
                 r->push_back(Record(3, 0));
             },
             11, 0, 1, 2, 0, 0},
        Case{"bit_flipped", [](Records* r) { (*r)[4][9] ^= 1; }, 9, 1, 0, 0, 1, 0},
        Case{"bytes_missing", [](Records* r) { (*r)[4].erase(5, 7); }, 9, 1, 0, 0, 1, 0},
        Case{"bytes_too_many", [](Records* r) { (*r)[4] += "ORRC!"; }, 10, 0, 0, 0, 1, 0},
        Case{"cut_off", [](Records* r) { r->back().resize(31); }, 9, 0, 0, 0, 1, 0},
        Case{"clock_falls", [](Records* r) { (*r)[4] = Record(4, 1); }, 10, 0, 0, 0, 0, 1},
        Case{"second_start", [](Records* r) { r->push_back(Record(0, 1, 2)); }, 11, 0, 0, 0, 0, 0}),
    [](const auto& one) { return one.param.name; });

}  // namespace
}  // namespace orla::host
