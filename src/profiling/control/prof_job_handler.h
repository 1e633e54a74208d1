// One profiling job on one device, as its host sees it: whether it is started, and the engine
// that collects for it.
//
//              OnJobStart                 a failed Start or End, OnJobEnd
//      idle --------------> started -----------------------------------------> idle
//             (fails: idle)    |  OnConnectionReset
//                              `-------------------> engine gone, the task is deleted
//
// TaskManager makes and owns it. The receiver of its control session calls it, and at the end of
// the agent the thread that cleans up. Each of the commands holds the mutex throughout, so that
// none meets a half-done other. They may take as long as a collection stop does; nobody but those
// two waits for the mutex.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "profiling/collect/collect_engine.h"
#include "profiling/control/i_job_callback.h"
#include "profiling/datapath/transport.h"

namespace analysis::nedra::device {

class ProfJobHandler : public IJobCallback {
public:
    ProfJobHandler() = default;
    ~ProfJobHandler() override;
    ProfJobHandler(const ProfJobHandler&) = delete;
    ProfJobHandler& operator=(const ProfJobHandler&) = delete;

    // Before anybody else has the object: the device as the driver counts, the task key, the
    // control session. 0, or -1 without a transport.
    [[nodiscard]] int Init(int devId, const std::string& jobId,
                           std::shared_ptr<transport::ITransport> transport);
    // Forgets device and key; the engine stays. Once nobody else has the object.
    void Uninit();
    // The host's number of the device; it goes with Init.
    void SetDevIdOnHost(int devIdOnHost) { devIdOnHost_ = devIdOnHost; }
    [[nodiscard]] const std::string& GetJobId() const { return jobId_; }
    [[nodiscard]] const std::shared_ptr<transport::ITransport>& GetTransport() const {
        return transport_;
    }

    [[nodiscard]] int OnJobStart(std::shared_ptr<proto::JobStartReq> message,
                                 message::StatusInfo& status) override;
    [[nodiscard]] int OnJobEnd(message::StatusInfo& status) override;
    // A failure ends the whole job before it returns: the host hears of the failure after its
    // data session has ended.
    [[nodiscard]] int Start(std::shared_ptr<proto::ReplayStartReq> message,
                            message::StatusInfo& status) override;
    [[nodiscard]] int End(std::shared_ptr<proto::ReplayStopReq> message,
                          message::StatusInfo& status) override;
    [[nodiscard]] int OnConnectionReset() override;
    [[nodiscard]] int GetDevId() override { return devId_; }
    [[nodiscard]] int InitEngine(message::StatusInfo& status) override;  // needs the mutex

private:
    // These need the mutex.
    // Back to idle: a started job loses its engine, which ends what it collects.
    void ResetTask();
    [[nodiscard]] int StartReplay(const proto::ReplayStartReq* message,
                                  message::StatusInfo& status);
    [[nodiscard]] int EndReplay(const proto::ReplayStopReq* message, message::StatusInfo& status);

    // Set by Init and SetDevIdOnHost.
    bool isInited_ = false;
    int devId_ = -1;
    int devIdOnHost_ = -1;
    std::string jobId_;  // the task key
    std::shared_ptr<transport::ITransport> transport_;

    std::mutex mutex_;
    // Guarded by mutex_.
    std::shared_ptr<CollectEngine> engine_;  // null while idle
    bool isStarted_ = false;
};

}  // namespace analysis::nedra::device
