// The jobs that sample /proc: the system's processor time, its memory, and all processes. They
// differ in their switch, their interval and their handler; ProfSysInfoBase has the rest. Only one
// of each runs in the process, whatever the device.
#pragma once

#include <cstdint>
#include <memory>

#include "profiling/collect/collection_register.h"
#include "profiling/collect/timer_handler.h"

namespace Analysis::Nedra::JobWrapper {

// The interval of the job with that timer tag in nanoseconds, at least 100 ms, and the uploader of
// its job. 0, with a log line and `upLoader` empty, when there is no uploader.
[[nodiscard]] uint64_t ProfTimerJobCommonInit(
    const std::shared_ptr<CollectionJobCfg>& cfg,
    std::shared_ptr<analysis::nedra::transport::Uploader>& upLoader, uint32_t timerTag);

class ProfSysInfoBase : public ICollectionJob {
public:
    // What differs in words and numbers.
    struct Kind {
        uint32_t timerTag;
        const char* notOnDevice;  // log lines
        const char* switchedOff;
        const char* initFailed;
        const char* handlerName;
    };

    ~ProfSysInfoBase() override;

    [[nodiscard]] int Init(std::shared_ptr<CollectionJobCfg> cfg) override;
    [[nodiscard]] int Process() override;
    [[nodiscard]] int Uninit() override;
    [[nodiscard]] bool IsGlobalJobLevel() override { return true; }

protected:
    // `kind` outlives the job.
    explicit ProfSysInfoBase(const Kind& kind) : kind_(kind) {}

    [[nodiscard]] virtual bool IsSwitchedOn(
        const analysis::nedra::message::ProfileParams& params) const = 0;
    // Null when memory is out.
    [[nodiscard]] virtual std::shared_ptr<TimerHandler> MakeHandler(
        uint32_t devId, uint64_t sampleIntervalNs, const SampleRoad& road) const = 0;

private:
    const Kind& kind_;
    std::shared_ptr<CollectionJobCfg> collectionJobCfg_;
    std::shared_ptr<analysis::nedra::transport::Uploader> upLoader_;
    uint64_t sampleIntervalNs_ = 0;
    // Of a running job.
    std::shared_ptr<TimerHandler> handler_;
    bool holdsTimer_ = false;
};

class ProfSysStatJob : public ProfSysInfoBase {
public:
    ProfSysStatJob();

protected:
    bool IsSwitchedOn(const analysis::nedra::message::ProfileParams& params) const override;
    std::shared_ptr<TimerHandler> MakeHandler(uint32_t devId, uint64_t sampleIntervalNs,
                                              const SampleRoad& road) const override;
};

class ProfSysMemJob : public ProfSysInfoBase {
public:
    ProfSysMemJob();

protected:
    bool IsSwitchedOn(const analysis::nedra::message::ProfileParams& params) const override;
    std::shared_ptr<TimerHandler> MakeHandler(uint32_t devId, uint64_t sampleIntervalNs,
                                              const SampleRoad& road) const override;
};

class ProfAllPidsJob : public ProfSysInfoBase {
public:
    ProfAllPidsJob();

protected:
    bool IsSwitchedOn(const analysis::nedra::message::ProfileParams& params) const override;
    std::shared_ptr<TimerHandler> MakeHandler(uint32_t devId, uint64_t sampleIntervalNs,
                                              const SampleRoad& road) const override;
};

}  // namespace Analysis::Nedra::JobWrapper
