// The table of the profiling jobs that hosts have started, by task key: the job id, "_" and the
// host's number of the device.
//
// Receivers and the request threads call it, each on its own thread. The mutex is held for the
// map operation only, with two exceptions: ConnectionReset and Uninit hold it while they end the
// jobs, and all other tasks wait for that long. What bounds it is that the data road gives up on
// a host that does not read. The mutexes of TaskRelationshipMgr and of the tasks come below it.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "profiling/config/singleton.h"
#include "profiling/control/i_job_callback.h"
#include "profiling/control/prof_job_handler.h"
#include "profiling/datapath/transport.h"

namespace analysis::nedra::device {

class TaskManager : public common::singleton::Singleton<TaskManager> {
public:
    // Always 0, as is Uninit. Until Init and after Uninit there are no tasks and none is made.
    int Init();
    // Ends every job with its data and forgets all tasks.
    int Uninit();

    // Makes an idle task for the device that the host calls `hostId`, of the control session
    // `transport`. Null, with a log line, when the key is taken: of two creations of one key at
    // the same time the second gets null, and never the first one's task.
    [[nodiscard]] std::shared_ptr<IJobCallback> CreateTask(
        int hostId, const std::string& key,
        const std::shared_ptr<transport::ITransport>& transport);
    // Null when there is none.
    [[nodiscard]] std::shared_ptr<IJobCallback> GetTask(const std::string& key);
    // Whether there was one. A task that is still in use elsewhere lives on there.
    [[nodiscard]] bool DeleteTask(const std::string& key);
    // Ends and forgets the tasks of this very control session.
    void ConnectionReset(const std::shared_ptr<transport::ITransport>& transport);

private:
    friend common::singleton::Singleton<TaskManager>;
    TaskManager() = default;

    using Tasks = std::map<std::string, std::shared_ptr<ProfJobHandler>>;

    [[nodiscard]] bool IsInited() const;  // logs when not
    // CreateTask's second half; needs the mutex.
    [[nodiscard]] std::shared_ptr<IJobCallback> EnterTask(
        int hostId, const std::string& key,
        const std::shared_ptr<transport::ITransport>& transport);

    std::mutex mutex_;
    std::atomic<bool> isInited_{false};  // written under mutex_
    Tasks tasks_;                        // guarded by mutex_
};

}  // namespace analysis::nedra::device
