#include "profiling/control/task_manager.h"

#include <exception>
#include <utility>

#include "hdc/log_side.h"
#include "profiling/config/make_shared.h"
#include "profiling/control/task_relationship_mgr.h"

namespace analysis::nedra::device {

using Analysis::Nedra::TaskHandle::TaskRelationshipMgr;

int TaskManager::Init() {
    const std::lock_guard<std::mutex> lock(mutex_);
    isInited_ = true;
    return 0;
}

int TaskManager::Uninit() {
    std::vector<std::string> ended;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        isInited_ = false;
        ended = TakeToEnd([](const ProfJobHandler&) { return true; });
    }
    for (const std::string& key : ended) {
        EndTask(key);
    }
    return 0;
}

template <typename IsMeant>
std::vector<std::string> TaskManager::TakeToEnd(const IsMeant& isMeant) {
    std::vector<std::string> taken;
    for (auto& [key, entry] : tasks_) {
        if (!entry.isEnding && isMeant(*entry.task)) {
            taken.push_back(key);
            entry.isEnding = true;
        }
    }
    return taken;
}

void TaskManager::EndTask(const std::string& key) {
    std::shared_ptr<ProfJobHandler> task;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        task = tasks_.at(key).task;
    }
    try {
        static_cast<void>(task->OnConnectionReset());
    } catch (const std::exception& e) {
        PROF_LOGE("The end of task %s is cut short, message: %s", key.c_str(), e.what());
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    tasks_.erase(key);
}

bool TaskManager::IsInited() const {
    if (!isInited_) {
        PROF_LOGE("TaskManager is not inited yet");
    }
    return isInited_;
}

std::shared_ptr<IJobCallback> TaskManager::CreateTask(
    int hostId, const std::string& key, const std::shared_ptr<transport::ITransport>& transport,
    std::optional<int> devId) {
    if (transport == nullptr) {
        PROF_LOGE("CreateTask failed, transport is nullptr");
        return nullptr;
    }
    if (!IsInited()) {
        return nullptr;
    }
    PROF_LOGI("CreateTask, hostId(%d), JobId(%s)", hostId, key.c_str());
    if (GetTask(key) != nullptr) {
        PROF_LOGI("JobId(%s) task exist, don't create again", key.c_str());
        return nullptr;
    }
    const std::lock_guard<std::mutex> lock(mutex_);
    return EnterTask(hostId, key, transport, devId);
}

std::shared_ptr<IJobCallback> TaskManager::EnterTask(
    int hostId, const std::string& key, const std::shared_ptr<transport::ITransport>& transport,
    std::optional<int> devId) {
    // Both may have changed since they were looked at without the mutex.
    if (!IsInited()) {
        return nullptr;
    }
    if (tasks_.count(key) != 0) {
        PROF_LOGI("JobId(%s) task exist, don't create again", key.c_str());
        return nullptr;
    }
    const auto task = common::MakeShared<ProfJobHandler>();
    if (task == nullptr) {
        return nullptr;
    }
    const int device = devId ? *devId : TaskRelationshipMgr::instance().GetDevIdByHostId(hostId);
    if (task->Init(device, key, transport) != 0) {
        return nullptr;
    }
    task->SetDevIdOnHost(hostId);
    tasks_[key] = {task, false};
    return task;
}

std::shared_ptr<IJobCallback> TaskManager::GetTask(
    const std::string& key, const std::shared_ptr<transport::ITransport>& owner) {
    if (!IsInited()) {
        return nullptr;
    }
    PROF_LOGI("GetTask, JobId(%s)", key.c_str());
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = tasks_.find(key);
    if (found == tasks_.end() || found->second.isEnding) {
        return nullptr;
    }
    const auto& task = found->second.task;
    return owner == nullptr || task->GetTransport() == owner ? task : nullptr;
}

bool TaskManager::DeleteTask(const std::string& key) {
    if (!IsInited()) {
        return false;
    }
    PROF_LOGI("DeleteTask, JobId(%s)", key.c_str());
    Tasks::node_type deleted;  // released after the lock: it may have an engine to stop
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = tasks_.find(key);
    if (found == tasks_.end() || found->second.isEnding) {
        return false;
    }
    deleted = tasks_.extract(found);
    return true;
}

void TaskManager::ConnectionReset(const std::shared_ptr<transport::ITransport>& transport) {
    if (transport == nullptr) {
        PROF_LOGE("ConnectionReset failed, transport is null");
        return;
    }
    std::vector<std::string> ended;
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        ended =
            TakeToEnd([&](const ProfJobHandler& task) { return task.GetTransport() == transport; });
    }
    for (const std::string& key : ended) {
        EndTask(key);
    }
}

}  // namespace analysis::nedra::device
