// The sessions of one server manager, and the components that serve them: one thread a session,
// one request each.
//
//     manager thread:  accept -> Take -> session thread: read, find component, Process, close
//
// Session threads are detached and hold shares of this object, so that one which outlives the
// server's end touches nothing that is gone. They count themselves in from before their start:
// End closes the sessions under them, which fails their reads and writes, and waits for the
// count.
#pragma once

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "server/velt_component.h"

namespace Velt {

class VeltSessions : public std::enable_shared_from_this<VeltSessions> {
public:
    // `patience`: how long End waits for session threads.
    explicit VeltSessions(std::chrono::milliseconds patience = std::chrono::seconds(5))
        : patience_(patience) {}

    // ---- Before the first session, on any thread ----

    // The option that the sessions belong to.
    void SetCommOptType(int32_t type) { commOptType_ = type; }
    // False for null and for a type that is there already.
    [[nodiscard]] bool AddComponent(std::unique_ptr<VeltComponent> component);
    // Init of all components, in the order of their types.
    void InitComponents();

    // ---- The manager's thread ----

    // Hands a session to a thread of its own. False when no thread can be had, or memory is out:
    // the session is then closed.
    [[nodiscard]] bool Take(const CommHandle& session);

    // ---- The end, on any thread ----

    // Closes all sessions and waits for their threads, but not for ever; then UnInit of all
    // components, which go. Threads that are still in a component by then keep them, and the
    // last one out does it. Called once, when the manager's thread has ended.
    void End();

private:
    // What a session thread is started with; it owns the record.
    struct Served {
        std::shared_ptr<VeltSessions> sessions;
        CommHandle session;
    };
    static void* SessionThread(void* argument);

    bool StartThread(const CommHandle& session);
    bool Enter(const CommHandle& session);
    void ServeRequest(const CommHandle& session);
    void Finish(CommHandle session);
    void LeaveThread();
    void CloseAll();
    void UnInitComponents();
    VeltComponent* FindComponent(int32_t type);

    const std::chrono::milliseconds patience_;
    int32_t commOptType_ = kCommOptNone;  // constant once sessions come

    std::mutex mutex_;  // guards the rest
    std::map<int32_t, std::unique_ptr<VeltComponent>> components_;
    int32_t lastComponentType_ = kComponentNone;
    // Sessions to be closed. Whoever takes one out closes it, so that none is closed twice.
    std::set<int64_t> open_;
    uint32_t threads_ = 0;
    bool abandoned_ = false;  // End no longer waits
    std::condition_variable threadsChanged_;
};

}  // namespace Velt
