// What a ThreadPool runs. The pool shares the task with its maker and lets it go after its run.
#pragma once

#include <cstdint>

namespace analysis::nedra::common::thread {

class Task {
public:
    virtual ~Task() = default;

    // Runs on a worker with a stack of 128 KiB. The result is for the log of others at most:
    // the pool ignores it. An exception costs a log line and nothing else.
    virtual int Execute() = 0;
    // Tasks with the same value run on the same worker, in the order of their dispatch, when the
    // pool balances by it. Any thread, at any time.
    [[nodiscard]] virtual uint64_t HashId() = 0;
};

}  // namespace analysis::nedra::common::thread
