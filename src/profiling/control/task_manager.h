// The table of the profiling jobs that hosts have started, by task key: the job id, "_" and the
// host's number of the device.
//
// Receivers and the request threads call it, each on its own thread. The mutex is held for the map
// operation only. A job that ends because its host has gone, or because the agent ends, is ended
// outside it: its key stays taken until the end is complete, and nobody finds the task meanwhile.
// TaskRelationshipMgr's mutex comes below this one.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

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
    // `transport`. `devId`: that device as the driver counts, when the caller knows; else what
    // TaskRelationshipMgr says. Null, with a log line, when the key is taken: of two creations of
    // one key at the same time the second gets null, and never the first one's task.
    [[nodiscard]] std::shared_ptr<IJobCallback> CreateTask(
        int hostId, const std::string& key, const std::shared_ptr<transport::ITransport>& transport,
        std::optional<int> devId = std::nullopt);
    // Null when there is none. With `owner`, null also when the task is another session's: a host
    // reaches no other host's job, whatever it names.
    [[nodiscard]] std::shared_ptr<IJobCallback> GetTask(
        const std::string& key, const std::shared_ptr<transport::ITransport>& owner = nullptr);
    // Whether there was one. A task that is still in use elsewhere lives on there.
    [[nodiscard]] bool DeleteTask(const std::string& key);
    // Ends and forgets the tasks of this very control session, one after the other.
    void ConnectionReset(const std::shared_ptr<transport::ITransport>& transport);

private:
    friend common::singleton::Singleton<TaskManager>;
    TaskManager() = default;

    struct Entry {
        std::shared_ptr<ProfJobHandler> task;
        bool isEnding = false;  // and found by nobody
    };
    using Tasks = std::map<std::string, Entry>;

    [[nodiscard]] bool IsInited() const;  // logs when not
    // CreateTask's second half; needs the mutex.
    [[nodiscard]] std::shared_ptr<IJobCallback> EnterTask(
        int hostId, const std::string& key, const std::shared_ptr<transport::ITransport>& transport,
        std::optional<int> devId);
    // Needs the mutex. Marks the tasks that `isMeant` names as ending, and returns their keys.
    template <typename IsMeant>
    [[nodiscard]] std::vector<std::string> TakeToEnd(const IsMeant& isMeant);
    // Ends a task that was taken, and forgets it.
    void EndTask(const std::string& key);

    std::mutex mutex_;
    std::atomic<bool> isInited_{false};  // written under mutex_
    Tasks tasks_;                        // guarded by mutex_
};

}  // namespace analysis::nedra::device
