#include "profiling/control/task_manager.h"

#include <utility>
#include <vector>

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
    if (!isInited_) {
        return 0;
    }
    Tasks ended;  // released after the lock
    const std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& [key, task] : tasks_) {
        static_cast<void>(task->OnConnectionReset());
    }
    ended.swap(tasks_);
    isInited_ = false;
    return 0;
}

bool TaskManager::IsInited() const {
    if (!isInited_) {
        PROF_LOGE("TaskManager is not inited yet");
    }
    return isInited_;
}

std::shared_ptr<IJobCallback> TaskManager::CreateTask(
    int hostId, const std::string& key, const std::shared_ptr<transport::ITransport>& transport) {
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
    return EnterTask(hostId, key, transport);
}

std::shared_ptr<IJobCallback> TaskManager::EnterTask(
    int hostId, const std::string& key, const std::shared_ptr<transport::ITransport>& transport) {
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
    const int devId = TaskRelationshipMgr::instance().GetDevIdByHostId(hostId);
    if (task->Init(devId, key, transport) != 0) {
        return nullptr;
    }
    task->SetDevIdOnHost(hostId);
    tasks_[key] = task;
    return task;
}

std::shared_ptr<IJobCallback> TaskManager::GetTask(const std::string& key) {
    if (!IsInited()) {
        return nullptr;
    }
    PROF_LOGI("GetTask, JobId(%s)", key.c_str());
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto task = tasks_.find(key);
    return task == tasks_.end() ? nullptr : task->second;
}

bool TaskManager::DeleteTask(const std::string& key) {
    if (!IsInited()) {
        return false;
    }
    PROF_LOGI("DeleteTask, JobId(%s)", key.c_str());
    Tasks::node_type deleted;  // released after the lock: it may have an engine to stop
    const std::lock_guard<std::mutex> lock(mutex_);
    deleted = tasks_.extract(key);
    return !deleted.empty();
}

void TaskManager::ConnectionReset(const std::shared_ptr<transport::ITransport>& transport) {
    if (transport == nullptr) {
        PROF_LOGE("ConnectionReset failed, transport is null");
        return;
    }
    std::vector<Tasks::node_type> ended;  // released after the lock
    const std::lock_guard<std::mutex> lock(mutex_);
    for (auto next = tasks_.begin(); next != tasks_.end();) {
        const auto task = next++;
        if (task->second->GetTransport() == transport) {
            static_cast<void>(task->second->OnConnectionReset());
            ended.push_back(tasks_.extract(task));
        }
    }
}

}  // namespace analysis::nedra::device
