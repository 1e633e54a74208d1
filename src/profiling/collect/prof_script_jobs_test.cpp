// The two jobs that work through the collection script, with a script that does as it is told.
// It stands in the place of the device's, so these tests are for the sandbox.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "profiling/collect/collect_test_support.h"
#include "profiling/collect/prof_ctrlcpu_job.h"
#include "profiling/collect/prof_llc_job.h"
#include "profiling/collect/prof_script.h"
#include "profiling/config/device_test_support.h"
#include "profiling/config/platform.h"
#include "profiling/config/utils_test_support.h"
#include "profiling/datapath/thread_test_support.h"
#include "profiling/datapath/transport_test_support.h"
#include "profiling/datapath/uploader_mgr.h"

namespace Analysis::Nedra::JobWrapper {
namespace {

using analysis::nedra::message::JobContext;
using analysis::nedra::transport::UploaderMgr;
using orla::test::PacedHost;
using orla::test::ReadFile;
using orla::test::WaitFor;
using orla::test::WriteFile;
using testing::ElementsAre;
using Texts = std::vector<std::string>;

constexpr char kCalls[] = "/tmp/script_calls";
constexpr char kPid[] = "/tmp/script_pid";
const std::string kDir = orla::test::kWorkRoot + "0";
const std::string kPath = "/usr/bin:/usr/sbin:/var ";
const std::string kKill = kPath + "--kill";
const std::string kSlice = kDir + "/ai_ctrl_cpu.data.7.";

// Tells how it was called; a run that goes on is a sleep, and its end writes one more slice.
constexpr char kScript[] = R"sh(#!/bin/sh
echo "$PATH $*" >>/tmp/script_calls
case $1 in
--record) trap 'echo last >"$2.9z"; exit 3' TERM; echo $$ >/tmp/script_pid; sleep 1000 & wait ;;
--stat) printf counts >"$2"; echo $$ >/tmp/script_pid; exec sleep 1000 ;;
--script) grep -q gone "$2" && exit 4; cat "$2" ;;
--kill) [ ! -e /tmp/script_pid ] || kill "$(cat /tmp/script_pid)"; rm -f /tmp/script_pid ;;
esac
)sh";

struct ScriptJobs : orla::device_test::DeviceTest {
    void SetUp() override {
        original = ReadFile(kScriptPath);
        ASSERT_NE(original, "") << "not in the sandbox";
        WriteFile(kScriptPath, kScript);
        Use(0x0000);
        common->devIdOnHost = 7;
        common->params = std::make_shared<ProfileParams>();
        common->params->job_id = "job";
        common->params->tracelet_llc_profiling = "on";
        common->jobCtx = std::make_shared<JobContext>();
        cfg->commonParams = common;
        ASSERT_EQ(UploaderMgr::instance().CreateUploader("job", host, 512), 0);
    }
    void TearDown() override {
        UploaderMgr::instance().DelAllUploader();
        WriteFile(kScriptPath, original);
        for (const std::string& path : {std::string(kCalls), std::string(kPid), kDir}) {
            std::filesystem::remove_all(path);
        }
    }
    static void Use(int chip) {
        orla::device_test::ReadConfig(chip);
        ASSERT_EQ(Common::Platform::Platform::instance().Init(), 0);
    }
    void Give(const Texts& events) { cfg->events = std::make_shared<Texts>(events); }
    // How the script was called since the last time, without the environment.
    static Texts Calls() {
        Texts calls;
        std::istringstream lines(ReadFile(kCalls));
        for (std::string line; std::getline(lines, line);) {
            calls.push_back(line);
        }
        std::filesystem::remove(kCalls);
        return calls;
    }
    // What the script is called with while `job` lives, which has to begin a run or not.
    Texts CallsDuring(ICollectionJob& job, const Texts& events, bool begins) {
        Give(events);
        EXPECT_EQ(job.Init(cfg), 0);
        EXPECT_EQ(job.Process(), 0);
        EXPECT_TRUE(!begins || WaitFor([] { return ReadFile(kPid) != ""; }));
        EXPECT_EQ(job.Uninit(), 0);
        Texts calls = Calls();
        if (!calls.empty() && calls.back().find("--script") != std::string::npos) {
            calls.pop_back();  // the slice of the end
        }
        return calls;
    }
    // The data of the chunks of that file that the host took, after all were sent.
    std::vector<std::string> Chunks(const std::string& file) {
        std::shared_ptr<analysis::nedra::transport::Uploader> uploader;
        UploaderMgr::instance().GetUploader("job", uploader);
        EXPECT_EQ(uploader->Stop(false), 0);
        std::vector<std::string> chunks;
        for (const auto& chunk : orla::test::ChunksOf(*host)) {
            EXPECT_EQ(chunk->datamodule(), 3);
            EXPECT_EQ(chunk->chunksizeinbytes(), static_cast<int>(chunk->chunk().size()));
            EXPECT_EQ(chunk->hdr().job_ctx(), common->jobCtx->ToString());
            if (chunk->filename() == file) {
                chunks.push_back(chunk->chunk());
            }
        }
        return chunks;
    }

    std::string original;
    std::shared_ptr<PacedHost> host = std::make_shared<PacedHost>();
    std::shared_ptr<CollectionJobCommonParams> common =
        std::make_shared<CollectionJobCommonParams>();
    std::shared_ptr<CollectionJobCfg> cfg = std::make_shared<CollectionJobCfg>();
};

TEST_F(ScriptJobs, ARecordingGoesToTheHostSliceBySlice) {
    const std::string twoReads(0x40000, 'x');
    ProfCtrlcpuJob job;
    Give({"0x11", "0x8"});
    ASSERT_EQ(job.Init(cfg), 0);
    ASSERT_EQ(job.Process(), 0);
    ASSERT_TRUE(WaitFor([] { return ReadFile(kPid) != ""; }));
    const int child = std::stoi(ReadFile(kPid));
    WriteFile(kSlice + "10", twoReads);
    WriteFile(kSlice + "2", "second");
    WriteFile(kSlice + "1.txt", "a text");
    ASSERT_TRUE(WaitFor([] { return access((kSlice + "10").c_str(), F_OK) != 0; }));
    EXPECT_EQ(access((kSlice + "2").c_str(), F_OK), 0) << "the newest is still in writing";
    WriteFile(kSlice + "3", "gone");
    WriteFile(kSlice + "4", "");
    EXPECT_EQ(job.Uninit(), 0);

    EXPECT_THAT(Chunks("data/ai_ctrl_cpu.data"), ElementsAre(twoReads, "", "second", "last\n"));
    EXPECT_NE(kill(child, 0), 0);
    std::set<std::string> left;
    for (const auto& entry : std::filesystem::directory_iterator(kDir)) {
        left.insert(entry.path().filename());
    }
    EXPECT_THAT(left, ElementsAre("ai_ctrl_cpu.data.7", "ai_ctrl_cpu.data.7.1.txt", "perf.log"));
    EXPECT_EQ(cfg->events, nullptr);
    const Texts calls = Calls();
    ASSERT_GE(calls.size(), 3U);
    EXPECT_EQ(calls[0], kPath + "--record " + kDir + "/ai_ctrl_cpu.data.7 50 {r11,r8}");
    EXPECT_EQ(calls[1], kPath + "--script " + kSlice + "10");
    EXPECT_THAT(calls, testing::Contains(kKill));
    EXPECT_THAT(log.Take("E"),
                ElementsAre("E data file size is invalid", "E data file size is invalid"));
}

TEST_F(ScriptJobs, NoEventChangesTheArguments) {
    const std::string record = kPath + "--record " + kDir + "/ai_ctrl_cpu.data.7";
    const std::string stat = "/usr/bin/:/usr/sbin:/var --stat " + kDir + "/llc.data.7";
    struct Row {
        const std::string& run;
        Texts events;
        int interval;
        std::string arguments;  // behind the file; empty: no run
    };
    for (const Row& row :
         {Row{record, {"0x11"}, 20, " 50 {r11}"}, Row{record, {"0x11"}, -1, " 100 {r11}"},
          Row{record, {"0x11"}, 1001, " 0 {r11}"},
          Row{record, {"a0x1", "0XAF"}, 1, " 1000 {rx1,rAF}"}, Row{record, {"0x1 --kill"}, 1, ""},
          Row{record, {"0x1", "0x2;id"}, 1, ""}, Row{record, {"0x1}"}, 1, ""},
          Row{record, {"0x1\n"}, 1, ""}, Row{record, {"11"}, 1, ""},
          Row{record, Texts(9, "0x1"), 1, ""},
          Row{stat, {"read", "hisi_l3c0/hit/"}, 5, " read,hisi_l3c0/hit/ 5"},
          Row{stat, {"read"}, 0, " read 100"}, Row{stat, {"read --kill"}, 5, ""},
          Row{stat, {"read;id"}, 5, ""}, Row{stat, {""}, 5, ""}}) {
        SCOPED_TRACE(row.events.back());
        ProfCtrlcpuJob ctrlCpu;
        ProfLlcJob llc;
        ICollectionJob* job = &ctrlCpu;
        if (&row.run == &stat) {
            job = &llc;
        }
        common->params->cpu_sampling_interval = common->params->llc_interval = row.interval;
        Texts expected = {kKill};
        if (!row.arguments.empty()) {
            expected.insert(expected.begin(), row.run + row.arguments);
        }
        EXPECT_EQ(CallsDuring(*job, row.events, !row.arguments.empty()), expected);
    }
    EXPECT_THAT(Chunks("data/llc.data"), ElementsAre("counts", "counts", "", "", ""));
    ProfCtrlcpuJob job;
    Give({});
    EXPECT_EQ(job.Init(cfg), -1);
    EXPECT_EQ(job.Process(), -1);
    Give({"0x1"});
    common->params->host_profiling = 1;
    EXPECT_EQ(job.Init(cfg), -1);
    EXPECT_TRUE(ProfLlcJob().IsGlobalJobLevel());
    Use(0x0500);
    EXPECT_FALSE(ProfLlcJob().IsGlobalJobLevel());
}

TEST_F(ScriptJobs, AScriptThatFailsOrHangsHoldsNobodyUp) {
    ProfCtrlcpuJob job;
    Give({"0x1"});
    ASSERT_EQ(job.Init(cfg), 0);
    WriteFile(kScriptPath, "#!/bin/sh\nexit 5\n");
    EXPECT_EQ(job.Process(), 0);
    EXPECT_EQ(job.Uninit(), 0);
    std::filesystem::rename("/var/sudo", "/var/no_sudo");
    const std::string path = getenv("PATH");
    setenv("PATH", "/nowhere", 1);
    if (access("/usr/bin/sudo", F_OK) != 0) {
        EXPECT_EQ(job.Process(), 0) << "its events went with the stop";
        Give({"0x1"});
        EXPECT_EQ(job.Process(), -1);
        EXPECT_EQ(job.Uninit(), -1);
    }
    setenv("PATH", path.c_str(), 1);
    std::filesystem::rename("/var/no_sudo", "/var/sudo");

    int pid = -1;
    int exitCode = 0;
    ASSERT_EQ(
        StartScript({"/bin/sh", "-c", "trap '' TERM; kill $$; exec sleep 1000"}, "", "A=1", pid),
        0);
    EXPECT_EQ(WaitScript(pid, std::chrono::milliseconds(50), exitCode), 0);
    EXPECT_EQ(exitCode, 128 + SIGKILL);
    EXPECT_EQ(WaitScript(pid, std::chrono::milliseconds(50), exitCode), -1) << "no child any more";
}

}  // namespace
}  // namespace Analysis::Nedra::JobWrapper
