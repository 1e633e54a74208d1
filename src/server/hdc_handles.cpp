#include "server/hdc_handles.h"

#include <atomic>
#include <new>
#include <utility>

#include "hdc/log_side.h"

namespace Velt {

namespace {

// Of both tables, so that a value tells which of them it is in. The driver's event wait takes no
// 0 for a handle.
std::atomic<int64_t> lastValue{0};

}  // namespace

template <typename Object>
int64_t HandleTable<Object>::Add(const std::shared_ptr<Object>& object) noexcept {
    if (object == nullptr) {
        return kNoHandle;
    }
    try {
        const int64_t value = ++lastValue;
        const std::lock_guard<std::mutex> lock(mutex_);
        objects_.emplace(value, object);
        return value;
    } catch (const std::bad_alloc&) {
        IDE_LOGE("no memory for a handle");
        return kNoHandle;
    }
}

template <typename Object>
std::shared_ptr<Object> HandleTable<Object>::Find(int64_t value) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto object = objects_.find(value);
    return object == objects_.end() ? nullptr : object->second;
}

template <typename Object>
std::shared_ptr<Object> HandleTable<Object>::Take(int64_t value) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto taken = objects_.extract(value);
    return taken.empty() ? nullptr : taken.mapped();
}

template class HandleTable<HdcServer>;
template class HandleTable<HdcSession>;

// Never destroyed: a detached thread may look a session up while the process ends.
HandleTable<HdcServer>& HdcServers() {
    static auto* const table = new HandleTable<HdcServer>;
    return *table;
}

HandleTable<HdcSession>& HdcSessions() {
    static auto* const table = new HandleTable<HdcSession>;
    return *table;
}

}  // namespace Velt
