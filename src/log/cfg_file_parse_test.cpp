#include "log/cfg_file_parse.h"

#include <gmock/gmock.h>

#include "log/log_test_support.h"

namespace {

using orla::test::SelfLogHere;
using orla::test::WriteFile;
using testing::HasSubstr;

struct LineCase {
    std::string line;
    int result;
    std::string name;
    std::string valueOrLog;
};

TEST(CfgFileParse, TakesLinesApart) {
    const std::string longName(kConfigNameLimit - 1, 'n');
    const std::string longValue(kConfigValueLimit - 1, 'v');
    const LineCase cases[] = {
        {"key   =   value   # note\n", 0, "key", "value"},
        {"key=\t value\t \r\n", 0, "key", "value"},
        {"key=a b", 0, "key", "a b"},
        {"key=a\tb", 0, "key", "a"},
        {"key=a#b", 0, "key", "a"},
        {"key=\"a\"=b", 0, "key", "\"a\"=b"},
        {"two words=x", 0, "two words", "x"},
        {longName + "=" + longValue, 0, longName, longValue},
        {"global_level=\n", 0, "global_level", "INVALID"},
        {"enableEvent= #x", 0, "enableEvent", "INVALID"},
        {"PROFILER=\t", 0, "PROFILER", "INVALID"},
        {"no symbol", kConfigRefused, "", "config item has no symbol(=)."},
        {"", kConfigRefused, "", "config item has no symbol(=)."},
        {"=value", kConfigRefused, "", "config item has no config name."},
        {longName + "n=value", kConfigRefused, "", "strncpy_s config name failed, result="},
        // The line feed counts, as long as it has not been cut off.
        {"key=" + longValue + "\n", kConfigCopyFailed, "", "strcpy_s config value to buffer"},
        {"other=\n", kConfigRefused, "", "no config value after the symbol(=), config_name=other."},
        {"other=#x", kConfigValueEmpty, "", "config value is empty, config_name=other."},
        {"other=   # \n", kConfigValueEmpty, "", "handle invalid value failed, confName=other."},
    };
    SelfLogHere log;
    for (const LineCase& c : cases) {
        SCOPED_TRACE(c.line.substr(0, 60));
        char name[kConfigNameLimit] = {};
        char value[kConfigValueLimit] = {};
        EXPECT_EQ(ParseConfigItem(c.line.c_str(), name, value), c.result);
        if (c.result == 0) {
            EXPECT_EQ(name, c.name);
            EXPECT_EQ(value, c.valueOrLog);
            EXPECT_EQ(log.Take(), "");
        } else {
            EXPECT_THAT(log.Take(), HasSubstr(c.valueOrLog));
        }
    }
}

TEST(CfgFileParse, OpensOnlyConfigurationFiles) {
    SelfLogHere log;
    std::filesystem::create_directory(log.root() + "/a.conf");
    const std::pair<const char*, int> cases[] = {
        {"/x.conf", 0},
        {"/x.cfg", 0},
        {"/x.info", 0},
        {"/a.conf/b.cfg", 0},
        {"/x.txt", kConfigPathInvalid},
        {"/x.conf.d", kConfigPathInvalid},
        {"/a.conf/b.conf", kConfigPathInvalid},
    };
    for (const auto& [name, result] : cases) {
        const std::string path = log.root() + name;
        WriteFile(path, "");
        std::FILE* file = nullptr;
        EXPECT_EQ(OpenConfigFile(path.c_str(), &file), result) << name;
        EXPECT_EQ(file != nullptr, result == 0);
        if (file != nullptr) {
            std::fclose(file);
        }
    }
}

}  // namespace
