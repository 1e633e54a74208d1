// A thread as an object: the base of everything in the profiling agent that runs for long.
//
//              Start                    SetQuit, Stop                  joined
//   no thread --------> running -----------------------> asked to quit -------> no thread
//
// A thread is asked to end and ends by itself: Run looks at IsQuit between its steps. What else
// may hold it up (a queue, a read) the derived class ends in its own Stop, before Thread::Stop.
//
// The owner calls Start; it must not overlap Stop or another Start. Stop, SetQuit and IsQuit may
// be called on any thread at any time in between. An object never joins its own thread: a Stop
// on that thread is refused. A derived class stops its thread in its own destructor, before its
// members go; the destructor here comes too late for that.
//
// Stacks have 128 KiB.
#pragma once

#include <portability.h>

#include <atomic>
#include <string>

#include "profiling/datapath/tracelet_error_manager.h"

namespace analysis::nedra::common::thread {

using Analysis::Nedra::TraceletErrMgr::TraceletErrorContext;

class Thread {
public:
    Thread();
    virtual ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Starts the thread; a quit asked for earlier is forgotten. 0, also when it was started
    // already; -1 when it could not be made, and the caller says so.
    [[nodiscard]] virtual int Start();
    // Asks the thread to quit and waits for its end. 0, also when it was not started; -1 when it
    // could not be joined, because the caller is the thread itself (it goes on counting as
    // started, another thread can still stop it) or the system refused.
    [[nodiscard]] virtual int Stop();
    // Only asks; nobody is woken and nothing waited for.
    virtual void SetQuit();

    // Of a thread that is not started. The kernel's copy is cut to 15 bytes.
    void SetThreadName(const std::string& name) { threadName_ = name; }
    [[nodiscard]] const std::string& GetThreadName() const { return threadName_; }
    [[nodiscard]] bool IsQuit() const { return quit_; }

protected:
    // The thread's body. An exception that leaves it ends the thread with a log line.
    virtual void Run(const TraceletErrorContext& context) = 0;

private:
    static void* Entry(void* argument);
    void RunNamed();

    mmThread handle_ = 0;  // 0: no thread. Of Start, and of the one Stop that clears started_
    std::atomic<bool> quit_{false};
    std::atomic<bool> started_{false};
    // Unchanged while the thread runs.
    std::string threadName_;
    TraceletErrorContext context_;
};

}  // namespace analysis::nedra::common::thread
