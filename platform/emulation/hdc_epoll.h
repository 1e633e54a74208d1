// The event wait: a set of servers and sessions, and the wait for one of them, over epoll.
//
// Level-triggered. An entry reports what its source finds when it is looked at, so a server
// appears only when a session can really be had. The set refers to its sources weakly; a source
// that is closed takes itself out (Forget). Any thread may change the set while others wait.
#pragma once

#include <hdc_driver.h>

#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "event_source.h"
#include "handle_table.h"
#include "hdc_socket.h"

namespace orla::emulation {

class EventWait : public std::enable_shared_from_this<EventWait> {
public:
    // `size`: events that one wait hands out at most.
    explicit EventWait(int size);

    // False when the system gave no descriptors.
    [[nodiscard]] bool valid() const { return poll_.valid() && closed_.valid(); }

    // DRV_ERROR_NOT_SUPPORT for a session that has received something.
    [[nodiscard]] int Add(HandleValue handle, const std::shared_ptr<EventSource>& source,
                          const drvHdcEvent& event);
    // False when it isn't in the set.
    [[nodiscard]] bool Remove(HandleValue handle);
    // Takes out a source that closes, wherever it is.
    static void Forget(HandleValue handle, EventSource* source);

    // DRV_ERROR_NONE with `*count` events, none after `timeoutMs` (-1: never).
    [[nodiscard]] int Wait(drvHdcEvent* events, int maxEvents, int timeoutMs, int* count);
    // Empties the set and makes every wait fail.
    void Close();

private:
    struct Entry {
        std::weak_ptr<EventSource> source;
        drvHdcEvent event;
        int fd;
    };
    struct Noticed {
        HandleValue handle;
        uint32_t epollEvents;
    };

    [[nodiscard]] int Look(int room, int timeoutMs, std::vector<Noticed>* noticed);
    [[nodiscard]] bool Report(const Noticed& noticed, drvHdcEvent* event);

    const int size_;
    const UniqueFd poll_;
    const UniqueFd closed_;  // an eventfd, readable after Close

    std::mutex mutex_;
    std::map<HandleValue, Entry> entries_;  // guarded by mutex_
};

}  // namespace orla::emulation
