#include "profiling/control/task_relationship_mgr.h"

#include "hdc/log_side.h"

namespace Analysis::Nedra::TaskHandle {

void TaskRelationshipMgr::AddHostIdDevIdRelation(int hostId, int devId) {
    PROF_LOGI("hostId: %d, devId: %d Entering HostId DeviceId Map...", hostId, devId);
    const std::lock_guard<std::mutex> lock(mutex_);
    hostIdDevIdMap_[hostId] = devId;
}

int TaskRelationshipMgr::GetDevIdByHostId(int hostId) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto relation = hostIdDevIdMap_.find(hostId);
    return relation == hostIdDevIdMap_.end() ? hostId : relation->second;
}

}  // namespace Analysis::Nedra::TaskHandle
