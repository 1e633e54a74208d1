// Which device a host's number stands for: learnt at the control handshake, asked at a job start.
// Any thread may call; the mutex is a leaf.
#pragma once

#include <map>
#include <mutex>

#include "profiling/config/singleton.h"

namespace Analysis::Nedra::TaskHandle {

class TaskRelationshipMgr
    : public analysis::nedra::common::singleton::Singleton<TaskRelationshipMgr> {
public:
    // The later of two relations of one host number holds.
    void AddHostIdDevIdRelation(int hostId, int devId);
    // A host number that nobody has told stands for itself.
    [[nodiscard]] int GetDevIdByHostId(int hostId);

private:
    friend analysis::nedra::common::singleton::Singleton<TaskRelationshipMgr>;
    TaskRelationshipMgr() = default;

    std::mutex mutex_;
    std::map<int, int> hostIdDevIdMap_;  // guarded by mutex_
};

}  // namespace Analysis::Nedra::TaskHandle
