// What all jobs on driver channels share: the road from a decision to a channel that runs, and
// back. A job is a few words of its own in a table (ChannelChoice, ChannelRun) and this flow:
//
//     Init      check -> for the device side? -> keep the configuration -> switch on? -> own step
//     Process   check -> channel there? -> reader -> start the channel
//     Uninit    check -> channel there? -> stop the channel -> read what is left -> reader goes
//
// A channel that the device has not, or that the tuning file switches off, is no failure: Process
// and Uninit then do nothing. Between the two the data flows from channel to host without the job.
// Called by the engine through the registry, on one thread at a time.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "hdc/log_side.h"
#include "profiling/collect/collection_register.h"
#include "profiling/datapath/ai_drv_prof_api.h"

namespace Analysis::Nedra::JobWrapper {

using analysis::nedra::driver::DrvPeripheralProfileCfg;
using analysis::nedra::message::IsOn;
using analysis::nedra::message::ProfileParams;

// ---- What differs between jobs -----------------------------------------------------------------

// What a line of the log may tell.
struct JobFacts {
    int devId;
    int channelId;
    int ret;  // of the start or stop; 0 before
    std::string events;
    std::string cores;
    std::string taskType;
    const ProfileParams& params;
};
// Writes a line; null: there is none. JOB_LINE and JOB_ERROR make one of a format and its
// arguments, in which `facts` is a JobFacts.
using JobLine = void (*)(const JobFacts& facts);
#define JOB_LINE_AT(writer, ...)                               \
    [](const ::Analysis::Nedra::JobWrapper::JobFacts& facts) { \
        static_cast<void>(facts);                              \
        writer(__VA_ARGS__);                                   \
    }
#define JOB_LINE(...) JOB_LINE_AT(PROF_LOGI, __VA_ARGS__)
#define JOB_ERROR(...) JOB_LINE_AT(PROF_LOGE, __VA_ARGS__)

// One of the checks of collection_register.h.
using JobCheck = bool (*)(const std::shared_ptr<CollectionJobCfg>& cfg);

// Whether a job runs.
struct ChannelChoice {
    JobCheck check;
    bool (*isOn)(const ProfileParams& params);  // null: always
    void (*off)(int devId);                     // the line when it is not; null: none
};

// The lines of a start or of a stop, in their order.
struct ChannelWords {
    JobLine head;    // before the channel is looked for
    JobLine begin;   // before the driver is called
    JobLine done;    // with its answer
    JobLine failed;  // and when that was not 0
};

// How a channel runs.
struct ChannelRun {
    JobCheck check;
    ChannelWords start;
    ChannelWords stop;
    // The start operation. `record` has device, channel and what the job put into it.
    int (*startChannel)(const DrvPeripheralProfileCfg& record, const CollectionJobCfg& cfg);
    bool takesFilePeriod;  // a period of the tuning file replaces the job's
    bool keepsEvents;      // events stay with the configuration at the stop
    bool releasesCores;
};

// `asked` when it is above 0.
[[nodiscard]] inline int PeriodOr(int asked, int otherwise) {
    return asked > 0 ? asked : otherwise;
}
// The tuning file's period of a channel, or `otherwise` when it has none.
[[nodiscard]] int FilePeriodOr(int channelId, int otherwise);
// Whether the device has the channel and collects from it; if not, that is logged.
[[nodiscard]] bool HasChannel(int devId, int channelId);
// What a pointer to a list holds; nothing without a list.
template <typename T>
[[nodiscard]] const std::vector<T>& ListOf(const std::shared_ptr<std::vector<T>>& list) {
    static const std::vector<T> nothing;
    return list == nullptr ? nothing : *list;
}

// ---- The flow ----------------------------------------------------------------------------------

class ProfDrvJob : public ICollectionJob {
public:
    // Joined with the separator, for log lines.
    [[nodiscard]] static std::string GetEventsStr(const std::vector<std::string>& events,
                                                  const std::string& separator = ",");

protected:
    // Makes the reader of a channel and gives it to the poll. Its data goes to the host as the
    // file `filePath`, of which an absolute path loses the `resultDir` of the common parameters.
    // `key` is the job id, for log lines. Without a reader the channel's data goes unread.
    void AddReader(const std::string& key, int devId, int channelId, const std::string& filePath);
    // Takes the reader off the poll, which uploads what it holds. Always 0.
    int RemoveReader(const std::string& key, int devId, int channelId);

    // All of Init but a class's own step: 0 with the configuration kept, or -1.
    [[nodiscard]] int Decide(const ChannelChoice& choice, std::shared_ptr<CollectionJobCfg> cfg);
    // Process on one channel, that of `record`: what the start operation answered, 0 without the
    // channel, -1 when the check fails. A reader stays until StopChannel, whatever the start gave.
    [[nodiscard]] int StartChannel(const ChannelRun& run, DrvPeripheralProfileCfg record,
                                   const std::string& taskType = "");
    // Uninit on one channel: what DrvStop answered, otherwise as above.
    [[nodiscard]] int StopChannel(const ChannelRun& run, int channelId,
                                  const std::string& taskType = "");

    // Stops the channel and reads to the end what the driver still holds, as far as there is a
    // reader. What DrvStop answered.
    [[nodiscard]] int StopAndDrain(int devId, int channelId);
    // Whether the check passes and there are parameters: then Common and Params may be asked.
    [[nodiscard]] bool IsReady(JobCheck check) const;
    [[nodiscard]] const CollectionJobCommonParams& Common() const {
        return *collectionJobCfg_->commonParams;
    }
    [[nodiscard]] const ProfileParams& Params() const { return *Common().params; }

    // Set by Init.
    std::shared_ptr<CollectionJobCfg> collectionJobCfg_;

private:
    [[nodiscard]] JobFacts Facts(int channelId, const std::string& taskType) const;
};

}  // namespace Analysis::Nedra::JobWrapper
