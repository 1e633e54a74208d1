#include <malloc.h>
#include <unistd.h>

#include <cstdio>

#include "daemon/ide_daemon.h"

namespace {

// Blocks of this size and above go back to the system when they are freed. Left to itself the C
// library keeps more and more of them: chunks of 2 MiB that stay between others.
constexpr int kLargeBlock = 1 << 20;

}  // namespace

int main() {
    mallopt(M_MMAP_THRESHOLD, kLargeBlock);
    // What is said there is of use while the daemon runs; it goes to a file or a journal then.
    static_cast<void>(std::setvbuf(stdout, nullptr, _IOLBF, 0));
    const int result = IdeDaemonRun();
    // Detached session threads may still run: static objects must not be destroyed under them.
    std::fflush(nullptr);
    _exit(result);
}
