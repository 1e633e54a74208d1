// What of a foreign text reaches a terminal, and how numbers of bytes are shown.
#include "host/terminal_text.h"

#include <gtest/gtest.h>

namespace orla::host {
namespace {

TEST(TerminalText, NothingForeignSteersATerminal) {
    const std::pair<const char*, const char*> table[] = {
        {"plain \xc3\xbc\xe2\x82\xac\xf0\x9f\x99\x82",
         "plain \xc3\xbc\xe2\x82\xac\xf0\x9f\x99\x82"},
        {"a\x1b[2J\x7f\n\t", "a?[2J???"},
        {"a\xc2\x9b"
         "31m\xc2\x9d",
         "a?31m?"},  // the controls above ASCII
        {"a\x9b"
         "31m\xff\xc3",
         "a?31m??"},                            // bytes that are no text
        {"x\xe2\x80\xaegpj.exe", "x?gpj.exe"},  // would be read from right to left
        {"a\xe2\x80\x8b\xef\xbb\xbf"
         "b",
         "a??b"},                                // would not be seen
        {"\xed\xa0\x80\xf4\x90\x80\x80", "??"},  // no characters
    };
    for (const auto& [text, shown] : table) {
        EXPECT_EQ(Printable(text), shown);
    }
    EXPECT_EQ(PrintableLines("a\n\tb\r\xc2\x85"), "a\n\tb??");
    EXPECT_EQ(CutToWidth("\xc3\xbc\xc3\xbc\xc3\xbc", 2), "\xc3\xbc\xc3\xbc");
}

TEST(TerminalText, AnAmountHasFourDigitsAtMost) {
    const std::pair<double, const char*> table[] = {
        {999, "999 B"},      {1000, "1.0 kB"},     {999'949, "999.9 kB"},
        {999'960, "1.0 MB"}, {12.34e9, "12.3 GB"}, {12.34e12, "12.3 TB"},
    };
    for (const auto& [bytes, shown] : table) {
        EXPECT_EQ(Amount(bytes), shown);
    }
}

}  // namespace
}  // namespace orla::host
