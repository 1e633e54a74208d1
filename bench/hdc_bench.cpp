// Throughput of HdcWrite to HdcRead between two processes, as a ratio to a bare Unix socket
// that carries the same frames in the same run, and the round trip of one small message on both.
//
// The bare peer does the least that can be done: frames that were made once, written with one
// call each, and read into one buffer that is used again and again.
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "figure.h"
#include "hdc/hdc_api.h"

namespace {

using orla::bench::Figure;
using orla::bench::Median;
using Clock = std::chrono::steady_clock;

constexpr int kService = kHdcServiceRequests;
constexpr int kRounds = 5;
constexpr int kPings = 20000;
constexpr int kSocketBuffer = 1 << 20;
constexpr uint32_t kFrameHeader = 4;

double Seconds(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

[[noreturn]] void Die(const char* what) {
    fmt::print(stderr, "hdc_bench: {} failed\n", what);
    _exit(1);
}

void Check(bool good, const char* what) {
    if (!good) {
        Die(what);
    }
}

// One end of a message stream.
struct Road {
    std::function<void(const std::string&)> write;
    std::function<void()> read;  // one whole message
};

// ---- The bare socket --------------------------------------------------------------------------

void WriteAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t done = write(fd, data, size);
        Check(done > 0, "write");
        data += done;
        size -= static_cast<size_t>(done);
    }
}

void ReadAll(int fd, char* data, size_t size) {
    while (size > 0) {
        const ssize_t done = read(fd, data, size);
        Check(done > 0, "read");
        data += done;
        size -= static_cast<size_t>(done);
    }
}

// The frames of a message, back to back, exactly as the session layer would send them.
std::vector<std::string> Frames(size_t size, uint32_t maxSegment) {
    std::vector<std::string> frames;
    const std::string message(size, 'm');
    auto remaining = static_cast<uint32_t>(size);
    while (remaining > 0) {
        const uint32_t limit = maxSegment - orla::kSegmentOverhead;
        const uint32_t length = std::min(remaining, limit) + orla::kSegmentOverhead;
        std::string frame(kFrameHeader + length, '\0');
        frame.replace(0, kFrameHeader, reinterpret_cast<const char*>(&length), kFrameHeader);
        remaining -= orla::CutSegment(message.data(), remaining, limit,
                                      reinterpret_cast<IdeHdcPacket*>(frame.data() + kFrameHeader));
        frames.push_back(std::move(frame));
    }
    return frames;
}

Road BareRoad(int fd, size_t size, uint32_t maxSegment) {
    auto frames = std::make_shared<std::vector<std::string>>(Frames(size, maxSegment));
    auto buffer = std::make_shared<std::string>(kFrameHeader + maxSegment, '\0');
    return {[fd, frames](const std::string&) {
                for (const std::string& frame : *frames) {
                    WriteAll(fd, frame.data(), frame.size());
                }
            },
            [fd, frames, buffer] {
                for (size_t i = 0; i < frames->size(); ++i) {
                    uint32_t length = 0;
                    ReadAll(fd, reinterpret_cast<char*>(&length), kFrameHeader);
                    ReadAll(fd, buffer->data(), length);
                }
            }};
}

Road HdcRoad(const HdcSessionPtr& session) {
    return {[session](const std::string& message) {
                Check(HdcWrite(session, message.data(), static_cast<int>(message.size())) == 0,
                      "HdcWrite");
            },
            [session] {
                void* buffer = nullptr;
                uint32_t length = 0;
                Check(HdcRead(session, &buffer, &length) == kHdcReadDone, "HdcRead");
                std::free(buffer);
            }};
}

// ---- Measuring --------------------------------------------------------------------------------

// The child reads `count` messages and answers with one; then it sends back `pings` messages.
void Serve(const Road& road, int count, int pings, const std::string& answer) {
    for (int i = 0; i < count; ++i) {
        road.read();
    }
    road.write(answer);
    for (int i = 0; i < pings; ++i) {
        road.read();
        road.write(answer);
    }
}

struct Figures {
    double bytesPerSecond;
    double roundTripMicroseconds;
};

Figures Drive(const Road& road, int count, int pings, const std::string& message) {
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i) {
        road.write(message);
    }
    road.read();
    const double sent = Seconds(start);
    const auto pinging = Clock::now();
    for (int i = 0; i < pings; ++i) {
        road.write(message);
        road.read();
    }
    return {static_cast<double>(message.size()) * count / sent,
            pings > 0 ? Seconds(pinging) / pings * 1e6 : 0};
}

void WaitForChild(pid_t child) {
    int status = 0;
    waitpid(child, &status, 0);
    Check(WIFEXITED(status) && WEXITSTATUS(status) == 0, "the reading process");
}

Figures MeasureBare(int count, int pings, const std::string& message, uint32_t maxSegment) {
    int ends[2];
    Check(socketpair(AF_UNIX, SOCK_STREAM, 0, ends) == 0, "socketpair");
    for (const int end : ends) {
        setsockopt(end, SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof(kSocketBuffer));
        setsockopt(end, SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof(kSocketBuffer));
    }
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        Serve(BareRoad(ends[1], message.size(), maxSegment), count, pings, message);
        _exit(0);
    }
    close(ends[1]);
    const Figures figures =
        Drive(BareRoad(ends[0], message.size(), maxSegment), count, pings, message);
    close(ends[0]);
    WaitForChild(child);
    return figures;
}

Figures MeasureHdc(int count, int pings, const std::string& message) {
    int ready[2];
    Check(pipe(ready) == 0, "pipe");
    const pid_t child = fork();
    if (child == 0) {
        const HdcServerPtr server = HdcServerCreate(0, kService);
        Check(server != nullptr, "HdcServerCreate");
        WriteAll(ready[1], "r", 1);
        const HdcSessionPtr session = HdcServerAccept(server);
        Check(session != nullptr, "HdcServerAccept");
        Serve(HdcRoad(session), count, pings, message);
        void* buffer = nullptr;
        uint32_t length = 0;
        // The driving end closes first, so that its last read is never cut off.
        static_cast<void>(HdcRead(session, &buffer, &length));
        HdcSessionClose(session);
        HdcServerDestroy(server);
        _exit(0);
    }
    close(ready[1]);
    char byte = 0;
    ReadAll(ready[0], &byte, 1);
    close(ready[0]);
    const drvHdcClient_t client = HdcClientCreate(kService);
    HdcSessionPtr session;
    Check(client != nullptr && HdcSessionConnect(0, 0, client, &session) == 0, "connect");
    const Figures figures = Drive(HdcRoad(session), count, pings, message);
    HdcSessionClose(session);
    HdcClientDestroy(client);
    WaitForChild(child);
    return figures;
}

void Report(size_t size, int count, int pings) {
    std::vector<double> hdcRate, bareRate, hdcTrip, bareTrip;
    uint32_t maxSegment = 0;
    Check(HdcGetCapacity(&maxSegment) == 0, "HdcGetCapacity");
    const std::string message(size, 'm');
    for (int round = 0; round < kRounds; ++round) {
        const Figures bare = MeasureBare(count, pings, message, maxSegment);
        const Figures hdc = MeasureHdc(count, pings, message);
        bareRate.push_back(bare.bytesPerSecond);
        hdcRate.push_back(hdc.bytesPerSecond);
        bareTrip.push_back(bare.roundTripMicroseconds);
        hdcTrip.push_back(hdc.roundTripMicroseconds);
    }
    constexpr double kMega = 1e6;
    Figure(fmt::format("session, messages of {} B", size), "MB/s", Median(hdcRate) / kMega,
           Median(bareRate) / kMega, "bare socket");
    fmt::print("{:<26}{:>12.1f}{:>14.1f}{:>8.2f}\n", fmt::format("MB/s, {} B messages", size),
               Median(hdcRate) / kMega, Median(bareRate) / kMega,
               Median(hdcRate) / Median(bareRate));
    if (pings > 0) {
        fmt::print("{:<26}{:>12.2f}{:>14.2f}{:>8.2f}\n", fmt::format("round trip us, {} B", size),
                   Median(hdcTrip), Median(bareTrip), Median(hdcTrip) / Median(bareTrip));
        Figure(fmt::format("session, round trip of {} B", size), "us", Median(hdcTrip),
               Median(bareTrip), "bare socket");
    }
}

}  // namespace

int main() {
    fmt::print("{:<26}{:>12}{:>14}{:>8}\n", "HDC between two processes", "hdc", "bare socket",
               "ratio");
    std::fflush(stdout);
    Report(64, 200000, kPings);
    Report(64 << 10, 20000, 0);
    Report(2 << 20, 1000, 0);
    return 0;
}
