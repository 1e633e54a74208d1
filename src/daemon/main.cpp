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
    // A file or a journal gets each line at once: the lines are of use while the daemon runs.
    static_cast<void>(std::setvbuf(stdout, nullptr, _IOLBF, 0));
    const int result = IdeDaemonRun();
    // Detached session threads may still run: static objects must not be destroyed under them.
    std::fflush(nullptr);
    _exit(result);
}
