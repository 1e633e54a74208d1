// Turns a recording of the control CPU into text while it goes on. The script writes a recording
// as slices; this thread has each finished slice resolved into text by the script, sends the text
// to the host as a part of one file, and deletes both.
//
// The newest slice is taken to be still in writing, until the thread is told to quit: then every
// slice goes, in a last pass. Whoever stops the thread has ended the recording before.
//
// While the job runs, the script may take any time over a slice. In the last pass it has one limit
// for all slices; the time that a host takes to read does not count, and the pass ends when the
// host has been given up. A text that did not come out whole is not sent. What the host misses is
// counted in slices.
//
// ProfCtrlcpuJob owns the task; a new one for each replay.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <optional>
#include <string>

#include "profiling/collect/perf_slices.h"
#include "profiling/collect/prof_script.h"
#include "profiling/config/job_records.h"
#include "profiling/config/profile_params.h"
#include "profiling/datapath/chunk.h"
#include "profiling/datapath/thread.h"

namespace Analysis::Nedra::JobWrapper {

struct RecordingLimits {
    std::chrono::milliseconds patience = kScriptPatience;  // with the script, in the last pass
    uint64_t maxBytes = 0x10000000;  // of the slices that wait, see PerfSlices
    size_t maxCount = 1024;
};

class PerfExtraTask : public analysis::nedra::common::thread::Thread {
public:
    using JobCtx = std::shared_ptr<analysis::nedra::message::JobContext>;
    using Params = std::shared_ptr<analysis::nedra::message::ProfileParams>;

    // Reads texts in pieces of `bufSize` - 1 bytes. `retDir` is the directory to watch, without a
    // dot in its path. `params` names the job that the uploads belong to.
    PerfExtraTask(uint64_t bufSize, const std::string& retDir, JobCtx jobCtx, Params params,
                  const RecordingLimits& limits = {});
    ~PerfExtraTask() override;

    // Takes the buffer; before Start. 0, or -1: for a host-side job, a second time, without memory.
    [[nodiscard]] int Init();
    // Gives the buffer back; after Stop. Always 0.
    int Uninit();
    // Before Start.
    void SetJobCtx(JobCtx jobCtx) { jobCtx_ = std::move(jobCtx); }

protected:
    void Run(const analysis::nedra::common::thread::TraceletErrorContext& errorContext) override;

private:
    // Whether the last pass has to end.
    [[nodiscard]] bool IsOver();
    // An exception costs the slice at hand; the others wait for the next pass.
    void TryPass();
    void ResolvePass();
    void ResolveSlice(const std::string& file);
    // Whether the host gets all of it.
    [[nodiscard]] bool UploadText(const std::string& file);
    [[nodiscard]] bool UploadFrom(std::istream& in);

    // Of the owner before Start and after Stop, of the thread in between.
    bool isInited_ = false;
    bool isHostGone_ = false;  // the job ends, and an upload has failed
    long long dataSize_ = 0;   // bytes of text so far
    const std::chrono::milliseconds patience_;
    std::optional<std::chrono::steady_clock::time_point> lastPassEnd_;  // set once quit is seen
    analysis::nedra::common::memory::Chunk buf_;
    JobCtx jobCtx_;
    const Params params_;
    PerfSlices slices_;
};

}  // namespace Analysis::Nedra::JobWrapper
