// The arithmetic of a report on made-up devices, and what damage of a file costs.
#include "host/report_model.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "host/report_output.h"

namespace orla::host {
namespace {

constexpr uint64_t kSecond = 1'000'000'000;

std::string Record(uint64_t time, uint64_t index, const std::string& data) {
    return fmt::format("TimeStamp:{}\nIndex:{}\nDataLen:{}\n{}\n", time, index, data.size(), data);
}

std::string Cpu(uint64_t user, uint64_t system, uint64_t idle) {
    return fmt::format("cpu  {} 0 {} {} 0 0 0 0 0 0\ncpu0 0\ncpu1 0\n", user, system, idle);
}

std::string Stat(const std::string& name, uint64_t ticks, uint64_t machine, uint64_t start) {
    return fmt::format(
        "7 ({0}) S 1 7 7 0 -1 64 9 0 0 0 {1} 0 0 0 20 0 3 0 {3} 6553600 5\nProcessName:{0}\n"
        "cpu  {2} 0 0 0 0 0 0 0 0 0\n",
        name, ticks, machine, start);
}

std::string Statm(uint64_t pages) {
    return fmt::format("100 {} 3 1 0 2 0\nProcessName:self\n", pages);
}

using Files = std::vector<std::pair<std::string, std::string>>;

std::unique_ptr<ReportBuilder> Build(const Files& files, double askedMs = 1000) {
    auto builder = std::make_unique<ReportBuilder>(
        ReportBuilder::Options{{{SampleKind::kCpu, askedMs},
                                {SampleKind::kProcessCpu, askedMs},
                                {SampleKind::kProcessMemory, askedMs}}});
    for (const auto& [name, bytes] : files) {
        builder->Scan(SourceOf(name).value(), bytes);
    }
    builder->BeginReport();
    for (const auto& [name, bytes] : files) {
        builder->Take(SourceOf(name).value(), bytes);
    }
    return builder;
}

TEST(ReportModel, SharesAreThoseOfTheTicksBetweenTheSamples) {
    const std::string cpu = Record(kSecond, 0, Cpu(1000, 500, 500)) +
                            Record(2 * kSecond, 1, Cpu(1100, 550, 550)) +
                            Record(3 * kSecond, 2, Cpu(1100, 550, 750));
    const auto builder = Build({{"data/SystemCpuUsage.data", cpu}});
    const Report& report = builder->report();
    EXPECT_EQ(report.processors, 2u);
    EXPECT_DOUBLE_EQ(report.seconds(), 2);
    EXPECT_DOUBLE_EQ(report.cpuShare[kUser], 25);
    EXPECT_DOUBLE_EQ(report.cpuShare[kIdle], 62.5);
    EXPECT_FLOAT_EQ(report.cpu[kUser].At(0).value(), 50);
    EXPECT_FLOAT_EQ(report.cpu[kUser].At(1).value(), 0);
    EXPECT_EQ(report.quality.at(SampleKind::kCpu).gaps, 0u);
}

TEST(ReportModel, ASingleProcessorStandsOutOfAll) {
    const auto line = [](uint64_t busy, uint64_t waiting, uint64_t idle) {
        return fmt::format(
            "cpu  9 0 0 9 0 0 0 0\ncpu0 1 0 0 {2} {1} 0 0 0\ncpu7 0 0 {0} 1 0 0 0 0\n"
            "cpu9 bad\n",
            busy, waiting, idle);
    };
    const auto builder =
        Build({{"data/SystemCpuUsage.data", Record(kSecond, 0, line(0, 0, 0)) +
                                                Record(2 * kSecond, 1, line(100, 40, 60)) +
                                                Record(3 * kSecond, 2, line(100, 40, 160))}});
    const Report& report = builder->report();
    ASSERT_EQ(report.cores.size(), 2u);
    EXPECT_DOUBLE_EQ(report.cores.at(0).busyPeak, 0);
    EXPECT_DOUBLE_EQ(report.cores.at(7).busyShare(), 100);
    EXPECT_FLOAT_EQ(report.cores.at(7).busy.At(0).value(), 100);
    EXPECT_FALSE(report.cores.at(7).busy.At(1).has_value());
    EXPECT_EQ(report.BusiestCores(1), std::vector<uint32_t>{7});
}

TEST(ReportModel, MemoryInUseIsWhatIsNotAvailable) {
    const auto meminfo = [](int available) {
        return fmt::format("MemTotal: 1000 kB\nMemFree: 100 kB\nMemAvailable: {} kB\n", available);
    };
    const auto builder = Build({{"data/Memory.data", Record(kSecond, 0, meminfo(600)) +
                                                         Record(2 * kSecond, 1, meminfo(200))}});
    EXPECT_EQ(builder->report().memoryUsedPeak, 800u * 1024);
    EXPECT_DOUBLE_EQ(builder->report().memoryUsedMean, 600.0 * 1024);
}

// The size of a page follows from the virtual memory: 6,553,600 bytes are 100 pages.
constexpr double kPage = 65536;

TEST(ReportModel, ALifeOfAProcessIsOneThingWithAStart) {
    const std::string name = "a) S (b";
    const auto builder = Build(
        {{"data/SystemCpuUsage.data",
          Record(kSecond, 0, Cpu(1, 1, 1)) + Record(20 * kSecond, 1, Cpu(2, 2, 2))},
         {"data/7-CpuUsage.data", Record(kSecond, 0, Stat(name, 100, 1000, 5)) +
                                      Record(2 * kSecond, 1, Stat(name, 150, 1200, 5)) +
                                      Record(3 * kSecond, 2, Stat("self", 160, 1400, 5)) +
                                      Record(4 * kSecond, 3, Stat("unnoticed", 9, 1600, 300)) +
                                      Record(5 * kSecond, 4, Stat("unnoticed", 19, 1800, 300)) +
                                      // The first record of this life is lost.
                                      Record(9 * kSecond, 1, Stat("next", 5, 2000, 800)) +
                                      Record(10 * kSecond, 2, Stat("next", 205, 2200, 800)) +
                                      Record(12 * kSecond, 0, Stat("last", 7, 2400, 1100))},
         // The second and the third process have none.
         {"data/7-Memory.data", Record(kSecond, 0, Statm(3)) + Record(2 * kSecond, 1, Statm(2)) +
                                    Record(12 * kSecond, 0, Statm(9))}});
    const Report& report = builder->report();
    struct Wanted {
        std::string name;
        uint64_t from, to;  // seconds
        double cpuSeconds, cpuPeak, residentPeak, residentLast;
    };
    // 60 of 400 ticks of two processors in 2 s. Those that begin have their ticks up to the first
    // sample as well.
    const Wanted table[] = {{name, 1, 3, 0.6, 50, 3 * kPage, 2 * kPage},
                            {"unnoticed", 4, 5, 0.09 + 0.1, 10, 0, 0},
                            {"next", 9, 10, 2 + 0.05, 200, 0, 0},
                            {"last", 12, 12, 0.07, 0, 9 * kPage, 9 * kPage}};
    ASSERT_EQ(report.processes.size(), std::size(table));
    EXPECT_EQ(report.pageSize, kPage);
    for (size_t i = 0; i < std::size(table); ++i) {
        const ProcessReport& process = report.processes[i];
        EXPECT_EQ(process.name, table[i].name);
        EXPECT_EQ(process.firstTime, table[i].from * kSecond) << process.name;
        EXPECT_EQ(process.lastTime, table[i].to * kSecond) << process.name;
        EXPECT_NEAR(process.cpuSeconds, table[i].cpuSeconds, 1e-9) << process.name;
        EXPECT_DOUBLE_EQ(process.cpuPeak, table[i].cpuPeak) << process.name;
        EXPECT_DOUBLE_EQ(process.residentPeak, table[i].residentPeak) << process.name;
        EXPECT_DOUBLE_EQ(process.residentLast, table[i].residentLast) << process.name;
    }
    EXPECT_EQ(report.BusiestByCpu(1), std::vector<size_t>{2});
    const SamplingQuality& quality = report.quality.at(SampleKind::kProcessCpu);
    EXPECT_EQ(quality.gaps, 0u);
    EXPECT_EQ(quality.missing, 1u);
    EXPECT_EQ(quality.damaged, 0u);
}

TEST(ReportModel, ARecordThatStandsAloneStretchesNothing) {
    const auto builder =
        Build({{"data/SystemCpuUsage.data",
                Record(10 * kSecond, 0, Cpu(1, 1, 1)) + Record(30 * kSecond, 1, Cpu(2, 2, 2))},
               {"data/7-CpuUsage.data", Record(18'000 * kSecond, 0, Stat("damaged", 100, 1000, 5))},
               {"data/8-CpuUsage.data", Record(3, 0, Stat("damaged", 100, 1000, 5))},
               {"data/9-CpuUsage.data", Record(31 * kSecond, 0, Stat("just begun", 1, 1000, 99))}});
    EXPECT_DOUBLE_EQ(builder->report().seconds(), 21);
    ASSERT_EQ(builder->report().processes.size(), 1u);
    EXPECT_EQ(builder->report().processes[0].name, "just begun");
    EXPECT_EQ(builder->report().quality.at(SampleKind::kProcessCpu).damaged, 2u);
}

TEST(ReportModel, ALongProfileHasBoundedSeriesWithTheSameMean) {
    std::string cpu;
    for (uint64_t i = 0; i < 2001; ++i) {
        cpu += Record((i + 1) * kSecond, i, Cpu(i * 30, i * 20, i * 50));
    }
    const auto builder = Build({{"data/SystemCpuUsage.data", cpu}});
    const Report& report = builder->report();
    EXPECT_LE(report.grid.steps, Grid::kMaxSteps);
    for (size_t step = 0; step + 1 < report.grid.steps; ++step) {
        ASSERT_NEAR(report.cpu[kUser].At(step).value(), 30, 1e-3) << step;
    }
}

// Each field of the kernel's lines has a value of its own.
TEST(ReportSamples, EveryFieldIsTheKernelsOwn) {
    const auto cpu = ReadCpuSample("cpu  1 2 4 8 16 32 64 128 256 512\ncpu0 1\nintr 5\n").value();
    EXPECT_EQ(cpu.ticks, (CpuTicks{1, 2, 4, 32 + 64, 128, 16, 8}));
    EXPECT_EQ(cpu.processors, 1u);
    const auto process = ReadProcessCpuSample(
                             "7 (a b) R 4 5 6 7 8 9 10 11 12 13 1400 150 16 17 18 19 20 21 22 23 24"
                             "\nProcessName:a b\ncpu  1 2 4 8 16 32 64 128 256 512\n")
                             .value();
    EXPECT_EQ(process.ticks, 1550u);
    EXPECT_EQ(process.threads, 20u);
    EXPECT_EQ(process.startTime, 22u);
    EXPECT_EQ(process.virtualBytes, 23u);
    EXPECT_EQ(process.machineTicks, 255u);
    const auto memory = ReadProcessMemorySample("100 20 3 4 5 6 7\nProcessName:x\n").value();
    EXPECT_EQ(memory.virtualPages, 100u);
    EXPECT_EQ(memory.residentPages, 20u);
}

struct DamageCase {
    const char* name;
    std::function<void(std::vector<std::string>*)> damage;
    uint64_t samples, damaged, missing, gaps;
};

class Damage : public testing::TestWithParam<DamageCase> {};

// Twenty samples, one a second; each costs itself alone.
TEST_P(Damage, CostsItsRecords) {
    std::vector<std::string> records;
    for (uint64_t i = 0; i < 20; ++i) {
        records.push_back(Record((i + 1) * kSecond, i, Cpu(i * 100, 0, i * 100)));
    }
    GetParam().damage(&records);
    std::string bytes;
    for (const std::string& record : records) {
        bytes += record;
    }
    const auto builder = Build({{"data/SystemCpuUsage.data", bytes}});
    const Report& report = builder->report();
    const SamplingQuality& quality = report.quality.at(SampleKind::kCpu);
    EXPECT_EQ(quality.samples, GetParam().samples);
    EXPECT_EQ(quality.damaged, GetParam().damaged);
    EXPECT_EQ(quality.missing, GetParam().missing);
    EXPECT_EQ(quality.gaps, GetParam().gaps);
    EXPECT_DOUBLE_EQ(report.cpuShare[kUser], 50);
    EXPECT_LE(report.seconds(), 19);
}

using Records = std::vector<std::string>;
INSTANTIATE_TEST_SUITE_P(
    ReportModel, Damage,
    testing::Values(
        DamageCase{"none", [](Records*) {}, 20, 0, 0, 0},
        DamageCase{"cut_off", [](Records* r) { r->back().resize(50); }, 19, 1, 0, 0},
        DamageCase{"no_start", [](Records* r) { (*r)[9][0] = 'x'; }, 19, 1, 0, 1},
        DamageCase{"length_too_long", [](Records* r) { (*r)[9].insert(36, "9"); }, 19, 1, 0, 1},
        DamageCase{"garbage_between", [](Records* r) { (*r)[9] += "garbage\n\n"; }, 20, 1, 0, 0},
        DamageCase{"lost", [](Records* r) { r->erase(r->begin() + 5, r->begin() + 8); }, 17, 0, 3,
                   1},
        DamageCase{"time_jumps", [](Records* r) { (*r)[9].insert(10, "9"); }, 19, 1, 0, 1},
        DamageCase{"first_time_jumps", [](Records* r) { (*r)[0].insert(10, "9"); }, 19, 1, 0, 0},
        DamageCase{"second_time_falls", [](Records* r) { (*r)[1].replace(10, 10, "1"); }, 19, 1, 0,
                   1},
        DamageCase{"last_time_jumps", [](Records* r) { r->back().insert(10, "99999"); }, 19, 1, 0,
                   0},
        DamageCase{"doubled", [](Records* r) { r->insert(r->begin() + 9, (*r)[9]); }, 20, 1, 0, 0},
        DamageCase{"number_jumps", [](Records* r) { (*r)[9].insert(29, "99"); }, 19, 1, 0, 1}),
    [](const auto& one) { return one.param.name; });

TEST(ReportOutput, NothingOfADeviceIsMarkup) {
    const std::string evil = "</script><i evil>\xff";
    const auto builder =
        Build({{"data/7-CpuUsage.data", Record(kSecond, 0, Stat(evil, 1, 9, 5)) +
                                            Record(2 * kSecond, 1, Stat(evil, 5, 19, 5))}});
    ReportInput input;
    input.others.push_back({"data/<i evil>", 9, 1, "<i evil>\n"});
    input.manifest = {{"reason", "<i evil>"}};
    const std::string page = ReportPage(builder->report(), input);
    EXPECT_EQ(page.find("<i evil>"), std::string::npos);
    EXPECT_EQ(page.find(evil), std::string::npos);
    EXPECT_NE(page.find("\\u003c/script>"), std::string::npos);
    const auto trace = nlohmann::json::parse(ReportTrace(builder->report(), input));
    EXPECT_GT(trace["traceEvents"].size(), 2u);
}

}  // namespace
}  // namespace orla::host
