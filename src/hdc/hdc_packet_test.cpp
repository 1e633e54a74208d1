#include "hdc/hdc_packet.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "hdc/test_support.h"

namespace orla {
namespace {

using test::Segment;

TEST(Segments, HeaderBytesAreTheWireFormat) {
    std::string buffer(2 + kSegmentOverhead, '\0');
    EXPECT_EQ(2u, CutSegment("ab", 2, 1012, reinterpret_cast<IdeHdcPacket*>(buffer.data())));
    EXPECT_EQ(std::string("\2\0\0\0\xB0\0\0\0\1ab\0\0\0", 14), buffer);
}

TEST(Segments, ForeignBytesAreRefused) {
    enum Answer { kRefused, kTaken, kFinished };
    const struct {
        const char* name;
        std::string bytes;
        Answer answer;
    } cases[] = {
        {"shorter than a header", std::string(8, '\0'), kRefused},
        {"another type", Segment("a", 1, 1, 175), kRefused},
        {"type in the upper bytes", Segment("a", 1, 1, 176 + 256), kRefused},
        {"states one byte more than it has", Segment("a", 1, 2), kRefused},
        {"states the largest length", Segment("a", 1, UINT32_MAX), kRefused},
        {"states what would wrap with the header", Segment("a", 1, UINT32_MAX - 8), kRefused},
        {"no padding behind the payload", Segment("a", 1), kFinished},
        {"more padding than usual", Segment("a" + std::string(50, 'x'), 1, 1), kFinished},
        {"another end mark", Segment("a", 0xFE), kTaken},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        MessageJoiner joiner(kCoreSide);
        EXPECT_EQ(c.answer != kRefused,
                  joiner.Add(c.bytes.data(), static_cast<uint32_t>(c.bytes.size())));
        EXPECT_EQ(c.answer == kFinished, joiner.finished());
        EXPECT_EQ(c.answer == kRefused, joiner.untouched());
    }
}

TEST(Segments, AMessageIsBoundedAndEndsInAZeroByte) {
    constexpr uint32_t kLimit = 3 * 1000;
    const std::string head = Segment(std::string(1000, 'h'), 0);
    const std::string longest = Segment(std::string(1000, 't'), 1);
    const std::string tooLong = Segment(std::string(1001, 't'), 1);
    for (const std::string& last : {longest, tooLong}) {
        MessageJoiner joiner(kCoreSide, kLimit);
        ASSERT_TRUE(joiner.Add(head.data(), static_cast<uint32_t>(head.size())));
        ASSERT_TRUE(joiner.Add(head.data(), static_cast<uint32_t>(head.size())));
        EXPECT_EQ(last == longest, joiner.Add(last.data(), static_cast<uint32_t>(last.size())));
        EXPECT_EQ(last == longest, joiner.finished());
        uint32_t length = 0;
        const HeapBlock message = joiner.Take(&length);
        EXPECT_EQ(last == longest ? kLimit : 2000u, length);
        EXPECT_EQ(length, std::strlen(message.get()));
    }
    MessageJoiner whole(kCoreSide);
    ASSERT_TRUE(whole.Add(longest.data(), static_cast<uint32_t>(longest.size())));
    EXPECT_FALSE(whole.Add(head.data(), static_cast<uint32_t>(head.size()))) << "of the next";
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
