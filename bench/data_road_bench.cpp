// The road of profiling data, from prof_channel_read to the host process, and what it costs beside
// the bare transport that carries the same segments, in the same run. Device and host are two
// processes, new for each measurement; the CPU time of both is told.
//
// The bare transport does the least that can be done: one segment, made once, sent again and
// again, and received without being looked at. The road reads, encodes, queues, frames and joins.
// Its channels are without limit, so the host is always behind and the queue full; of 512 messages
// what is sent has left the caches long before. That is memory's price and not the road's, as the
// bare transport out of as much memory and the road with a short queue show.
#include <fmt/format.h>
#include <hdc_driver.h>
#include <malloc.h>
#include <prof_driver.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "emulation/control.h"
#include "figure.h"
#include "hdc/hdc_api.h"
#include "profiling/datapath/hdc_transport.h"
#include "profiling/datapath/prof_channel.h"
#include "profiling/datapath/reader_buffer.h"
#include "profiling/datapath/uploader_mgr.h"

namespace {

using analysis::nedra::message::JobContext;
using analysis::nedra::transport::ChannelPoll;
using analysis::nedra::transport::ChannelReader;
using analysis::nedra::transport::EncodeFileChunk;
using analysis::nedra::transport::FileChunkInfo;
using analysis::nedra::transport::HDCTransportFactory;
using analysis::nedra::transport::kUploaderCapacity;
using analysis::nedra::transport::ReaderBuffer;
using analysis::nedra::transport::Uploader;
using analysis::nedra::transport::UploaderMgr;
using orla::bench::Figure;
using orla::bench::Median;
using Clock = std::chrono::steady_clock;

constexpr int kService = kHdcServiceRequests;
constexpr int kRounds = 3;
constexpr size_t kChunk = 2 << 20;  // what a full reader uploads at a time
constexpr int kChunks = 2000;
constexpr double kBytes = double{kChunk} * kChunks;
constexpr uint64_t kRecords = uint64_t{kChunk} * kChunks / 32;
constexpr uint64_t kShortQueue = 4;
constexpr int kChannels = 8;
constexpr char kJob[] = "bench";
const FileChunkInfo kInfo = {"data/bench.data.0.slice_0", false, 3};
const std::string kJobCtx = R"({"dev_id":"0","job_id":"bench"})";

[[noreturn]] void Die(const char* what) {
    fmt::print(stderr, "data_road_bench: {} failed\n", what);
    _exit(1);
}

void Check(bool good, const char* what) {
    if (!good) {
        Die(what);
    }
}

double Seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

double CpuSeconds(const rusage& usage) {
    return Seconds(usage.ru_utime) + Seconds(usage.ru_stime);
}

double OwnCpuSeconds() {
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    return CpuSeconds(usage);
}

// ---- Both ends of each way -----------------------------------------------------------------

// Channels without a rate limit, which together have the bytes of all chunks.
std::string Scenario(int count) {
    std::string channels;
    for (int i = 1; i <= count; ++i) {
        channels += fmt::format(R"({}{{"id": {}, "rate": "unlimited", "records": {}}})",
                                i > 1 ? "," : "", i, kRecords / static_cast<uint64_t>(count));
    }
    return fmt::format(R"({{"devices": [{{"logical": 0, "channels": [{}]}}]}})", channels);
}

using End = std::function<void(drvHdcSession_t)>;

struct Way {
    End device;  // sends all chunks, and ends the session or leaves it open
    End host;    // receives all of them
};

void StartChannel(uint32_t channel) {
    ProfStartPara para = {};
    para.realTime = 1;
    Check(prof_drv_start(0, channel, &para) == 0, "prof_drv_start");
}

// Sends out of `size` bytes of memory, round and round; with `reads` after the driver has written
// the next chunk there, which is the least that a road from a channel can do.
void BareDevice(drvHdcSession_t session, size_t size, bool reads) {
    uint32_t maxSegment = 0;
    Check(HdcGetCapacity(&maxSegment) == 0, "HdcGetCapacity");
    std::string source(std::max<size_t>(size, maxSegment), 's');
    drvHdcMsg_t message = nullptr;
    Check(drvHdcAllocMsg(session, &message, 1) == 0, "drvHdcAllocMsg");
    if (reads) {
        Check(orla::control::LoadScenario(Scenario(1)).empty(), "LoadScenario");
        StartChannel(1);
    }
    size_t at = 0;
    for (int i = 0; i < kChunks; ++i) {
        at = at + kChunk > source.size() ? 0 : at;
        Check(!reads || prof_channel_read(0, 1, &source[at], kChunk) == int{kChunk}, "read");
        for (size_t left = kChunk; left > 0;) {
            const size_t length = std::min<size_t>(left, maxSegment);
            at = at + length > source.size() ? 0 : at;
            Check(drvHdcAddMsgBuffer(message, &source[at], static_cast<int>(length)) == 0 &&
                      halHdcSend(session, message, HDC_FLAG_WAIT, 0) == 0 &&
                      drvHdcReuseMsg(message) == 0,
                  "bare send");
            left -= length;
            at += length;
        }
    }
    drvHdcFreeMsg(message);
}

void BareHost(drvHdcSession_t session) {
    drvHdcMsg_t message = nullptr;
    Check(drvHdcAllocMsg(session, &message, 1) == 0, "drvHdcAllocMsg");
    for (size_t left = kChunk * kChunks; left > 0;) {
        int count = 0;
        char* buffer = nullptr;
        int length = 0;
        Check(halHdcRecv(session, message, 0, HDC_FLAG_WAIT, &count, 0) == 0 &&
                  drvHdcGetMsgBuffer(message, 0, &buffer, &length) == 0 &&
                  drvHdcReuseMsg(message) == 0,
              "bare receive");
        left -= static_cast<size_t>(length);
    }
    drvHdcFreeMsg(message);
}

Way Bare(size_t size, bool reads) {
    return {[=](drvHdcSession_t session) { BareDevice(session, size, reads); }, BareHost};
}

// Reads until the device has sent everything.
void RoadHost(drvHdcSession_t handle) {
    const HdcSessionPtr session = HdcSession::Adopt(handle);
    size_t total = 0;
    void* buffer = nullptr;
    uint32_t length = 0;
    while (HdcRead(session, &buffer, &length) == kHdcReadDone) {
        total += length;
        std::free(buffer);
    }
    Check(total > kChunk * kChunks, "the last read");
}

void AwaitLastRead(uint32_t channel, uint64_t records) {
    while (orla::control::CountsOf(0, channel).delivered < records) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// What a job does: its readers at the poll, all that the channels have, the readers' rests.
void RoadDevice(drvHdcSession_t session, uint64_t capacity, int channels) {
    Check(orla::control::LoadScenario(Scenario(channels)).empty(), "LoadScenario");
    auto& mgr = UploaderMgr::instance();
    auto transport = HDCTransportFactory().CreateHdcTransport(HdcSession::Adopt(session));
    Check(mgr.CreateUploader(kJob, std::move(transport), capacity) == 0, "uploader");
    const auto jobCtx = std::make_shared<JobContext>();
    jobCtx->job_id = kJob;
    ChannelPoll poll;
    Check(poll.Start() == 0, "poll");
    for (int i = 1; i <= channels; ++i) {
        const auto reader = std::make_shared<ChannelReader>(0, i, kInfo.fileName, jobCtx);
        Check(reader->Init() == 0, "reader");
        poll.AddReader(0, static_cast<uint32_t>(i), reader);
        StartChannel(static_cast<uint32_t>(i));
    }
    for (int i = 1; i <= channels; ++i) {
        AwaitLastRead(static_cast<uint32_t>(i), kRecords / static_cast<uint64_t>(channels));
        poll.RemoveReader(0, static_cast<uint32_t>(i));
    }
    Check(poll.Stop() == 0, "poll");
    std::shared_ptr<Uploader> uploader;
    mgr.GetUploader(kJob, uploader);
    uploader->Stop(false);
    uploader.reset();
    mgr.DelUploader(kJob);
}

Way Road(uint64_t capacity, int channels) {
    return {[=](drvHdcSession_t session) { RoadDevice(session, capacity, channels); }, RoadHost};
}

// ---- Measuring -----------------------------------------------------------------------------

struct Figures {
    double bytesPerSecond;
    double deviceCpu;  // seconds per GB, as the next
    double hostCpu;
};

[[noreturn]] void RunDevice(const Way& way, int ready) {
    mallopt(M_MMAP_THRESHOLD, 1 << 20);  // as the daemon's main() does
    drvHdcServer_t server = nullptr;
    Check(drvHdcServerCreate(0, kService, &server) == 0 && write(ready, "r", 1) == 1, "the server");
    drvHdcSession_t session = nullptr;
    Check(drvHdcSessionAccept(server, &session) == 0, "accept");
    way.device(session);
    _exit(0);
}

[[noreturn]] void RunHost(const Way& way) {
    const drvHdcClient_t client = HdcClientCreate(kService);
    drvHdcSession_t session = nullptr;
    Check(client != nullptr && drvHdcSessionConnect(0, 0, client, &session) == 0, "connect");
    way.host(session);
    _exit(0);
}

// CPU seconds per GB of a child that ends well.
double Await(pid_t child) {
    rusage usage = {};
    int status = 0;
    wait4(child, &status, 0, &usage);
    Check(WIFEXITED(status) && WEXITSTATUS(status) == 0, "a child");
    return CpuSeconds(usage) / kBytes * 1e9;
}

// Device and host are new processes each time: this one has no memory that they would have to
// copy when they write to it.
Figures Measure(const Way& way) {
    int ready[2];
    Check(pipe(ready) == 0, "pipe");
    const pid_t device = fork();
    if (device == 0) {
        RunDevice(way, ready[1]);
    }
    char byte = 0;
    Check(read(ready[0], &byte, 1) == 1, "the device");
    const auto start = Clock::now();
    const pid_t host = fork();
    if (host == 0) {
        RunHost(way);
    }
    const double hostCpu = Await(host);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    close(ready[0]);
    close(ready[1]);
    return {kBytes / seconds, Await(device), hostCpu};
}

// One step alone, in this thread; CPU seconds per GB.
double MeasureStep(const std::function<void()>& step) {
    const double cpu = OwnCpuSeconds();
    for (int i = 0; i < kChunks; ++i) {
        step();
    }
    return (OwnCpuSeconds() - cpu) / kBytes * 1e9;
}

struct Series {
    std::vector<double> rate, device, host;

    void Add(const Figures& figures) {
        rate.push_back(figures.bytesPerSecond);
        device.push_back(figures.deviceCpu);
        host.push_back(figures.hostCpu);
    }
    double Cpu() const { return Median(device) + Median(host); }
};

void Print(const char* what, const Series& series, const Series& bare) {
    fmt::print("{:<34}{:>9.0f}{:>8.2f}{:>10.3f}{:>9.3f}{:>8.2f}\n", what, Median(series.rate) / 1e6,
               Median(series.rate) / Median(bare.rate), Median(series.device), Median(series.host),
               series.Cpu() / bare.Cpu());
}

// Against the transport that sends one segment again and again, and against one that sends out of
// as much memory as the full queue holds.
void PrintFigures(const std::string& what, const Series& series, const Series& bare,
                  const Series& cold) {
    Figure(what + ", full queue", "MB/s", Median(series.rate) / 1e6, Median(bare.rate) / 1e6,
           "bare transport, one segment");
    Figure(what + ", full queue", "MB/s", Median(series.rate) / 1e6, Median(cold.rate) / 1e6,
           "bare transport out of 1 GB");
    Figure(what + ", full queue", "s/GB", series.Cpu(), bare.Cpu(), "bare transport, one segment");
    Figure(what + ", full queue", "s/GB", series.Cpu(), cold.Cpu(), "bare transport out of 1 GB");
}

void PrintSteps() {
    const auto print = [](const char* what, const std::function<void()>& step) {
        fmt::print("{:<34}{:>27.3f}\n", what, MeasureStep(step));
    };
    const std::string source(kChunk, 'd');
    std::string target(kChunk, '\0');
    print("  memcpy", [&] {
        std::memcpy(target.data(), source.data(), kChunk);
        asm volatile("" ::: "memory");
    });
    Check(orla::control::LoadScenario(Scenario(1)).empty(), "LoadScenario");
    StartChannel(1);
    print("  prof_channel_read",
          [&] { Check(prof_channel_read(0, 1, target.data(), kChunk) == int{kChunk}, "read"); });
    print("  encode, copied",
          [&] { Check(EncodeFileChunk(source, kInfo, kJobCtx) != nullptr, "encode"); });
    ReaderBuffer buffer(kChunk, kInfo, kJobCtx);
    print("  encode, in place", [&] {
        Check(buffer.Data() != nullptr && buffer.TakeMessage(kChunk) != nullptr, "encode");
    });
}

}  // namespace

int main() {
    const struct {
        const char* what;
        Way way;
    } ways[] = {
        {"bare transport", Bare(0, false)},
        {"bare transport, out of 1 GB", Bare(kUploaderCapacity * kChunk, false)},
        {"driver's read and bare transport", Bare(2 * kChunk, true)},
        {"1 channel, 512 messages wait", Road(kUploaderCapacity, 1)},
        {"8 channels, 512 messages wait", Road(kUploaderCapacity, kChannels)},
        {"1 channel, 4 messages wait", Road(kShortQueue, 1)},
        {"8 channels, 4 messages wait", Road(kShortQueue, kChannels)},
    };
    std::vector<Series> figures(std::size(ways));
    for (int round = 0; round < kRounds; ++round) {
        for (size_t i = 0; i < std::size(ways); ++i) {
            figures[i].Add(Measure(ways[i].way));
        }
    }
    fmt::print("{:<34}{:>9}{:>8}{:>10}{:>9}{:>8}\n", "prof_channel_read to host", "MB/s", "ratio",
               "device", "host s/GB", "ratio");
    for (size_t i = 0; i < std::size(ways); ++i) {
        Print(ways[i].what, figures[i], figures[0]);
    }
    PrintSteps();
    PrintFigures("data road, 1 channel", figures[3], figures[0], figures[1]);
    PrintFigures("data road, 8 channels", figures[4], figures[0], figures[1]);
    Figure("data road, 1 channel, short queue", "MB/s", Median(figures[5].rate) / 1e6,
           Median(figures[0].rate) / 1e6, "bare transport, one segment");
    Figure("data road, 1 channel, short queue", "s/GB", figures[5].Cpu(), figures[0].Cpu(),
           "bare transport, one segment");
    return 0;
}
