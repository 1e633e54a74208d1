// The bounds-checked functions at their bounds.
#include <gtest/gtest.h>
#include <secure_c.h>

#include <algorithm>
#include <cerrno>
#include <string>

namespace {

constexpr size_t kTooLarge = 0x80000000;
constexpr size_t kWhole = 12345;  // stands for the form without a count
constexpr int kOverlap = 128 + EINVAL;
constexpr char kDigits[] = "0123456789";

// Eight bytes of destination that start as "ab", with guards around them.
struct Guarded {
    char front[4] = {'#', '#', '#', '#'};
    char dest[8] = {'a', 'b', 0, 'c', 'd', 'e', 'f', 'g'};
    char back[4] = {'#', '#', '#', '#'};
    std::string Bytes() const {
        EXPECT_EQ(std::string(front, 4) + std::string(back, 4), "########");
        return std::string(dest, 8);
    }
};

int Copy(char* dest, size_t max, const char* source, size_t count) {
    return memcpy_s(dest, max, source, count);
}
int Set(char* dest, size_t max, const char*, size_t count) {
    return memset_s(dest, max, 'x', count);
}
int CopyText(char* dest, size_t max, const char* source, size_t count) {
    return count == kWhole ? strcpy_s(dest, max, source) : strncpy_s(dest, max, source, count);
}
int Append(char* dest, size_t max, const char* source, size_t count) {
    return count == kWhole ? strcat_s(dest, max, source) : strncat_s(dest, max, source, count);
}

TEST(Secure, FitsOrIsRefusedWithTheDestinationCleared) {
    const std::string old("ab\0cdefg", 8), zeros(8, '\0');
    const char unended[3] = {'x', 'y', 'z'};
    const struct {
        decltype(&Copy) call;
        size_t max;
        const char* source;
        size_t count;
        int error;
        std::string after;  // of text, without what lies behind its end
    } cases[] = {{Copy, 8, kDigits, 8, EOK, "01234567"},
                 {Copy, 3, kDigits, 4, ERANGE, zeros.substr(0, 3) + "cdefg"},
                 {Copy, 8, nullptr, 0, EINVAL, zeros},
                 {Copy, 0, kDigits, 0, ERANGE, old},
                 {Copy, kTooLarge, kDigits, 1, ERANGE, old},
                 {Set, 8, nullptr, 8, EOK, "xxxxxxxx"},
                 {Set, 2, nullptr, 5, ERANGE, "xx" + old.substr(2)},
                 {CopyText, 8, "1234567", kWhole, EOK, "1234567"},
                 {CopyText, 8, "12345678", kWhole, ERANGE, ""},
                 {CopyText, 8, nullptr, kWhole, EINVAL, ""},
                 {CopyText, 0, "", kWhole, ERANGE, "ab"},
                 {CopyText, 8, "123456789", 7, EOK, "1234567"},
                 {CopyText, 4, unended, 3, EOK, "xyz"},
                 {CopyText, 3, unended, 3, ERANGE, ""},
                 {CopyText, 8, "12", kTooLarge, ERANGE, ""},
                 {Append, 8, "12345", kWhole, EOK, "ab12345"},
                 {Append, 8, "123456", kWhole, ERANGE, ""},
                 {Append, 2, "", kWhole, EINVAL, ""},
                 {Append, 6, unended, 3, EOK, "abxyz"}};
    for (const auto& one : cases) {
        Guarded guarded;
        EXPECT_EQ(one.call(guarded.dest, one.max, one.source, one.count), one.error);
        const std::string bytes = guarded.Bytes();
        EXPECT_EQ(one.after.size() == 8 ? bytes : bytes.c_str(), one.after)
            << one.max << " " << one.count;
    }
    EXPECT_EQ(strcpy_s(nullptr, 8, "1"), EINVAL);
}

TEST(Secure, AnOverlapOfOneByteIsRefusedAndNeighboursAreNot) {
    const struct {
        decltype(&Copy) call;
        int to;
        int from;
        int error;
    } cases[] = {{Copy, 0, 3, EOK},          {Copy, 0, 2, kOverlap}, {Copy, 3, 0, EOK},
                 {Copy, 2, 0, kOverlap},     {Copy, 1, 1, kOverlap}, {CopyText, 0, 4, EOK},
                 {CopyText, 0, 3, kOverlap}, {CopyText, 3, 0, EOK},  {CopyText, 2, 0, kOverlap}};
    for (const auto& one : cases) {  // three characters each; text writes a zero behind them
        char buffer[16] = "0123456789";
        EXPECT_EQ(one.call(buffer + one.to, 8, buffer + one.from, 3), one.error);
        EXPECT_EQ(buffer[one.to], one.error == EOK ? kDigits[one.from] : '\0');
    }
    char text[16] = "0123456";
    EXPECT_EQ(strcat_s(text, sizeof(text), text), kOverlap);
}

TEST(Secure, FormatsWholeOrCutAsAsked) {
    const struct {
        size_t max;
        size_t count;
        const char* text;
        int results[3];  // of sprintf_s, snprintf_s and snprintf_truncated_s
    } cases[] = {{8, 7, "1234567", {7, 7, 7}},     {8, 6, "1234567", {7, -1, 7}},
                 {8, 99, "12345678", {-1, -1, 7}}, {1, 1, "1", {-1, -1, 0}},
                 {0, 1, "", {-1, -1, -1}},         {kTooLarge, 1, "", {-1, -1, -1}}};
    for (const auto& one : cases) {
        Guarded guarded[3];
        EXPECT_EQ(sprintf_s(guarded[0].dest, one.max, "%s", one.text), one.results[0]);
        EXPECT_EQ(snprintf_s(guarded[1].dest, one.max, one.count, "%s", one.text), one.results[1]);
        EXPECT_EQ(snprintf_truncated_s(guarded[2].dest, one.max, "%s", one.text), one.results[2]);
        for (int i = 0; i < 3; ++i) {
            const auto kept = static_cast<size_t>(std::max(one.results[i], 0));
            EXPECT_EQ(guarded[i].Bytes().c_str(),
                      one.max - 1 > 7 ? "ab" : std::string(one.text, kept))
                << i << one.text;
        }
    }
    char dest[8] = "ab";
    EXPECT_EQ(snprintf_truncated_s(dest, 8, "x%ls", L"\xD800"), -1);  // there is no such character
    EXPECT_STREQ(dest, "");
}

}  // namespace
