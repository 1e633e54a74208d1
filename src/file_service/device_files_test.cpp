// The files of a device, in the directories that the sandbox makes. What goes over a session is
// tested with the whole daemon.
#include "file_service/device_files.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <string>

#include "hdc/test_support.h"

namespace {

constexpr const char* kScript = "/var/dvpp_proc_collect.sh";

void PutScript(const std::string& text) {
    std::ofstream(kScript) << "#!/bin/sh\n" << text;
    chmod(kScript, 0700);
}

pid_t ReadPid(const char* path) {
    pid_t pid = 0;
    std::ifstream(path) >> pid;
    return pid;
}

// A child that its new parent has not reaped yet is a zombie.
bool HasEnded(pid_t pid) {
    std::string number, name, state;
    std::ifstream("/proc/" + std::to_string(pid) + "/stat") >> number >> name >> state;
    return state.empty() || state == "Z" || state == "X";
}

TEST(DeviceFileWalk, AScriptThatNeverEndsIsKilledWithItsChildren) {
    PutScript("trap '' TERM\necho $$ > /tmp/script\nsleep 1000 &\necho $! > /tmp/child\nwait\n");
    const DeviceFileType* type = FindDeviceFileType("module_info");
    ASSERT_NE(nullptr, type);
    EXPECT_EQ(-1, DeviceFileWalk(*type).Find(std::chrono::seconds(1)));
    for (const char* file : {"/tmp/script", "/tmp/child"}) {
        const pid_t pid = ReadPid(file);
        EXPECT_GT(pid, 0);
        EXPECT_TRUE(orla::test::WaitFor([&] { return HasEnded(pid); })) << file;
    }
    // Nothing of the request is left that would hold the next one up.
    PutScript("exit 137\n");  // as if it had been killed
    EXPECT_EQ(0, DeviceFileWalk(*type).Find(std::chrono::seconds(60)));
    std::filesystem::remove(kScript);
}

}  // namespace
