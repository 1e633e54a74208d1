#include <device_log.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <vector>

#include "control.h"

namespace orla::emulation {
namespace {

using control::LogLevel;
namespace fs = std::filesystem;

class DeviceLogTest : public testing::Test {
protected:
    void SetUp() override {
        char name[] = "/tmp/orla-log-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        directory_ = name;
        setenv("ORLA_LOG_FILE", File().c_str(), 1);
        control::Reset();
    }
    void TearDown() override {
        unsetenv("ORLA_LOG_FILE");
        unsetenv("ORLA_LOG_LEVEL");
        control::Reset();
        fs::remove_all(directory_);
    }
    [[nodiscard]] std::string File() const { return directory_ + "/device.log"; }
    [[nodiscard]] std::vector<std::string> Lines() const {
        std::vector<std::string> lines;
        std::ifstream file(File());
        for (std::string line; std::getline(file, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    std::string directory_;
};

TEST_F(DeviceLogTest, LevelDecidesWhatIsWritten) {
    // Level, what CheckLogLevel says of 0 to 4 and -1, which of debug to event are written.
    const std::tuple<const char*, const char*, const char*> cases[] = {{"debug", "111100", "DIWEV"},
                                                                       {"info", "011100", "IWEV"},
                                                                       {"", "011100", "IWEV"},
                                                                       {"warning", "001100", "WEV"},
                                                                       {"error", "000100", "EV"}};
    for (const auto& [name, enabledLevels, writtenLevels] : cases) {
        setenv("ORLA_LOG_LEVEL", name, 1);
        control::Reset();
        std::string enabled;
        for (const int level : {0, 1, 2, 3, 4, -1}) {
            enabled += static_cast<char>('0' + CheckLogLevel(31, level));
        }
        EXPECT_EQ(enabled, enabledLevels) << name;
        control::StartLogCapture();
        DlogDebugInner(1, "D");
        DlogInfoInner(1, "I");
        DlogWarnInner(1, "W");
        DlogErrorInner(1, "E");
        DlogEventInner(1, "V");
        std::string written;
        for (const control::LogLine& line : control::CapturedLines()) {
            written += line.text;
        }
        EXPECT_EQ(written, writtenLevels) << name;
    }
}

TEST_F(DeviceLogTest, TextIsAsFormatted) {
    const std::string longText(5000, 'x');
    {
        const control::LogCapture capture;
        DlogInfoInner(31, "[%s:%d] %s\n", "a.cpp", 7, "text");
        DlogErrorInner(1, "two\nlines\n\n");
        DlogEventInner(1, "%s", longText.c_str());
        DlogWarnInner(1, "%s", "");
        DlogWarnInner(1, "%.512s\n", longText.c_str());
        const std::vector<control::LogLine> lines = control::CapturedLines();
        ASSERT_EQ(lines.size(), 5U);
        EXPECT_EQ(lines[0].module, 31);
        EXPECT_EQ(lines[0].level, LogLevel::kInfo);
        EXPECT_EQ(lines[0].text, "[a.cpp:7] text");
        EXPECT_EQ(lines[1].text, "two\nlines\n");
        EXPECT_EQ(lines[2].text, longText);
        EXPECT_EQ(lines[3].text, "");
        EXPECT_EQ(lines[4].text, longText.substr(0, 512));
    }
    EXPECT_EQ(Lines().size(), 0U);
    DlogErrorInner(1, "two\nlines\r\n");
    DlogAttr attributes = {};
    attributes.pid = 4321;
    EXPECT_EQ(DlogSetAttr(attributes), 0);
    DlogEventInner(31, "%s\n", "event");
    const std::vector<std::string> lines = Lines();
    ASSERT_EQ(lines.size(), 2U);  // a record is a line, whatever its text
    const std::string time = "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{6} ";
    EXPECT_TRUE(std::regex_match(lines[0], std::regex(time + "ERROR +" + std::to_string(getpid()) +
                                                      " +1 two\\\\nlines\\\\r")))
        << lines[0];
    EXPECT_TRUE(std::regex_match(lines[1], std::regex(time + "EVENT +4321 31 event"))) << lines[1];
}

TEST_F(DeviceLogTest, FileIsBounded) {
    const std::string text(64 << 10, 'x');
    for (int i = 0; i < 700; ++i) {  // more than two files' worth
        DlogErrorInner(1, "%d %s", i, text.c_str());
    }
    uintmax_t total = 0;
    for (const auto& entry : fs::directory_iterator(directory_)) {
        EXPECT_LE(entry.file_size(), 16U << 20);
        total += entry.file_size();
    }
    EXPECT_GT(total, 16U << 20);
    EXPECT_NE(Lines().back().find(" 699 xxx"), std::string::npos);
}

}  // namespace
}  // namespace orla::emulation
