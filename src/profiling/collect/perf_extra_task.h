// Turns a recording of the control CPU into text while it goes on. The script writes a recording
// as slices; this thread has each finished slice resolved into text by the script, sends the text
// to the host as a part of one file, and deletes both.
//
//     ai_ctrl_cpu.data.0          made empty by the job, 2 dots: passed over
//     ai_ctrl_cpu.data.0.S        a slice of the script, 3 dots
//     ai_ctrl_cpu.data.0.S.txt    its text, 4 dots: passed over
//
// The newest slice is taken to be still in writing, until the thread is told to quit: then every
// slice goes, in a last pass. Whoever stops the thread has ended the recording before.
//
// ProfCtrlcpuJob owns the task; a new one for each replay.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "profiling/config/job_records.h"
#include "profiling/config/profile_params.h"
#include "profiling/datapath/chunk.h"
#include "profiling/datapath/thread.h"

namespace Analysis::Nedra::JobWrapper {

class PerfExtraTask : public analysis::nedra::common::thread::Thread {
public:
    using JobCtx = std::shared_ptr<analysis::nedra::message::JobContext>;
    using Params = std::shared_ptr<analysis::nedra::message::ProfileParams>;

    // Reads texts in pieces of `bufSize` - 1 bytes. `retDir` is the directory to watch, without a
    // dot in its path. `params` names the job that the uploads belong to.
    PerfExtraTask(uint64_t bufSize, const std::string& retDir, JobCtx jobCtx, Params params);
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
    [[nodiscard]] std::vector<std::string> FindSlices() const;  // in the order of their names
    void ResolvePass();
    void ResolveSlice(const std::string& file);
    void UploadText(const std::string& file);

    // Of the owner before Start and after Stop, of the thread in between.
    bool isInited_ = false;
    long long dataSize_ = 0;  // bytes of text so far
    const std::string retDir_;
    analysis::nedra::common::memory::Chunk buf_;
    JobCtx jobCtx_;
    const Params params_;
};

}  // namespace Analysis::Nedra::JobWrapper
