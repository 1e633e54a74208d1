// What it costs to sample all processes: microseconds of CPU per process and sample, with 500
// processes that sleep, every 100 ms, beside the least that can do the reading, in the same run and
// in turn, so that a busy machine is busy for all alike. The sampler pays for everything up to the
// messages that a host takes: listing, reading, records, buffers, chunks, the uploader's thread.
//
// The limit on open files decides whether the sampler keeps its files open, so it is measured under
// a high and under a low one, each in a process of its own. Then other programs that look at all
// processes, where they are installed; and the timer while nothing is due.
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "emulation/control.h"
#include "figure.h"
#include "profiling/collect/proc_handlers.h"
#include "profiling/collect/prof_timer.h"
#include "profiling/config/job_records.h"
#include "profiling/datapath/uploader.h"

namespace {
std::atomic<uint64_t> allocations{0};
}

void* operator new(size_t size) {
    ++allocations;
    if (void* block = malloc(size); block != nullptr) {
        return block;
    }
    throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
    free(block);
}
void operator delete(void* block, size_t) noexcept {
    free(block);
}

namespace {

using namespace Analysis::Nedra::JobWrapper;
using analysis::nedra::message::JobContext;
using analysis::nedra::message::ProfileParams;
using analysis::nedra::transport::ITransport;
using analysis::nedra::transport::kUploaderCapacity;
using analysis::nedra::transport::Uploader;
using orla::bench::Figure;
using orla::bench::Median;
using std::chrono::milliseconds;

const int kSleepers = orla::bench::Smoke() ? 20 : 500;
const int kSamples = orla::bench::Smoke() ? 3 : 40;
constexpr milliseconds kPace{100};
constexpr const char* kFiles[] = {"stat", "statm", "comm"};
constexpr rlim_t kManyFiles = 4096;
constexpr rlim_t kFewFiles = 256;
const milliseconds kIdle{orla::bench::Smoke() ? 200 : 3000};

void Check(bool good, const char* what) {
    if (!good) {
        fmt::print(stderr, "sampling_bench: {} failed\n", what);
        exit(1);
    }
}

double Seconds(clockid_t clock) {
    timespec now = {};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

double CpuSeconds() {
    return Seconds(CLOCK_PROCESS_CPUTIME_ID);
}

std::vector<std::string> Processes() {
    std::vector<std::string> dirs;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") == std::string::npos) {
            dirs.push_back(entry.path());
        }
    }
    return dirs;
}

// Ended and waited for with the object, and ended with the program if that comes first.
class Sleepers {
public:
    Sleepers();
    ~Sleepers() {
        std::for_each(pids_.begin(), pids_.end(), [](pid_t pid) { kill(pid, SIGKILL); });
        std::for_each(pids_.begin(), pids_.end(), [](pid_t pid) { waitpid(pid, nullptr, 0); });
    }

private:
    std::vector<pid_t> pids_;
};

Sleepers::Sleepers() {
    for (int i = 0; i < kSleepers; ++i) {
        const pid_t child = fork();
        Check(child >= 0, "fork");
        if (child == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;) {
                pause();
            }
        }
        pids_.push_back(child);
    }
}

// ---- Ways to sample ------------------------------------------------------------------------

struct Way {
    std::string name;
    std::function<void()> sample;
    std::vector<double> cpu;  // microseconds of each sample, of all processes
    std::vector<double> allocations = {};
};

void ReadBare(const std::vector<std::string>& paths) {
    char buffer[4096];
    for (const std::string& path : paths) {
        const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            static_cast<void>(!read(fd, buffer, sizeof(buffer)));
            close(fd);
        }
    }
}

void ReadKept(const std::vector<int>& fds) {
    char buffer[4096];
    for (const int fd : fds) {
        static_cast<void>(!pread(fd, buffer, sizeof(buffer), 0));
    }
}

void ListBare() {
    const int fd = open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    char buffer[32768];
    while (getdents64(fd, buffer, sizeof(buffer)) > 0) {
    }
    close(fd);
}

// A host that takes everything at once.
class Sink : public ITransport {
public:
    int SendBuffer(const void*, int length) override { return length; }
    int CloseSession() override { return 0; }
    void WriteDone() override {}
    int SendVeltBuffer(void*, int) override { return -1; }
    int RecvPacket(IdeRequest**) override { return -1; }
    void DestroyPacket(IdeRequest*) override {}
};

class Sampler {
    static constexpr uint64_t kInterval = 1000;  // ns

public:
    Sampler() : uploader_(std::make_shared<Uploader>(std::make_shared<Sink>())) {
        Check(uploader_->Init(kUploaderCapacity) == 0 && uploader_->Start() == 0, "uploader");
        const auto jobCtx = std::make_shared<JobContext>();
        jobCtx->dev_id = "0";
        jobCtx->job_id = "1234567890123456789";
        handler_ = std::make_unique<ProcAllPidsFileHandler>(
            PROF_ALL_PID, 0, kInterval,
            SampleRoad{std::make_shared<ProfileParams>(),
                       std::make_shared<const std::string>(jobCtx->ToString()),
                       std::make_shared<SampleSender>(uploader_)});
        Check(handler_->Init() == 0, "handler");
    }
    ~Sampler() {
        handler_->Uninit();
        uploader_->Stop(false);
    }
    void Sample() {
        // A sampler that finds the queue full asks for a later turn.
        while (handler_->Execute(1) > 1 + kInterval) {
            Check(uploader_->Flush(), "flush");
        }
        Check(uploader_->Flush(), "flush");
    }

private:
    std::shared_ptr<Uploader> uploader_;
    std::unique_ptr<ProcAllPidsFileHandler> handler_;
};

// ---- Measuring -----------------------------------------------------------------------------

void SetFileLimit(rlim_t count) {
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min(count, limit.rlim_max);
    Check(setrlimit(RLIMIT_NOFILE, &limit) == 0, "setrlimit");
}

// Microseconds of our sampler.
double Compare(rlim_t fileLimit) {
    SetFileLimit(fileLimit);
    const std::vector<std::string> processes = Processes();
    std::vector<std::string> paths;
    std::vector<int> kept;
    std::vector<int> needed;
    for (const std::string& dir : processes) {
        for (const char* file : kFiles) {
            paths.push_back(dir + "/" + file);
        }
    }
    Sampler sampler;
    std::vector<Way> ways = {{"open, read, close", [&] { ReadBare(paths); }, {}},
                             {"sampler", [&] { sampler.Sample(); }, {}}};
    if (fileLimit == kManyFiles) {
        for (const std::string& path : paths) {
            kept.push_back(open(path.c_str(), O_RDONLY));
            if (path.compare(path.size() - 4, 4, "comm") != 0) {
                needed.push_back(kept.back());
            }
        }
        ways.push_back({"pread of kept descriptors", [&] { ReadKept(kept); }, {}});
        ways.push_back({"the same without comm", [&] { ReadKept(needed); }, {}});
        ways.push_back({"listing, and the same",
                        [&] {
                            ListBare();
                            ReadKept(needed);
                        },
                        {}});
    }
    auto next = std::chrono::steady_clock::now();
    for (int i = 0; i < kSamples; ++i) {
        for (Way& way : ways) {
            const double before = CpuSeconds();
            const uint64_t allocatedBefore = allocations;
            way.sample();
            way.allocations.push_back(static_cast<double>(allocations - allocatedBefore));
            way.cpu.push_back((CpuSeconds() - before) * 1e6);
            // The next way finds the caches as cold as this one did.
            std::this_thread::sleep_until(next += kPace);
        }
    }
    const auto count = static_cast<double>(processes.size());
    const double bare = Median(ways.front().cpu) / count;
    fmt::print("at most {} open files, {} processes\n", fileLimit, processes.size());
    for (const Way& way : ways) {
        const double cpu = Median(way.cpu) / count;
        fmt::print("  {:<32}{:6.2f} us  {:5.2f} of bare\n", way.name, cpu, cpu / bare);
    }
    const std::string figure = fmt::format("sample of a process, {} open files", fileLimit);
    const double ours = Median(ways[1].cpu) / count;
    Figure(figure, "us", ours, bare, "open, read, close of its files");
    if (fileLimit == kManyFiles) {
        Figure(figure, "us", ours, Median(ways[3].cpu) / count, "pread of its kept files");
        Figure(figure, "us", ours, Median(ways[4].cpu) / count, "the same, and listing /proc");
    }
    // The first samples take what the others use again. A process that comes meanwhile costs some.
    std::vector<double>& taken = ways[1].allocations;
    taken.erase(taken.begin(), taken.begin() + static_cast<std::ptrdiff_t>(taken.size() / 2));
    fmt::print("  allocations in each of the last {} samples: {} at least, {} in the median\n",
               taken.size(), *std::min_element(taken.begin(), taken.end()), Median(taken));
    return ours;
}

// A program of this machine, which takes `samples` of all processes, beside `ours`.
void MeasureProgram(const std::string& name, const std::string& command, int samples, double ours) {
    const auto count = static_cast<double>(Processes().size());
    rusage before = {};
    getrusage(RUSAGE_CHILDREN, &before);
    const int status = std::system(("exec " + command + " >/dev/null 2>&1").c_str());
    rusage after = {};
    getrusage(RUSAGE_CHILDREN, &after);
    if (status != 0) {
        fmt::print("  {:<32}not installed\n", name);
        return;
    }
    const auto cpu = [](const rusage& usage) {
        return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) * 1e6 +
               static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
    };
    Figure(fmt::format("sample of a process, {} open files", kManyFiles), "us", ours,
           (cpu(after) - cpu(before)) / count / samples, name);
}

double IdleCpu(const std::function<void()>& idle) {
    const double before = CpuSeconds();
    const double start = Seconds(CLOCK_MONOTONIC);
    idle();
    return (CpuSeconds() - before) / (Seconds(CLOCK_MONOTONIC) - start);
}

// Three handlers that are never due, beside a thread that sleeps a millisecond at a time; the least
// is to sleep once.
void MeasureIdleTimer() {
    constexpr uint64_t kNever = 3600000000000;  // an hour
    auto& timers = TimerManager::instance();
    Check(timers.StartProfTimer(), "timer");
    for (const uint32_t tag : {PROF_SYS_STAT, PROF_SYS_MEM, PROF_ALL_PID}) {
        const auto handler = std::make_shared<ProcStatFileHandler>(
            SampleSpec{tag, 0, 8192, kNever, "/proc/none", "x"}, SampleRoad{});
        Check(handler->Init() == 0, "handler");
        timers.RegisterTimerHandler(tag, handler);
    }
    std::this_thread::sleep_for(kPace);  // the first samples
    const double timer = IdleCpu([] { std::this_thread::sleep_for(kIdle); });
    for (const uint32_t tag : {PROF_SYS_STAT, PROF_SYS_MEM, PROF_ALL_PID}) {
        timers.RemoveTimerHandler(tag);
    }
    timers.StopProfTimer();
    const double bare = IdleCpu([] {
        for (const double end =
                 Seconds(CLOCK_MONOTONIC) + std::chrono::duration<double>(kIdle).count();
             Seconds(CLOCK_MONOTONIC) < end;) {
            mmSleep(1);
        }
    });
    Figure("timer with nothing due, of a processor", "%", timer * 100, bare * 100,
           "sleeps of 1 ms");
}

// In a process of its own: the limit on open files is looked at once.
void Apart(const std::function<void()>& body) {
    fflush(stdout);
    const pid_t child = fork();
    Check(child >= 0, "fork");
    if (child == 0) {
        body();
        fflush(stdout);
        _exit(0);
    }
    int status = 0;
    Check(waitpid(child, &status, 0) == child && status == 0, "the measuring process");
}

}  // namespace

int main() {
    orla::control::SetLogLevel(orla::control::LogLevel::kError);
    const Sleepers sleepers;
    Apart([] {
        const double ours = Compare(kManyFiles);
        if (orla::bench::Smoke()) {
            return;
        }
        MeasureProgram("pidstat -u -r, each second", "pidstat -u -r -p ALL 1 5", 6, ours);
        MeasureProgram("top -b, every 100 ms", "top -b -d 0.1 -n 40", 40, ours);
    });
    Apart([] { static_cast<void>(Compare(kFewFiles)); });
    Apart(MeasureIdleTimer);
    return 0;
}
