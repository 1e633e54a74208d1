// The one channel poll of the process, and how many collections use it: the poll thread and its
// workers live from the first Init to the last UnInit. Any thread; one mutex guards everything and
// is held while the poll starts or stops.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>

#include "profiling/config/singleton.h"
#include "profiling/datapath/prof_channel.h"

namespace Analysis::Nedra::JobWrapper {

class ProfChannelManager
    : public analysis::nedra::common::singleton::Singleton<ProfChannelManager> {
public:
    // One user more. 0; or -1, with the count as it was, when the poll cannot be started.
    [[nodiscard]] int Init();
    // One user less, the poll ends with the last one; no user is no change. With `force` all users
    // are gone.
    void UnInit(bool force);
    // Null while nobody uses it.
    [[nodiscard]] std::shared_ptr<analysis::nedra::transport::ChannelPoll> GetChannelPoller();
    // Empties the driver's side buffers of all channels.
    void FlushChannel();

private:
    friend analysis::nedra::common::singleton::Singleton<ProfChannelManager>;
    ProfChannelManager() = default;

    std::mutex mutex_;
    // Guarded by mutex_.
    std::shared_ptr<analysis::nedra::transport::ChannelPoll> drvChannelPoll_;
    uint64_t index_ = 0;  // users
};

}  // namespace Analysis::Nedra::JobWrapper
