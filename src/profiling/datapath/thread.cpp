#include "profiling/datapath/thread.h"

#include <exception>

#include "hdc/log_side.h"

namespace analysis::nedra::common::thread {

using Analysis::Nedra::TraceletErrMgr::TraceletErrorManager;

namespace {

constexpr uint32_t kStackSize = 128 * 1024;
constexpr size_t kUnnamedLength = 16;

// Whose Run this thread is in. The handle would not do: the new thread may look at it before
// its creator has stored it.
thread_local const Thread* current = nullptr;

}  // namespace

Thread::Thread() : threadName_(kUnnamedLength, '\0') {}

Thread::~Thread() {
    if (Thread::Stop() != 0) {
        PROF_LOGW("Failed to stop thread.");
    }
}

int Thread::Start() {
    if (started_) {
        return 0;
    }
    mmUserBlock_t routine{};
    routine.procFunc = Entry;
    routine.pulArg = this;
    mmThreadAttr attributes{};
    attributes.stackFlag = 1;
    attributes.stackSize = kStackSize;
    quit_ = false;
    context_ = TraceletErrorManager::instance().GetErrorManagerContext();
    if (mmCreateTaskWithThreadAttr(&handle_, &routine, &attributes) != EN_OK) {
        handle_ = 0;
        return -1;
    }
    started_ = true;
    return 0;
}

int Thread::Stop() {
    quit_ = true;
    if (current == this) {
        return -1;
    }
    // Of two that stop the thread at once only one may join it.
    if (!started_.exchange(false)) {
        return 0;
    }
    if (handle_ == 0) {
        return 0;
    }
    if (mmJoinTask(&handle_) != EN_OK) {
        return -1;
    }
    handle_ = 0;
    return 0;
}

void Thread::SetQuit() {
    quit_ = true;
}

void* Thread::Entry(void* argument) {
    auto* thread = static_cast<Thread*>(argument);
    current = thread;
    // Whoever destroys the object waits for this to return first, so the name is there to the end;
    // a copy of it would need memory outside of what catches its lack.
    try {
        thread->RunNamed();
    } catch (const std::exception& e) {
        PROF_LOGE("Thread %s ends by an exception, message: %s", thread->threadName_.c_str(),
                  e.what());
    } catch (...) {
        PROF_LOGE("Thread %s ends by an unknown exception", thread->threadName_.c_str());
    }
    return nullptr;
}

void Thread::RunNamed() {
    mmSetCurrentThreadName(threadName_.c_str());
    PROF_LOGI("New thread %s begins to run", threadName_.c_str());
    Run(context_);
}

}  // namespace analysis::nedra::common::thread
