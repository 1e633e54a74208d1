#include "file_service/string_utils.h"

#include <gtest/gtest.h>

namespace {

TEST(StringUtils, IpAddresses) {
    const struct {
        const char* text;
        bool valid;
    } cases[] = {{"1.2.3.255", true},         {"0.0.0.0", true},   {"1.2.3.256", false},
                 {"256.2.3.4", false},        {"1.2.3", false},    {"1.2.3.4.5", false},
                 {"1..3.4", false},           {"1.2.3.", false},   {"-1.2.3.4", false},
                 {"1.2.3.4a", false},         {" 1.2.3.4", false}, {"", false},
                 {"99999999999.1.1.1", false}};
    for (const auto& c : cases) {
        EXPECT_EQ(c.valid, IsValidIp(c.text)) << c.text;
    }
}

TEST(StringUtils, PrivateInfo) {
    const struct {
        const char* info;
        bool valid;
    } cases[] = {{"host:22;7;4711", true}, {"host:22", false},     {"host:22;7", false},
                 {"host:22;x;1", false},   {"host:22;7;", false},  {"host:22;;1", false},
                 {"host:22;7;1;2", false}, {"host:22;7; 1", false}};
    for (const auto& c : cases) {
        std::string hostId;
        std::string hostPid;
        EXPECT_EQ(c.valid, ParsePrivateInfo(c.info, &hostId, &hostPid)) << c.info;
        if (c.valid) {
            EXPECT_EQ("7", hostId);
            EXPECT_EQ("4711", hostPid);
        }
    }
}

TEST(StringUtils, ReplacingNeverMeetsItsOwnText) {
    EXPECT_EQ("bb", ReplaceAll("aa", "a", "b"));
    EXPECT_EQ("aaaa", ReplaceAll("aa", "a", "aa"));
    EXPECT_EQ("aba", ReplaceAll("ababa", "aba", "a"));
    EXPECT_EQ("text", ReplaceAll("text", "", "x"));
}

TEST(StringUtils, ShellWordsReadAsTheyAre) {
    EXPECT_EQ("/var/log/messages.1", ShellWord("/var/log/messages.1"));
    EXPECT_EQ("'a b'", ShellWord("a b"));
    EXPECT_EQ("'a'\\''b'", ShellWord("a'b"));
    EXPECT_EQ("''", ShellWord(""));
    EXPECT_TRUE(IsEndsWith("x.tmp", "tmp"));
    EXPECT_FALSE(IsEndsWith("mp", "tmp"));
    EXPECT_FALSE(IsValidDigit("12a"));
}

}  // namespace
