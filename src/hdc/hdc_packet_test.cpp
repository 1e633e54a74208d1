#include "hdc/hdc_packet.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "hdc/test_support.h"

namespace orla {
namespace {

using test::Segment;
using test::Text;

constexpr uint32_t kLimit = kMinMaxSegment - kSegmentOverhead;

std::vector<std::string> Cut(const std::string& message) {
    std::vector<std::string> segments;
    auto remaining = static_cast<uint32_t>(message.size());
    const char* payload = message.data();
    while (remaining > 0) {
        std::string buffer(std::min(remaining, kLimit) + kSegmentOverhead, '\0');
        auto* segment = reinterpret_cast<IdeHdcPacket*>(buffer.data());
        const uint32_t taken = CutSegment(payload, remaining, kLimit, segment);
        segments.push_back(buffer);
        payload += taken;
        remaining -= taken;
    }
    return segments;
}

TEST(Segments, HeaderBytesAreTheWireFormat) {
    std::string buffer(2 + kSegmentOverhead, '\0');
    EXPECT_EQ(2u, CutSegment("ab", 2, kLimit, reinterpret_cast<IdeHdcPacket*>(buffer.data())));
    EXPECT_EQ(std::string("\2\0\0\0\xB0\0\0\0\1ab\0\0\0", 14), buffer);
}

TEST(Segments, EveryLengthAroundTheLimitComesBack) {
    struct Case {
        uint32_t length;
        std::vector<uint32_t> payloads;
    };
    const Case cases[] = {{1, {1}},
                          {kLimit - 1, {kLimit - 1}},
                          {kLimit, {kLimit}},
                          {kLimit + 1, {kLimit, 1}},
                          {2 * kLimit, {kLimit, kLimit}},
                          {2 * kLimit + 5, {kLimit, kLimit, 5}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.length);
        const std::string message = Text(c.length);
        const auto segments = Cut(message);
        ASSERT_EQ(c.payloads.size(), segments.size());
        MessageJoiner joiner(kCoreSide);
        for (size_t i = 0; i < segments.size(); ++i) {
            EXPECT_EQ(c.payloads[i] + kSegmentOverhead, segments[i].size());
            EXPECT_FALSE(joiner.finished());
            EXPECT_TRUE(joiner.Add(segments[i].data(), static_cast<uint32_t>(segments[i].size())));
        }
        ASSERT_TRUE(joiner.finished());
        uint32_t length = 0;
        const HeapBlock joined = joiner.Take(&length);
        ASSERT_NE(nullptr, joined);
        EXPECT_EQ(message, std::string(joined.get(), length));
    }
}

TEST(Segments, ForeignBytesAreRefused) {
    const struct {
        const char* name;
        std::string bytes;
        bool taken;
    } cases[] = {
        {"shorter than a header", std::string(8, '\0'), false},
        {"another type", Segment("a", 1, 1, 175), false},
        {"type in the upper bytes", Segment("a", 1, 1, 176 + 256), false},
        {"states one byte more than it has", Segment("a", 1, 2), false},
        {"states the largest length", Segment("a", 1, UINT32_MAX), false},
        {"states what would wrap with the header", Segment("a", 1, UINT32_MAX - 8), false},
        {"no padding behind the payload", Segment("a", 1), true},
        {"more padding than usual", Segment("a" + std::string(50, 'x'), 1, 1), true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        MessageJoiner joiner(kCoreSide);
        EXPECT_EQ(c.taken, joiner.Add(c.bytes.data(), static_cast<uint32_t>(c.bytes.size())));
        EXPECT_EQ(c.taken, joiner.finished());
    }
}

TEST(Segments, OnlyOneEndsAMessage) {
    MessageJoiner joiner(kCoreSide);
    const std::string other = Segment("a", 0xFE);
    EXPECT_TRUE(joiner.Add(other.data(), static_cast<uint32_t>(other.size())));
    EXPECT_FALSE(joiner.finished());
    EXPECT_FALSE(joiner.untouched());
}

TEST(Segments, EmptySegmentsNeitherMakeAMessageNorGoOnForEver) {
    const std::string last = Segment("", 1);
    MessageJoiner empty(kCoreSide);
    ASSERT_TRUE(empty.Add(last.data(), static_cast<uint32_t>(last.size())));
    uint32_t length = 7;
    EXPECT_EQ(nullptr, empty.Take(&length));
    EXPECT_EQ(7u, length);

    const std::string more = Segment("", 0);
    MessageJoiner endless(kProfilingSide);
    int taken = 0;
    while (endless.Add(more.data(), static_cast<uint32_t>(more.size()))) {
        ASSERT_LT(++taken, 1000);
    }
    EXPECT_GT(taken, 0);
}

}  // namespace
}  // namespace orla
