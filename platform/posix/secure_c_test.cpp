// The bounds-checked functions at their bounds. Every destination lies between guard bytes.
#include <gtest/gtest.h>
#include <secure_c.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>

namespace {

constexpr size_t kTooLarge = 0x80000000;
constexpr int kOverlap = 128 + EINVAL;

// Eight bytes of destination that start as "ab", with guards around them.
struct Guarded {
    char front[8] = {'#', '#', '#', '#', '#', '#', '#', '#'};
    char dest[8] = {'a', 'b', 0, 'c', 'd', 'e', 'f', 'g'};
    char back[8] = {'#', '#', '#', '#', '#', '#', '#', '#'};
    void ExpectGuards() const {
        EXPECT_EQ(std::string(front, 8), "########");
        EXPECT_EQ(std::string(back, 8), "########");
    }
};

TEST(SecureMemory, CopiesWholeOrClearsWhole) {
    const char source[] = "0123456789";
    const std::string old("ab\0cdefg", 8);
    const std::string zeros(8, '\0');
    const struct {
        size_t max;
        const char* source;
        size_t count;
        int error;
        std::string after;
    } cases[] = {{8, source, 8, EOK, "01234567"},
                 {8, source, 0, EOK, old},
                 {3, source, 3, EOK, "012cdefg"},
                 {8, source, 9, ERANGE, zeros},
                 {3, source, 4, ERANGE, std::string(3, '\0') + "cdefg"},
                 {8, source, SIZE_MAX, ERANGE, zeros},
                 {8, nullptr, 1, EINVAL, zeros},
                 {8, nullptr, 0, EINVAL, zeros},
                 {0, source, 0, ERANGE, old},
                 {kTooLarge, source, 1, ERANGE, old}};
    for (const auto& one : cases) {
        Guarded guarded;
        EXPECT_EQ(memcpy_s(guarded.dest, one.max, one.source, one.count), one.error);
        EXPECT_EQ(std::string(guarded.dest, 8), one.after) << one.max << " " << one.count;
        guarded.ExpectGuards();
    }
    EXPECT_EQ(memcpy_s(nullptr, 8, source, 1), EINVAL);
}

TEST(SecureMemory, AnOverlapOfOneByteIsRefusedAndNeighboursAreNot) {
    const struct {
        int from;
        int to;
        int error;
    } cases[] = {{0, 4, EOK}, {0, 3, kOverlap}, {4, 0, EOK}, {3, 0, kOverlap}, {2, 2, kOverlap}};
    for (const auto& one : cases) {
        char buffer[] = "0123456789";
        const std::string copied = std::string(buffer + one.from, 4);
        EXPECT_EQ(memcpy_s(buffer + one.to, 4, buffer + one.from, 4), one.error);
        EXPECT_EQ(std::string(buffer + one.to, 4),
                  one.error == EOK ? copied : std::string(4, '\0'));
    }
}

TEST(SecureMemory, SetsNoMoreThanThereIs) {
    const struct {
        size_t max;
        size_t count;
        int error;
        size_t set;
    } cases[] = {{8, 8, EOK, 8},    {8, 0, EOK, 0},    {8, 9, ERANGE, 8},
                 {2, 5, ERANGE, 2}, {0, 0, ERANGE, 0}, {kTooLarge, 1, ERANGE, 0}};
    for (const auto& one : cases) {
        Guarded guarded;
        EXPECT_EQ(memset_s(guarded.dest, one.max, 'x', one.count), one.error);
        EXPECT_EQ(std::string(guarded.dest, 8),
                  std::string(one.set, 'x') + std::string("ab\0cdefg", 8).substr(one.set));
        guarded.ExpectGuards();
    }
    EXPECT_EQ(memset_s(nullptr, 8, 0, 1), EINVAL);
}

// A count of kWhole means the form without a count.
constexpr size_t kWhole = 12345;

errno_t Copy(char* dest, size_t max, const char* source, size_t count) {
    return count == kWhole ? strcpy_s(dest, max, source) : strncpy_s(dest, max, source, count);
}

errno_t Concatenate(char* dest, size_t max, const char* source, size_t count) {
    return count == kWhole ? strcat_s(dest, max, source) : strncat_s(dest, max, source, count);
}

TEST(SecureText, FitsWithItsZeroOrIsRefused) {
    const char unended[3] = {'x', 'y', 'z'};
    const struct {
        decltype(&Copy) call;
        size_t max;
        const char* source;
        size_t count;
        int error;
        const char* after;
    } cases[] = {{Copy, 8, "1234567", kWhole, EOK, "1234567"},
                 {Copy, 8, "12345678", kWhole, ERANGE, ""},
                 {Copy, 1, "", kWhole, EOK, ""},
                 {Copy, 1, "1", kWhole, ERANGE, ""},
                 {Copy, 8, nullptr, kWhole, EINVAL, ""},
                 {Copy, 0, "", kWhole, ERANGE, "ab"},
                 {Copy, kTooLarge, "", kWhole, ERANGE, "ab"},
                 {Copy, 8, "123456789", 7, EOK, "1234567"},
                 {Copy, 8, "123456789", 8, ERANGE, ""},
                 {Copy, 8, "12", 500, EOK, "12"},
                 {Copy, 8, "12", 0, EOK, ""},
                 {Copy, 4, unended, 3, EOK, "xyz"},
                 {Copy, 3, unended, 3, ERANGE, ""},
                 {Copy, 8, "12", kTooLarge, ERANGE, ""},
                 {Concatenate, 8, "12345", kWhole, EOK, "ab12345"},
                 {Concatenate, 8, "123456", kWhole, ERANGE, ""},
                 {Concatenate, 3, "", kWhole, EOK, "ab"},
                 {Concatenate, 2, "", kWhole, EINVAL, ""},  // "ab" has no end within two bytes
                 {Concatenate, 8, nullptr, kWhole, EINVAL, ""},
                 {Concatenate, 0, "", kWhole, ERANGE, "ab"},
                 {Concatenate, 8, "123456", 5, EOK, "ab12345"},
                 {Concatenate, 8, "123456", 6, ERANGE, ""},
                 {Concatenate, 6, unended, 3, EOK, "abxyz"},
                 {Concatenate, 8, "1", SIZE_MAX, ERANGE, ""}};
    for (const auto& one : cases) {
        Guarded guarded;
        const std::string label = std::string(one.call == Copy ? "copy " : "cat ") +
                                  std::to_string(one.max) + " " + std::to_string(one.count) +
                                  " -> " + one.after;
        EXPECT_EQ(one.call(guarded.dest, one.max, one.source, one.count), one.error) << label;
        EXPECT_STREQ(guarded.dest, one.after) << label;
        guarded.ExpectGuards();
    }
    EXPECT_EQ(strcpy_s(nullptr, 8, "1"), EINVAL);
    EXPECT_EQ(strcat_s(nullptr, 8, "1"), EINVAL);
}

TEST(SecureText, OverlapsAreRefused) {
    char buffer[16] = "0123456";
    EXPECT_EQ(strcpy_s(buffer + 2, 14, buffer), kOverlap);
    EXPECT_STREQ(buffer, "01");
    EXPECT_EQ(strcat_s(buffer, sizeof(buffer), buffer), kOverlap);
    EXPECT_STREQ(buffer, "");
    const struct {  // copies of three characters, which write a zero behind them
        int to;
        int from;
        int error;
    } cases[] = {{0, 4, EOK}, {0, 3, kOverlap}, {3, 0, EOK}, {2, 0, kOverlap}};
    for (const auto& one : cases) {
        memcpy(buffer, "01234567", 9);
        EXPECT_EQ(strncpy_s(buffer + one.to, 8, buffer + one.from, 3), one.error);
        EXPECT_EQ(std::string(buffer + one.to),
                  one.error == EOK ? std::string("01234567").substr(one.from, 3) : "");
    }
    memcpy(buffer, "0123456", 8);
    EXPECT_EQ(strcpy_s(buffer + 8, 8, buffer), EOK);  // the zero that is read lies before
    EXPECT_EQ(strcpy_s(buffer + 7, 8, buffer), kOverlap);
}

TEST(SecureText, FormatsWholeOrCutAsAsked) {
    const struct {
        size_t max;
        size_t count;
        const char* text;
        int whole;      // of sprintf_s
        int counted;    // of snprintf_s
        int truncated;  // of snprintf_truncated_s
    } cases[] = {{8, 8, "1234567", 7, 7, 7},  {8, 7, "1234567", 7, 7, 7},
                 {8, 6, "1234567", 7, -1, 7}, {8, 99, "12345678", -1, -1, 7},
                 {1, 0, "", 0, 0, 0},         {1, 1, "1", -1, -1, 0},
                 {0, 1, "", -1, -1, -1},      {kTooLarge, 1, "", -1, -1, -1}};
    for (const auto& one : cases) {
        Guarded guarded[3];
        EXPECT_EQ(sprintf_s(guarded[0].dest, one.max, "%s", one.text), one.whole);
        EXPECT_EQ(snprintf_s(guarded[1].dest, one.max, one.count, "%s", one.text), one.counted);
        EXPECT_EQ(snprintf_truncated_s(guarded[2].dest, one.max, "%s", one.text), one.truncated);
        const bool untouched = one.max == 0 || one.max == kTooLarge;
        const int results[] = {one.whole, one.counted, one.truncated};
        for (int i = 0; i < 3; ++i) {
            const std::string written(one.text,
                                      results[i] < 0 ? 0 : static_cast<size_t>(results[i]));
            EXPECT_EQ(guarded[i].dest, untouched ? "ab" : written) << i << one.text;
            guarded[i].ExpectGuards();
        }
    }
    int (*const unchecked)(char*, size_t, const char*, ...) = snprintf_truncated_s;
    Guarded guarded;
    EXPECT_EQ(unchecked(guarded.dest, 8, nullptr), -1);
    EXPECT_STREQ(guarded.dest, "");
    EXPECT_EQ(sprintf_s(nullptr, 8, "x"), -1);
    EXPECT_EQ(snprintf_truncated_s(guarded.dest, 8, "x%ls", L"\xD800"), -1);  // no such character
    EXPECT_STREQ(guarded.dest, "");
}

}  // namespace
