#include "profiling/datapath/thread_pool.h"

#include <exception>

#include "hdc/log_side.h"
#include "profiling/datapath/bound_queue.h"
#include "profiling/datapath/thread.h"

namespace analysis::nedra::common::thread {

using Analysis::Nedra::TraceletErrMgr::TraceletErrorManager;

namespace {

void RunTask(Task& task) {
    // One bad task must not take the worker from all the others of its id.
    try {
        task.Execute();
    } catch (const std::exception& e) {
        PROF_LOGE("Task ends by an exception, message: %s", e.what());
    } catch (...) {
        PROF_LOGE("Task ends by an unknown exception");
    }
}

}  // namespace

class ThreadPool::InnnerThread : public Thread {
public:
    explicit InnnerThread(uint64_t queueSize) : queueSize_(queueSize) {}
    ~InnnerThread() override { static_cast<void>(InnnerThread::Stop()); }

    int Start() override {
        try {
            // A queue that has quit stays so: each start needs a new one.
            queue_ = std::make_shared<TaskQueue>(queueSize_);
        } catch (const std::exception& e) {
            PROF_LOGE("make shared failed, message: %s", e.what());
            return -1;
        }
        queue_->SetQueueName(GetThreadName());
        if (Thread::Start() != 0) {
            return -1;
        }
        workerStarted_ = true;
        return 0;
    }

    int Stop() override {
        if (!workerStarted_.exchange(false)) {
            return 0;
        }
        queue_->Quit();
        return Thread::Stop();
    }

    [[nodiscard]] bool Push(std::shared_ptr<Task> task) { return queue_->Push(std::move(task)); }

protected:
    void Run(const TraceletErrorContext& context) override {
        TraceletErrorManager::instance().SetErrorContext(context);
        for (;;) {
            // Asked before the queue is looked at: the queue has quit before the thread is asked
            // to, so what is queued later than this answer cannot be missed.
            const bool isLastLook = IsQuit();
            std::shared_ptr<Task> task;
            if (!queue_->TryPop(task)) {
                if (isLastLook) {
                    return;
                }
                queue_->Pop(task);
            }
            if (task != nullptr) {
                RunTask(*task);
            }
        }
    }

private:
    using TaskQueue = queue::BoundQueue<std::shared_ptr<Task>>;

    const uint64_t queueSize_;
    std::atomic<bool> workerStarted_{false};
    std::shared_ptr<TaskQueue> queue_;  // unchanged while the worker runs
};

ThreadPool::ThreadPool(LoadBalanceMethod method, uint32_t threadNum)
    : threadNum_(threadNum), method_(method) {}

ThreadPool::~ThreadPool() {
    Stop();
}

int ThreadPool::Start() {
    if (threadNum_ == 0) {
        return -1;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    if (started_) {
        return 0;
    }
    for (uint32_t i = 0; i < threadNum_; ++i) {
        if (!AddWorker(i)) {
            return -1;
        }
    }
    started_ = true;
    return 0;
}

// False when memory is out. A worker whose thread cannot be made is left out.
bool ThreadPool::AddWorker(uint32_t index) {
    std::shared_ptr<InnnerThread> worker;
    try {
        worker = std::make_shared<InnnerThread>(queueSize_);
    } catch (const std::exception& e) {
        PROF_LOGE("make shared failed, message: %s", e.what());
        return false;
    }
    worker->SetThreadName(namePrefix_ + std::to_string(index));
    if (worker->Start() == 0) {
        workers_.push_back(std::move(worker));
    }
    return true;
}

int ThreadPool::Stop() {
    started_ = false;
    std::vector<std::shared_ptr<InnnerThread>> workers;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        workers.swap(workers_);
    }
    for (const auto& worker : workers) {
        if (worker->Stop() != 0) {
            PROF_LOGE("Failed to stop thread: %s", worker->GetThreadName().c_str());
        }
    }
    return 0;
}

bool ThreadPool::Dispatch(std::shared_ptr<Task> task) {
    if (task == nullptr || !started_) {
        return false;
    }
    const std::shared_ptr<InnnerThread> worker = Choose(*task);
    return worker != nullptr && worker->Push(std::move(task));
}

std::shared_ptr<ThreadPool::InnnerThread> ThreadPool::Choose(Task& task) {
    const auto key = method_ == LoadBalanceMethod::kById ? static_cast<uint32_t>(task.HashId())
                                                         : dispatchCount_.fetch_add(1);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!workers_.empty()) {
        return workers_[key % static_cast<uint32_t>(workers_.size())];
    }
    if (started_) {
        PROF_LOGE("No worker of thread pool %s runs, task refused", namePrefix_.c_str());
    }
    return nullptr;
}

}  // namespace analysis::nedra::common::thread
