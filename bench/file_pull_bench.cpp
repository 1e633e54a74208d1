// One large file from the file component to the host tool's receiver, against the same file
// that a bare loop reads, sends in messages of the same size over the same transport, and
// writes: GB/s of both and their ratio, in one run. Needs the directories of a device, which
// the sandbox has.
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
#include <vector>

#include "figure.h"
#include "file_service/velt_get_file_server.h"
#include "hdc/hdc_api.h"
#include "hdc/velt_packet.h"
#include "host/device_session.h"
#include "host/file_pull.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint64_t kFileSize = 512ull << 20;
constexpr int kRounds = 3;
constexpr int kBareService = 4;
constexpr const char* kSource = "/var/log/npu/sablebox_logs/bench";
constexpr const char* kTarget = "/tmp/pulled";

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

void MakeSource() {
    std::vector<char> block(1 << 20);
    for (size_t i = 0; i < block.size(); ++i) {
        block[i] = static_cast<char>(i * 131 + (i >> 8));
    }
    const int fd = open(kSource, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    Check(fd >= 0, kSource);
    for (uint64_t done = 0; done < kFileSize; done += block.size()) {
        Check(write(fd, block.data(), block.size()) == static_cast<ssize_t>(block.size()), "write");
    }
    close(fd);
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
        const int fd = open(kSource, O_RDONLY | O_CLOEXEC);
        ssize_t count = 0;
        while ((count = read(fd, block.data(), block.size())) > 0) {
            Check(HdcWrite(session, block.data(), static_cast<int>(count)) == 0, "bare write");
        }
        close(fd);
        HdcSessionClose(session);
    }
}

double PullBare() {
    const auto client = orla::host::Client::Create(kBareService);
    const auto start = Clock::now();
    const auto session = client->Connect(0);
    Check(session != nullptr, "connect");
    const int fd = open(kTarget, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    uint64_t total = 0;
    std::string message;
    while (session->Receive(-1, &message) == orla::host::ReceiveResult::kMessage) {
        Check(write(fd, message.data(), message.size()) == static_cast<ssize_t>(message.size()),
              "write");
        total += message.size();
    }
    close(fd);
    Check(total == kFileSize, "bare transfer");
    return static_cast<double>(total) / Seconds(start);
}

double PullFile() {
    const auto client = orla::host::Client::Create(kHdcServiceFramework);
    const auto start = Clock::now();
    const auto session = client->Connect(0);
    Check(session != nullptr, "connect");
    orla::host::FilePull pull({"/tmp/bench", false, 60000, nullptr});
    Check(pull.Run(*session, "bbox") == orla::host::PullEnd::kDone && pull.files().size() == 1 &&
              pull.files()[0].bytes == kFileSize && pull.files()[0].problem.empty(),
          "pull");
    return static_cast<double>(kFileSize) / Seconds(start);
}

}  // namespace

int main() {
    MakeSource();
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
    std::vector<double> pulled, bare;
    for (int round = 0; round < kRounds; ++round) {
        bare.push_back(PullBare());
        pulled.push_back(PullFile());
    }
    kill(device, SIGKILL);
    waitpid(device, nullptr, 0);
    fmt::print("{:<26}{:>12}{:>14}{:>8}\n", "one file of 512 MiB", "pull", "bare loop", "ratio");
    fmt::print("{:<26}{:>12.2f}{:>14.2f}{:>8.2f}\n", "GB/s", orla::bench::Median(pulled) / 1e9,
               orla::bench::Median(bare) / 1e9,
               orla::bench::Median(pulled) / orla::bench::Median(bare));
    orla::bench::Figure("pull of one file of 512 MiB", "GB/s", orla::bench::Median(pulled) / 1e9,
                        orla::bench::Median(bare) / 1e9, "read, bare transport, write");
    return 0;
}
