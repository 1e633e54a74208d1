// Tells the system's application monitor that the daemon is alive: a registration, then a
// heartbeat every three seconds, from a thread of its own ("ide_monitor"). Without a monitor on
// this device that thread ends at once, and the daemon is merely not watched.
//
// Component of slot 17: the main thread starts it last and stops it first.
//
//             connected          registered
//   starting ----------> connected ----------> registered
//      |                    |                      |
//      `--------------------+----------------------+----> stopped
#pragma once

#include <cstdint>

// Starts the thread. 0, or -1 when it could not be made.
[[nodiscard]] int32_t IdeMonitorStart();

// Ends the watching and the thread: waits for a call of the client that is under way, for no
// pause. The result of the join, 0 when there was no thread.
int32_t IdeMonitorStop();
