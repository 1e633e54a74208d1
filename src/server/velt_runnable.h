// An object with one thread of its own: the base of the server manager.
//
// Start, Stop and Join may be called from any threads, also at once, but not by the object's
// own thread. A derived class calls RefuseStart and Stop in its destructor, since its Run must
// not go on when its members are gone.
#pragma once

#include <portability.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>

namespace Velt {

class Runnable {
public:
    Runnable() = default;
    Runnable(const Runnable&) = delete;
    Runnable& operator=(const Runnable&) = delete;
    virtual ~Runnable();

    // Starts the thread, with a stack of 128 KiB. 0, or -1 when the object is running already,
    // may not start any more, or no thread can be made.
    [[nodiscard]] virtual int Start();
    // Asks Run to end and waits until the thread has ended, joining it unless somebody sits in
    // Join. Always 0. The wait lasts as long as Run takes to look at IsQuit.
    virtual int Stop();
    // The body of the thread. Returns soon after IsQuit turns true.
    virtual void Run() = 0;

    bool IsQuit() const { return quit_.load(); }
    // The name of the thread from the next start on.
    void SetName(const std::string& name);
    // Waits until the thread has ended; returns at once when there is none.
    void Join();

protected:
    // Part of Stop, after IsQuit has turned true and before the wait for the thread: ends what Run
    // may be blocked in for longer than a moment. Also called when no thread runs.
    virtual void Wake() {}
    // From now on every Start fails.
    void RefuseStart();

private:
    static void* ThreadBody(void* object);

    std::atomic<bool> quit_{false};

    std::mutex mutex_;  // guards the rest
    std::condition_variable ended_;
    mmThread thread_ = 0;  // 0: none
    bool joining_ = false;
    bool running_ = false;
    bool refuseStart_ = false;
    std::string name_ = "velt";
};

}  // namespace Velt
