// Counts the last-level cache, tag 2, in one of two ways. On platform type 0 the collection script
// counts into one file, which is sent when it stops; on others the driver does, on channel 8. In
// either case the job runs by tracelet_llc_profiling and a list of events.
//
// By script the job is global: the kill run makes no difference between what it ends.
#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "profiling/collect/prof_peripheral_job.h"
#include "profiling/collect/prof_script.h"

namespace Analysis::Nedra::JobWrapper {

class ProfLlcJob : public ProfPeripheralJob {
public:
    // `patience` is what the end of a run by script has in all.
    explicit ProfLlcJob(std::chrono::milliseconds patience = kScriptPatience)
        : ProfPeripheralJob(analysis::nedra::driver::kChannelLlc), patience_(patience) {}
    ~ProfLlcJob() override;

    // Declines also off the device side, where only the script would do.
    [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override;
    // By script 0 also when the events make no command; then nothing runs.
    [[nodiscard]] int Process() override;
    // By script the last result of kill run and wait; the file is sent whatever they are.
    [[nodiscard]] int Uninit() override;
    [[nodiscard]] bool IsGlobalJobLevel() override;
    [[nodiscard]] int SetPeripheralConfig() override;

private:
    [[nodiscard]] int ProcessByScript();
    [[nodiscard]] int UninitByScript();
    [[nodiscard]] std::string StatCommand();  // empty when there is none
    [[nodiscard]] std::string ResultPath() const;
    void UploadResult();

    const std::chrono::milliseconds patience_;
    int llcPid_ = -1;
};

}  // namespace Analysis::Nedra::JobWrapper
