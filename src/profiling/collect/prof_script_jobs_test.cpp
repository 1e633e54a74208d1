// The two jobs that work through the collection script, with a script that does as it is told.
// It stands in the place of the device's, so these tests are for the sandbox.

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <new>

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

// Whether the system refuses to kill, as it does when an account that is not root wants to kill
// what sudo has started.
static std::atomic<bool> refusesToKill{false};

extern "C" int kill(pid_t pid, int signal) noexcept {
    if (refusesToKill && signal == SIGKILL) {
        errno = EPERM;
        return -1;
    }
    return static_cast<int>(syscall(SYS_kill, pid, signal));
}

namespace Analysis::Nedra::JobWrapper {
namespace {

using analysis::nedra::message::JobContext;
using analysis::nedra::transport::UploaderMgr;
using orla::test::PacedHost;
using orla::test::ReadFile;
using orla::test::WaitFor;
using orla::test::WriteFile;
using std::chrono::milliseconds;
using testing::ElementsAre;
using Texts = std::vector<std::string>;

constexpr char kCalls[] = "/tmp/script_calls";
constexpr char kPid[] = "/tmp/script_pid";
constexpr char kHangs[] = "/tmp/script_hangs";
constexpr char kFile[] = "data/ai_ctrl_cpu.data";
const std::string kDir = orla::test::kWorkRoot + "0";
const std::string kPath = "/usr/bin:/usr/sbin:/var ";
const std::string kKill = kPath + "--kill";
const std::string kSlice = kDir + "/ai_ctrl_cpu.data.7.";

// Tells how it was called; a run that goes on is a sleep, and its end writes one more slice. What
// comes of a resolve run is for the slice to say.
constexpr char kScript[] = R"sh(#!/bin/sh
echo "$PATH $*" >>/tmp/script_calls
case $1 in
--record) trap 'echo last >"$2.9z"; exit 3' TERM; echo $$ >/tmp/script_pid; sleep 1000 & wait ;;
--stat) printf counts >"$2"; echo $$ >/tmp/script_pid; exec sleep 1000 ;;
--script)
    case $(head -c 4 "$2") in
    fail) printf half; exit 4 ;;
    hang) printf half; touch /tmp/script_hangs; exec sleep 1000 ;;
    *) cat "$2" ;;
    esac ;;
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
        for (const std::string& path :
             {std::string(kCalls), std::string(kPid), std::string(kHangs), kDir}) {
            std::filesystem::remove_all(path);
        }
    }
    static void MakeDir() { std::filesystem::create_directories(kDir); }
    // Neither one that runs nor one that nobody has waited for.
    static bool HasNoChild() {
        siginfo_t info{};
        return waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT) != 0 && errno == ECHILD;
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
    WriteFile(kSlice + "3", "fail");
    WriteFile(kSlice + "4", "");
    EXPECT_EQ(job.Uninit(), 0);

    EXPECT_THAT(Chunks(kFile), ElementsAre(twoReads, "", "second", "last\n"));
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
    EXPECT_THAT(log.Take("E"), ElementsAre("E slices of the recording that are lost so far: 1",
                                           "E data file size is invalid",
                                           "E slices of the recording that the host misses: 1"));
}

// The limit of the last pass has run out before it begins.
TEST_F(ScriptJobs, AResolveRunMayTakeItsTimeAndOnlyAWholeTextIsSent) {
    MakeDir();
    PerfExtraTask task(100, kDir, common->jobCtx, common->params, {milliseconds(0)});
    WriteFile(kSlice + "1", "whole");
    WriteFile(kSlice + "2", "fail");
    WriteFile(kSlice + "3", "hang");
    WriteFile(kSlice + "4", "newest");
    ASSERT_EQ(task.Init() + task.Start(), 0);
    ASSERT_TRUE(WaitFor([] { return access(kHangs, F_OK) == 0; }));
    EXPECT_EQ(task.Stop(), 0);
    EXPECT_THAT(Chunks(kFile), ElementsAre("whole"));
    EXPECT_THAT(
        log.Take("E"),
        ElementsAre("E slices of the recording that are lost so far: 1",
                    testing::MatchesRegex("E Process .* did not end within .* ms and is killed"),
                    "E slices of the recording that are lost so far: 2",
                    "E slices of the recording that the host misses: 3"));
    EXPECT_TRUE(HasNoChild());
}

TEST_F(ScriptJobs, AnExceptionCostsOneSlice) {
    struct NoMemory : JobContext {
        void ToObject(nlohmann::json&) const override { throw std::bad_alloc(); }
    };
    MakeDir();
    PerfExtraTask task(100, kDir, std::make_shared<NoMemory>(), common->params);
    WriteFile(kSlice + "1", "text");
    WriteFile(kSlice + "2", "text");
    ASSERT_EQ(task.Init() + task.Start(), 0);
    ASSERT_TRUE(WaitFor([] { return access((kSlice + "1").c_str(), F_OK) != 0; }));
    EXPECT_EQ(task.Stop(), 0);
    EXPECT_NE(access((kSlice + "2").c_str(), F_OK), 0) << "no last pass";
    EXPECT_THAT(log.Take("E"),
                testing::Contains("E slices of the recording that the host misses: 2"));
}

TEST_F(ScriptJobs, SlicesThatWaitForAHostAreBounded) {
    MakeDir();
    const auto write = [](int from, int to) {
        for (int i = from; i <= to; ++i) {
            WriteFile(kSlice + std::to_string(i), "slice " + std::to_string(i));
        }
    };
    const auto isThere = [](int i) {
        return access((kSlice + std::to_string(i)).c_str(), F_OK) == 0;
    };
    UploaderMgr::instance().DelAllUploader();
    ASSERT_EQ(UploaderMgr::instance().CreateUploader("job", host, 1), 0);
    host->Read(false);
    RecordingLimits limits;
    limits.maxCount = 3;
    PerfExtraTask task(100, kDir, common->jobCtx, common->params, limits);
    write(10, 13);
    ASSERT_EQ(task.Init() + task.Start(), 0);
    ASSERT_TRUE(WaitFor([&] { return !isThere(11) && ReadFile(kSlice + "12.txt") != ""; }))
        << "one is on its way, one queued, one held up";
    write(14, 22);
    ASSERT_TRUE(WaitFor([&] { return !isThere(18); }));
    EXPECT_TRUE(isThere(12) && isThere(19));
    host->Read(true);
    EXPECT_EQ(task.Stop(), 0);
    EXPECT_THAT(Chunks(kFile), ElementsAre("slice 10", "slice 11", "slice 12", "slice 19",
                                           "slice 20", "slice 21", "slice 22"));
    EXPECT_THAT(log.Take("E"),
                testing::Contains("E slices of the recording that the host misses: 6"));

    write(10, 14);
    PerfSlices bytes(kDir, 16, 100);
    ASSERT_EQ(bytes.Start(), 0);
    EXPECT_TRUE(WaitFor([&] { return bytes.Lost() == 2; }));
    EXPECT_TRUE(!isThere(11) && isThere(12) && isThere(14));
}

// As soon as a script is to end its time has run out, and it ends by itself only much later.
TEST_F(ScriptJobs, AScriptThatIgnoresItsEndIsKilledOrLeft) {
    WriteFile(kScriptPath,
              "#!/bin/sh\n[ $1 = --kill ] && exit\ntrap '' TERM\n"
              "echo $$ >/tmp/script_pid\nexec sleep 1000\n");
    for (const bool isRecording : {true, false}) {
        for (const bool refuses : {false, true}) {
            SCOPED_TRACE(std::to_string(isRecording) + std::to_string(refuses));
            ProfCtrlcpuJob ctrlCpu({milliseconds(0)});
            ProfLlcJob llc(milliseconds(0));
            ICollectionJob& job = isRecording ? static_cast<ICollectionJob&>(ctrlCpu) : llc;
            Give({"0x1"});
            ASSERT_EQ(job.Init(cfg), 0);
            ASSERT_EQ(job.Process(), 0);
            ASSERT_TRUE(WaitFor([] { return ReadFile(kPid) != ""; }));
            const int child = std::stoi(ReadFile(kPid));
            std::filesystem::remove(kPid);
            log.Take();
            refusesToKill = refuses;
            EXPECT_EQ(job.Uninit(), refuses ? -1 : 0);
            refusesToKill = false;
            EXPECT_THAT(
                log.Take("E"),
                testing::Contains(testing::MatchesRegex(
                    "E Process " + std::to_string(child) + " did not end within .* ms and " +
                    (refuses ? "cannot be killed: Operation not permitted" : "is killed"))));
            EXPECT_EQ(kill(child, SIGKILL), refuses ? 0 : -1);
            EXPECT_TRUE(WaitFor([&] {
                static_cast<void>(ProfLlcJob().Init(nullptr));
                return HasNoChild();
            }));
        }
    }
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
          Row{record, {"a0x1", "0XAF"}, 1, " 1000 {rx1,rAF}"},
          Row{record, {"0x11:u", "cpu/0x8/"}, 1, " 1000 {r11:u,ru/0x8/}"},
          Row{record, {"0x1 --kill"}, 1, ""}, Row{record, {"0x1", "0x2;id"}, 1, ""},
          Row{record, {"0x1}"}, 1, ""}, Row{record, {"0x1\n"}, 1, ""}, Row{record, {"11"}, 1, ""},
          Row{record, Texts(9, "0x1"), 1, ""},
          Row{stat, {"read", "hisi_l3c0/hit/"}, 5, " read,hisi_l3c0/hit/ 5"},
          Row{stat, {"read"}, 0, " read 100"}, Row{stat, {"read:u"}, 5, " read:u 5"},
          Row{stat, {"read --kill"}, 5, ""}, Row{stat, {"read;id"}, 5, ""},
          Row{stat, {""}, 5, ""}}) {
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
    EXPECT_THAT(Chunks("data/llc.data"), ElementsAre("counts", "counts", "counts", "", "", ""));
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
}

}  // namespace
}  // namespace Analysis::Nedra::JobWrapper
