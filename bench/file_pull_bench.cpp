// One large file, and then many small ones, from the file component to the host tool's receiver,
// against the same files that a bare loop reads, sends in messages of the same size over the same
// transport, and writes: both and their ratio, in one run. Needs the directories of a device,
// which the sandbox has.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "figure.h"
#include "file_service/velt_get_file_server.h"
#include "hdc/hdc_api.h"
#include "hdc/velt_packet.h"
#include "host/device_session.h"
#include "host/file_pull.h"

namespace {

using Clock = std::chrono::steady_clock;

const int kRounds = orla::bench::Rounds(3);
constexpr int kBareService = 4;
constexpr const char* kTarget = "/tmp/pulled";

struct Load {
    const char* type;
    const char* directory;
    int files;
    uint64_t size;  // of each; none is a multiple of a slice
};
const Load kLarge{"bbox", "/var/log/npu/sablebox_logs/", 1,
                  orla::bench::Smoke() ? 8ull << 20 : 512ull << 20};
constexpr Load kSmall{"stackcore", "/var/log/npu/coredump/", 500, 20000};

[[noreturn]] void Die(const char* what) {
    fmt::print(stderr, "file_pull_bench: {} failed\n", what);
    _exit(1);
}

void Check(bool good, const char* what) {
    if (!good) {
        Die(what);
    }
}

double Seconds(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void MakeSource(const Load& load) {
    std::vector<char> block(1 << 20);
    for (size_t i = 0; i < block.size(); ++i) {
        block[i] = static_cast<char>(i * 131 + (i >> 8));
    }
    for (int file = 0; file < load.files; ++file) {
        const std::string path = load.directory + std::to_string(file);
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        Check(fd >= 0, path.c_str());
        for (uint64_t left = load.size; left > 0;) {
            const auto count = std::min<uint64_t>(left, block.size());
            Check(write(fd, block.data(), count) == static_cast<ssize_t>(count), "write");
            left -= count;
        }
        close(fd);
    }
}

// All files of the directory that the host names, in slices.
void ServeBare(const HdcSessionPtr& session, std::vector<char>& block) {
    void* request = nullptr;
    uint32_t length = 0;
    Check(HdcRead(session, &request, &length) == kHdcReadDone, "bare request");
    const orla::HeapBlock owned(static_cast<char*>(request));
    const std::string directory(owned.get(), length);
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        const int fd = open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
        ssize_t count = 0;
        while ((count = read(fd, block.data(), block.size())) > 0) {
            Check(HdcWrite(session, block.data(), static_cast<int>(count)) == 0, "bare write");
        }
        close(fd);
    }
    HdcSessionClose(session);
}

// A process with both servers: the file component, and a loop that does no more than it must.
pid_t StartDevice(int* ready) {
    int ends[2];
    Check(pipe(ends) == 0, "pipe");
    const pid_t child = fork();
    if (child != 0) {
        close(ends[1]);
        *ready = ends[0];
        return child;
    }
    Check(VeltGetFileServerStart() == 0, "file server");
    const HdcServerPtr server = HdcServerCreate(0, kBareService);
    Check(server != nullptr && write(ends[1], "r", 1) == 1, "bare server");
    std::vector<char> block(Velt::kMaxSliceSize);
    while (true) {
        const HdcSessionPtr session = HdcServerAccept(server);
        Check(session != nullptr, "accept");
        ServeBare(session, block);
    }
}

// Both answer the seconds that it took.
double PullBare(const Load& load) {
    const auto client = orla::host::Client::Create(kBareService);
    const auto start = Clock::now();
    const auto session = client->Connect(0);
    Check(session != nullptr && session->Send(load.directory), "connect");
    int files = 0;
    int fd = -1;
    std::string message;
    while (session->Receive(-1, &message) == orla::host::ReceiveResult::kMessage) {
        if (fd < 0) {
            const std::string path = kTarget + std::to_string(files++);
            fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        }
        Check(write(fd, message.data(), message.size()) == static_cast<ssize_t>(message.size()),
              "write");
        if (message.size() < Velt::kMaxSliceSize) {
            close(std::exchange(fd, -1));
        }
    }
    Check(files == load.files, "bare transfer");
    return Seconds(start);
}

double PullFiles(const Load& load) {
    const auto client = orla::host::Client::Create(kHdcServiceFramework);
    const auto start = Clock::now();
    const auto session = client->Connect(0);
    Check(session != nullptr, "connect");
    orla::host::FilePull pull({"/tmp/bench", false, 60000, nullptr});
    Check(pull.Run(*session, load.type) == orla::host::PullEnd::kDone &&
              pull.files().size() == static_cast<size_t>(load.files),
          "pull");
    for (const auto& file : pull.files()) {
        Check(file.bytes == load.size && file.problem.empty(), "pull");
    }
    return Seconds(start);
}

struct Times {
    double pulled;
    double bare;
};

Times Measure(const Load& load) {
    std::vector<double> pulled, bare;
    for (int round = 0; round < kRounds; ++round) {
        bare.push_back(PullBare(load));
        pulled.push_back(PullFiles(load));
    }
    return {orla::bench::Median(pulled), orla::bench::Median(bare)};
}

void Report(const char* what, const char* unit, double pulled, double bare) {
    fmt::print("{:<26}{:<6}{:>12.3f}{:>14.3f}{:>8.2f}\n", what, unit, pulled, bare, pulled / bare);
    orla::bench::Figure("pull of " + std::string(what), unit, pulled, bare,
                        "read, bare transport, write");
}

}  // namespace

int main() {
    MakeSource(kLarge);
    MakeSource(kSmall);
    int ready = -1;
    const pid_t device = StartDevice(&ready);
    char byte = 0;
    Check(read(ready, &byte, 1) == 1, "device");
    // The framework opens its server in a round of its own.
    const auto client = orla::host::Client::Create(kHdcServiceFramework);
    for (int tries = 0; client->Connect(0) == nullptr; ++tries) {
        Check(tries < 500, "framework");
        usleep(10000);
    }
    const Times large = Measure(kLarge);
    const Times small = Measure(kSmall);
    kill(device, SIGKILL);
    waitpid(device, nullptr, 0);
    const double gigabytes = static_cast<double>(kLarge.size) / 1e9;
    fmt::print("{:<32}{:>12}{:>14}{:>8}\n", "", "pull", "bare loop", "ratio");
    Report("one file of 512 MiB", "GB/s", gigabytes / large.pulled, gigabytes / large.bare);
    Report("500 files of 20 kB", "s", small.pulled, small.bare);
    return 0;
}
