// Records performance events of the control CPU through the collection script, tag 27. The script
// runs as a child from Process to Uninit and writes the recording as slices; a PerfExtraTask
// beside it sends them to the host as text.
//
//     Process   child started, then the thread
//     Uninit    kill run -> child ended -> thread's last pass over all slices -> thread ended
//
// Only one runs in the whole process: the kill run makes no difference between recordings. Called
// by the engine through the registry, on one thread at a time.
#pragma once

#include <memory>
#include <string>

#include "profiling/collect/collection_register.h"
#include "profiling/collect/perf_extra_task.h"
#include "profiling/collect/prof_script.h"

namespace Analysis::Nedra::JobWrapper {

class ProfCtrlcpuJob : public ICollectionJob {
public:
    // `limits` are those of the PerfExtraTask; its patience is also that of the kill run and the
    // end of the recording together.
    explicit ProfCtrlcpuJob(const RecordingLimits& limits = {}) : limits_(limits) {}
    ~ProfCtrlcpuJob() override;

    // Declines without events, for a host-side job, and off the device side. Sets `resultDir` of
    // the common parameters to the perf data directory, which exists afterwards.
    [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override;
    // 0 also when the events make no command; then nothing runs. A script that ends at once is
    // not noticed before Uninit.
    [[nodiscard]] int Process() override;
    // Ends what the script started, also what another job of it did.
    [[nodiscard]] int Uninit() override;
    [[nodiscard]] bool IsGlobalJobLevel() override { return true; }

private:
    [[nodiscard]] std::string RecordCommand() const;  // empty when there is none
    [[nodiscard]] int StartTask();
    [[nodiscard]] int EndRecording(const ScriptLimit& isOver);

    const RecordingLimits limits_;
    int ctrlCpuPid_ = -1;
    std::shared_ptr<CollectionJobCfg> collectionJobCfg_;
    std::shared_ptr<PerfExtraTask> perfExtraTask_;
};

}  // namespace Analysis::Nedra::JobWrapper
