#include "host/end_signals.h"

#include <ctime>
#include <initializer_list>

namespace orla::host {

EndSignals::EndSignals() {
    sigemptyset(&set_);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        sigaddset(&set_, number);
    }
    pthread_sigmask(SIG_BLOCK, &set_, &before_);
}

EndSignals::~EndSignals() {
    // Signals that were counted have had their effect. A signal that is still pending has it now.
    pthread_sigmask(SIG_SETMASK, &before_, nullptr);
}

void EndSignals::Wait(std::chrono::milliseconds most) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(most);
    const timespec left{seconds.count(), std::chrono::nanoseconds(most - seconds).count()};
    if (sigtimedwait(&set_, nullptr, &left) > 0 && ++count_ == 2) {
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
}

}  // namespace orla::host
