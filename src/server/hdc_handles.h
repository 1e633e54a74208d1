// The servers and sessions of the host-device channel behind the framework's 64-bit values. A
// value names one object from its opening to its closing and is never used again, so that one
// which is stale finds nothing. Any thread.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>

#include "hdc/hdc_server.h"
#include "hdc/hdc_session.h"
#include "server/velt_comm_opt.h"

namespace Velt {

template <typename Object>
class HandleTable {
public:
    // The value of `object`; kNoHandle for null, and when memory is out.
    [[nodiscard]] int64_t Add(const std::shared_ptr<Object>& object) noexcept;
    // Null for a value that names nothing.
    [[nodiscard]] std::shared_ptr<Object> Find(int64_t value) const;
    // The same, and the value names nothing any more.
    std::shared_ptr<Object> Take(int64_t value);

private:
    mutable std::mutex mutex_;
    std::map<int64_t, std::shared_ptr<Object>> objects_;  // guarded by mutex_
};

// Those of the process.
HandleTable<HdcServer>& HdcServers();
HandleTable<HdcSession>& HdcSessions();

}  // namespace Velt
