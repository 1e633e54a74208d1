// Sampling: what of a made-up /proc becomes a record, how records become chunks, and how processes
// that come, go and change are followed.

#include "profiling/collect/proc_handlers.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>

#include "profiling/collect/proc_host_handlers.h"
#include "profiling/collect/sample_test_support.h"
#include "profiling/config/utils_test_support.h"
#include "profiling/datapath/thread_test_support.h"

namespace Analysis::Nedra::JobWrapper {
namespace {

using analysis::nedra::message::ProfileParams;
using analysis::nedra::transport::Uploader;
using orla::test::ChunksOf;
using orla::test::LogCapture;
using orla::test::PacedHost;
using orla::test::Records;
using orla::test::RecordsOf;
using orla::test::TempDir;
using orla::test::WriteFile;
using testing::ElementsAre;
using testing::StartsWith;
using Texts = std::vector<std::string>;

constexpr uint64_t kAlways = 1;  // ns: due at every call

struct Sampling : testing::Test {
    Sampling() {
        EXPECT_EQ(uploader->Init(512) + uploader->Start(), 0);
        road = {std::make_shared<ProfileParams>(), std::make_shared<const std::string>("context"),
                std::make_shared<SampleSender>(uploader)};
    }
    // Everything that was sampled, after the handlers' end.
    Records& AllRecords() {
        uploader->Stop(false);
        records_ = RecordsOf(*host);
        return records_;
    }
    Texts DataOf(const std::string& file) {
        Texts data;
        for (const auto& record : AllRecords()["data/" + file]) {
            data.push_back(record.data);
        }
        return data;
    }

    const std::shared_ptr<PacedHost> host = std::make_shared<PacedHost>();
    const std::shared_ptr<Uploader> uploader = std::make_shared<Uploader>(host);
    SampleRoad road;
    const TempDir root;
    LogCapture log;

private:
    Records records_;
};

template <typename Handler>
void SampleEach(const SampleSpec& spec, const SampleRoad& road, const Texts& states) {
    Handler handler(spec, road);
    ASSERT_EQ(handler.Init(), 0);
    EXPECT_EQ(handler.Init(), -1);
    for (const std::string& state : states) {
        WriteFile(spec.srcFileName, state);
        handler.Sample(1234567890123);
    }
    EXPECT_EQ(handler.Uninit(), 0);
}

TEST_F(Sampling, KeepsTheLinesOfItsKind) {
    const std::string path = root / "file";
    const std::string many = "cpu " + std::string(9000, '7');  // more than a buffer, at once
    SampleEach<ProcStatFileHandler>(
        {PROF_SYS_STAT, 0, 8192, kAlways, path, "stat"}, road,
        {"CPU  1 2\ncpu0 3\nintr 5\ncpu9 x\n", "intr 1\ncpu 1\n", "", "x cPu", many});
    SampleEach<ProcMemFileHandler>(
        {PROF_SYS_MEM, 0, 32768, kAlways, path, "mem"}, road,
        {"MemTotal: 1 kB\n\nx", "\n", "", std::string("\xff\0\n", 3), "DataLen:9\nTimeStamp:1\n"});
    EXPECT_THAT(DataOf("stat"), ElementsAre("cpu  1 2\ncpu0 3\n", "", "", "x cpu\n", many + "\n"));
    EXPECT_THAT(DataOf("mem"), ElementsAre("MemTotal: 1 kB\n\nx\n", "\n", "",
                                           std::string("\xff\0\n", 3), "DataLen:9\nTimeStamp:1\n"));
}

TEST_F(Sampling, ChunksEndWithARecordAndLeaveInOrder) {
    const std::string small(730, 's');
    const std::string large(5000, 'l');
    Texts states(4, small);  // the fourth leaves no more than a quarter free
    states.insert(states.end(), {small, large, small});
    SampleEach<ProcMemFileHandler>({PROF_SYS_MEM, 0, 4096, kAlways, root / "file", "mem"}, road,
                                   states);
    EXPECT_EQ(AllRecords()["data/mem"].size(), states.size());
    std::vector<size_t> sizes;
    for (const auto& chunk : ChunksOf(*host)) {
        sizes.push_back(chunk->chunk().size() / 730);
        EXPECT_EQ(chunk->chunksizeinbytes(), static_cast<int>(chunk->chunk().size()));
        EXPECT_EQ(chunk->datamodule(), 3);
        EXPECT_EQ(chunk->offset(), -1);
        EXPECT_EQ(chunk->hdr().job_ctx(), "context");
    }
    EXPECT_THAT(sizes, ElementsAre(4, 1, 6, 1));
}

TEST_F(Sampling, CountsWhatItReadAndTellsAFaultOnce) {
    ProcMemFileHandler handler({PROF_SYS_MEM, 0, 4096, 100, root / "file", "mem"}, road);
    ASSERT_EQ(handler.Init(), 0);
    EXPECT_EQ(handler.Execute(1000), 1100U);
    handler.Sample(1100);
    WriteFile(root / "file", "x\n");
    handler.Sample(1200);
    handler.Sample(1300);
    handler.Uninit();
    std::vector<uint64_t> times;
    for (const auto& record : AllRecords()["data/mem"]) {
        times.push_back(record.time);
    }
    EXPECT_THAT(times, ElementsAre(1200, 1300));
    EXPECT_THAT(log.Take("W"), ElementsAre("W Open file file failed"));
}

// ---- Processes ----------------------------------------------------------------------------------

struct Processes : Sampling {
    void Write(int pid, const std::string& inStat, const std::string& comm) {
        const std::string dir = root / std::to_string(pid);
        std::filesystem::create_directories(dir);
        WriteFile(dir + "/stat", Stat(pid, inStat));
        WriteFile(dir + "/statm", "1 2 3\n");
        WriteFile(dir + "/comm", comm);
    }
    static std::string Stat(int pid, const std::string& inStat) {
        return std::to_string(pid) + " (" + inStat + ") S 1\n";
    }
    void Cpu(const std::string& text) { WriteFile(root / "stat", text); }
    void Remove(int pid) { std::filesystem::remove_all(root / std::to_string(pid)); }

    std::unique_ptr<ProcAllPidsFileHandler> Handler(const std::string& procRoot) {
        auto handler =
            std::make_unique<ProcAllPidsFileHandler>(PROF_ALL_PID, 0, kAlways, road, procRoot);
        EXPECT_EQ(handler->Init(), 0);
        return handler;
    }
};

TEST_F(Processes, AreNamedWhateverTheyCallThemselves) {
    struct Row {
        const char* inStat;
        std::string comm;
        std::string name;
    };
    const Row rows[] = {{"sh", "sh\n", "sh"},
                        {"a) R (b", "a) R (b\n", "a) R (b"},
                        {"new\\nline", "new\nline\n", "new"},
                        {"", "\n", ""},
                        {"\xff\xfe", "\xff\xfe\n", "\xff\xfe"},
                        {"b\\\\s", "b\\s\n", "b\\s"},
                        {"x", "", "self"}};
    Cpu("CPU 1 2\ncpu0 1 2\n");
    int pid = 0;
    for (const Row& row : rows) {
        Write(++pid, row.inStat, row.comm);
    }
    auto handler = Handler(root.path());
    handler->Execute(1);
    handler->Execute(1);
    Write(1, "bash", "bash\n");         // has become another program
    Write(2, "a) R (b", "not read\n");  // its name still stands
    Write(3, "new\\nline", "newer\n");  // not known by "stat" alone
    Cpu("intr\n");
    handler->Execute(1);
    handler->Uninit();
    Records& records = AllRecords();
    pid = 0;
    for (const Row& row : rows) {
        const std::string file = "data/" + std::to_string(++pid);
        const std::string name = pid == 1 ? "bash" : pid == 3 ? "newer" : row.name;
        const char* inStat = pid == 1 ? "bash" : row.inStat;
        SCOPED_TRACE(file);
        const auto& memory = records[file + "-Memory.data"];
        const auto& cpu = records[file + "-CpuUsage.data"];
        ASSERT_EQ(memory.size(), 3U);
        ASSERT_EQ(cpu.size(), 3U);
        for (const size_t i : {0, 1}) {
            EXPECT_EQ(memory[i].data, "1 2 3\nProcessName:" + row.name + "\n");
            EXPECT_EQ(cpu[i].data,
                      Stat(pid, row.inStat) + "ProcessName:" + row.name + "\ncpu 1 2\n");
            EXPECT_EQ(cpu[i].time, memory[i].time);
        }
        EXPECT_EQ(memory[2].data, "1 2 3\nProcessName:" + name + "\n");
        EXPECT_EQ(cpu[2].data, Stat(pid, inStat) + "ProcessName:" + name + "\n");
    }
}

TEST_F(Processes, ComeAndGoWithoutABrokenRecord) {
    Cpu("cpu 1\n");
    for (const int pid : {1, 3, 5}) {
        Write(pid, "p", "p\n");
    }
    WriteFile(root / "77", "a file");
    std::filesystem::create_directories(root / "bus");
    auto handler = Handler(root.path());
    handler->Execute(1);
    Remove(1);
    Remove(5);
    Write(4, "p", "p\n");
    Write(6, "p", "p\n");
    std::filesystem::remove(root / "4/stat");  // has gone since it was listed
    std::filesystem::remove(root / "6/statm");
    handler->Execute(1);
    Write(4, "p", "p\n");
    std::filesystem::rename(root.path(), root.path() + "_hidden");  // nobody can be listed
    handler->Execute(1);
    std::filesystem::rename(root.path() + "_hidden", root.path());
    handler->Execute(1);
    handler->Uninit();
    std::string counts;
    for (const auto& [file, records] : AllRecords()) {
        counts += file.substr(5) + " " + std::to_string(records.size()) + " ";
    }
    EXPECT_EQ(counts,
              "1-CpuUsage.data 1 1-Memory.data 1 3-CpuUsage.data 3 3-Memory.data 3 "
              "4-CpuUsage.data 1 4-Memory.data 2 5-CpuUsage.data 1 5-Memory.data 1 "
              "6-CpuUsage.data 2 ");
    const Texts lines = log.Take("WIE");
    for (const char* line :
         {"I exit Pid 1", "I New Pid 4", "W Open file stat failed", "W Open file statm failed"}) {
        EXPECT_THAT(lines, testing::Contains(line).Times(1));
    }
}

pid_t Sleeper() {
    const pid_t child = fork();
    if (child == 0) {
        for (;;) {
            pause();
        }
    }
    return child;
}

void End(pid_t child) {
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

TEST_F(Processes, AFileIsOpenedAgainForTheNextOwnerOfItsName) {
    const pid_t first = Sleeper();
    const pid_t second = Sleeper();
    const auto target = [](pid_t pid) { return "/proc/" + std::to_string(pid) + "/stat"; };
    std::filesystem::create_symlink(target(first), root / "stat");
    ProcFile file(root / "stat", 4096);
    std::vector<char> buffer;
    std::string_view text;
    ASSERT_EQ(file.Read(&buffer, &text), ProcFile::Outcome::kRead);
    EXPECT_THAT(std::string(text), StartsWith(std::to_string(first)));
    std::filesystem::remove(root / "stat");
    std::filesystem::create_symlink(target(second), root / "stat");
    End(first);
    ASSERT_EQ(file.Read(&buffer, &text), ProcFile::Outcome::kRead);
    EXPECT_THAT(std::string(text), StartsWith(std::to_string(second)));
    End(second);
    EXPECT_EQ(file.Read(&buffer, &text), ProcFile::Outcome::kFailed);
    WriteFile(root / "long", std::string(5000, 'x'));
    EXPECT_EQ(ProcFile(root / "long", 4999).Read(&buffer, &text), ProcFile::Outcome::kBadSize);
    EXPECT_EQ(ProcFile(root / "long", 5000).Read(&buffer, &text), ProcFile::Outcome::kRead);
    EXPECT_EQ(text.size(), 5000U);
}

TEST_F(Sampling, OnTheHostSendsTextOnly) {
    road.params->host_sys_pid = getpid();
    const auto sample = [](auto handler) {
        ASSERT_EQ(handler.Init(), 0);
        handler.Execute(1);
        handler.Uninit();
    };
    sample(ProcHostCpuHandler({PROF_HOST_PROC_CPU, 0, 8192, kAlways, "", "cpu"}, road));
    sample(ProcHostMemHandler({PROF_HOST_PROC_MEM, 0, 8192, kAlways, "", "mem"}, road));
    sample(ProcHostNetworkHandler({PROF_HOST_SYS_NETWORK, 0, 8192, kAlways, "", "net"}, road));
    road.params->host_sys_pid = 0;  // nobody's
    sample(ProcHostMemHandler({PROF_HOST_PROC_MEM, 0, 8192, kAlways, "", "none"}, road));
    uploader->Stop(false);
    const auto chunks = ChunksOf(*host);
    const char* const texts[] = {"time \\d+\n[0-9.]+ [0-9.]+\n(\\d+ \\(.*\\) [A-Z] .*\n){2,}",
                                 "\\d+ \\d+ \\d+ \\d+ \\d+ \\d+ \\d+ \\d+\n",
                                 "time \\d+\nInter-(.*\n)+"};
    ASSERT_EQ(chunks.size(), 3U);
    for (size_t i = 0; i < chunks.size(); ++i) {
        EXPECT_TRUE(std::regex_match(chunks[i]->chunk(), std::regex(texts[i])))
            << chunks[i]->chunk();
        EXPECT_EQ(chunks[i]->datamodule(), 5);
    }
}

}  // namespace
}  // namespace Analysis::Nedra::JobWrapper
