// The slices of a recording of the control CPU that wait to be resolved, in the directory where the
// script writes them. The script writes one a second, whatever becomes of them; a host that does
// not read holds up the thread that resolves and sends. So a thread of its own looks once a second
// and drops the oldest, when those that wait are too many or too large.
//
//     ai_ctrl_cpu.data.0          made empty by the job, 2 dots: no slice
//     ai_ctrl_cpu.data.0.S        a slice of the script, 3 dots
//     ai_ctrl_cpu.data.0.S.txt    its text, 4 dots: no slice
//
// The names of the script's slices sort by their age. A PerfExtraTask owns the object and calls it
// on its own thread.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "profiling/datapath/thread.h"

namespace Analysis::Nedra::JobWrapper {

class PerfSlices : public analysis::nedra::common::thread::Thread {
public:
    // Bounds what waits to `maxCount` slices of `maxBytes` together. Neither the newest slice,
    // which may be in writing, nor the one that is taken counts. `dir` has no dot in its path.
    PerfSlices(const std::string& dir, uint64_t maxBytes, size_t maxCount);
    ~PerfSlices() override;

    // Their full paths, in the order of their names.
    [[nodiscard]] std::vector<std::string> Find() const;
    // Keeps a slice from being dropped, until another one is taken. False when it has gone.
    [[nodiscard]] bool Take(const std::string& file);
    // Counts a slice whose data the host does not get whole; logs the total each time that it has
    // doubled.
    void CountLost();
    [[nodiscard]] unsigned long long Lost() const;

    // As Thread's, and the thread ends at once.
    void SetQuit() override;
    [[nodiscard]] int Stop() override;

protected:
    void Run(const analysis::nedra::common::thread::TraceletErrorContext& context) override;

private:
    void DropOldest();  // with the mutex held
    void CountLocked(size_t count);

    const std::string dir_;
    const uint64_t maxBytes_;
    const size_t maxCount_;
    mutable std::mutex mutex_;
    std::condition_variable quit_;  // with the mutex
    // Guarded by mutex_.
    std::string taken_;
    unsigned long long lost_ = 0;
    unsigned long long nextLog_ = 1;  // the total that is logged next
};

}  // namespace Analysis::Nedra::JobWrapper
