#include <unistd.h>

#include <cstdio>

#include "daemon/ide_daemon.h"

int main() {
    const int result = IdeDaemonRun();
    // Detached session threads may still run: static objects must not be destroyed under them.
    std::fflush(nullptr);
    _exit(result);
}
