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
        {"key=value", 0, "key", "value"},
        {"key   =   value   # note\n", 0, "key", "value"},
        {"key=\t value\t \r\n", 0, "key", "value"},
        {"key=value\r\n", 0, "key", "value"},
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
        {"   =value", kConfigRefused, "", "config item has no config name."},
        {longName + "n=value", kConfigRefused, "", "strncpy_s config name failed, result="},
        // The line feed counts, as long as it has not been cut off.
        {"key=" + longValue + "\n", kConfigCopyFailed, "", "strcpy_s config value to buffer"},
        {"other=\n", kConfigRefused, "", "no config value after the symbol(=), config_name=other."},
        {"core=", kConfigRefused, "", "no config value after the symbol(=), config_name=core."},
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
    const std::string base = log.root();
    std::filesystem::create_directory(base + "/a.conf");
    for (const char* name : {"/x.conf", "/x.cfg", "/x.info", "/x.txt", "/x.conf.d",
                             "/a.conf/b.conf", "/a.conf/b.cfg"}) {
        WriteFile(base + name, "");
    }
    std::filesystem::create_symlink(base + "/x.txt", base + "/link.conf");
    const std::pair<std::string, int> cases[] = {
        {base + "/x.conf", 0},
        {base + "/x.cfg", 0},
        {base + "/x.info", 0},
        {base + "/../" + std::filesystem::path(base).filename().string() + "/x.conf", 0},
        {base + "/a.conf/b.cfg", 0},
        {base + "/x.txt", kConfigPathInvalid},
        {base + "/x.conf.d", kConfigPathInvalid},
        {base + "/a.conf/b.conf", kConfigPathInvalid},
        {base + "/link.conf", kConfigPathInvalid},
        {base + "/missing.conf", kConfigPathInvalid},
        {"/" + std::string(4096, 'p') + ".conf", kConfigPathInvalid},
    };
    for (const auto& [path, result] : cases) {
        SCOPED_TRACE(path.substr(0, 80));
        std::FILE* file = nullptr;
        EXPECT_EQ(OpenConfigFile(path.c_str(), &file), result);
        EXPECT_EQ(file != nullptr, result == 0);
        if (file != nullptr) {
            std::fclose(file);
        }
    }
}

}  // namespace
