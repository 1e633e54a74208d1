// Every syntactic and range check on what the host sends. The handshakes, the message handlers,
// the transport factories and the jobs ask before they use a value; what they do about a
// refusal is theirs.
//
// All checks are pure functions of their arguments, with one exception: CheckStorageLimit
// raises a limit that is too low. Each gives true for a good value; a refusal logs its reason,
// except where the comment says "silent". The class has no state; any thread may call.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "profiling/config/profile_params.h"
#include "profiling/config/singleton.h"

namespace analysis::nedra::common::validation {

class ParamValidation : public singleton::Singleton<ParamValidation> {
public:
    using Params = std::shared_ptr<message::ProfileParams>;
    using Texts = std::vector<std::string>;

    // ---- Lists of events and cores -------------------------------------------------------

    // Entries of an event list: at most 8. Of a core list: at most 50. Silent.
    bool CheckEventsSize(int n) const;
    bool CheckCoresSize(int n) const;
    // Each event holds "0x" in either case, and letters, digits, "_", ":" and "/" alone, so that
    // it adds no argument to a command that runs as root. One without "0x" is refused silently.
    bool CheckCtrlCpuEventIsValid(const Texts& events) const;
    // Each event is a hexadecimal number from 1 to 0x50E, with or without "0x". Also for the
    // vector core.
    bool CheckAiCoreEventsIsValid(const Texts& events) const;
    // No core is negative; a negative one is refused silently.
    bool CheckAiCoreEventCoresIsValid(const std::vector<int>& cores) const;
    // "read" and "write"; a DDR list that holds "master_id" may hold anything. Another entry is
    // refused silently.
    bool CheckDdrEventsIsValid(const Texts& events) const;
    bool CheckHbmEventsIsValid(const Texts& events) const;
    // A list separated by commas of events from the same characters; also nothing.
    bool CheckLlcEventsIsValid(const std::string& events) const;
    // Known L2 cache events, in either case and with blanks around them.
    bool CheckL2CacheEventsValid(const Texts& events) const;
    // A list separated by commas, of at most 8: 0 when good, else -1.
    int CheckEventsText(const std::string& events) const;

    // ---- Metrics, intervals, switches ----------------------------------------------------

    // A known metric that is not among those that this platform lacks; also nothing.
    bool CheckAicoreMetricsIsValid(const std::string& metrics, const Texts& unsupported) const;
    // 1 to 1296000000; `name` is for the log line.
    bool CheckIntervalIsValid(int interval, const std::string& name) const;
    // 1 to 2592000.
    bool CheckSysPeriodIsValid(int period) const;
    // 300 to 30000.
    bool CheckInstrFreqIsValid(uint32_t freq) const;
    // "on", "off" or nothing. Silent.
    bool CheckSwitchIsValid(const std::string& value) const;
    // The same, for the command line argument `name`.
    bool CheckParamOnOff(const std::string& name, const std::string& value) const;

    // ---- Devices, jobs, names ------------------------------------------------------------

    // Decimal, 0 to 63.
    bool CheckDeviceIdIsValid(const std::string& devId) const;
    // "all" or device ids separated by commas. Without devices something else must be asked
    // for: an application or `hostSys`. Silent only about that.
    bool CheckDeviceList(const std::string& app, const std::string& devices,
                         const std::string& hostSys) const;
    // 1 to 512 letters, digits and "-": what may become a part of a path. Silent.
    bool CheckJobIdIsValid(const std::string& jobId) const;
    // "def_mode", "system-wide" or nothing. Silent.
    bool CheckProfilingMode(const std::string& mode) const;
    // No text that looks like one of a few harmful commands. Silent.
    bool CheckAppParamIsValid(const std::string& params) const;
    // At least one letter, digit, "_", "-" or ".", and nothing else.
    bool CheckAppNameIsValid(const std::string& name) const;
    // At least one letter, digit or "_", and nothing else.
    bool CheckTagIsValid(const std::string& tag) const;
    // One of "cpu", "mem", "disk", "network", "osrt".
    bool CheckHostSysOptionsIsValid(const std::string& option) const;
    // A process that exists.
    bool CheckHostSysPidIsValid(int pid) const;
    // Known task kinds separated by commas; also nothing.
    bool CheckStarsAcsqIsValid(const std::string& list) const;

    // ---- Whole records; a null record is refused -----------------------------------------

    // The storage limit is empty, or 200 to 4294967295 followed by "MB". A number below that is
    // refused and replaced by "200MB".
    bool CheckStorageLimit(const Params& params) const;
    // All intervals of the record. The second operation is the second half of the first.
    bool CheckProfilingIntervalIsValid(const Params& params) const;
    bool CheckProfilingIntervalIsValidTWO(const Params& params) const;
    // All switches of the record, which are three groups. Silent about a bad switch.
    bool CheckProfilingSwitchIsValid(const Params& params) const;
    bool CheckTsSwitchProfiling(const Params& params) const;
    bool CheckPmuSwitchProfiling(const Params& params) const;
    bool CheckSystemTraceSwitchProfiling(const Params& params) const;
    // What a valid record is: devices (unless it is for the host side), events, intervals,
    // switches and the metric.
    bool CheckProfilingParams(const Params& params, const Texts& unsupportedMetrics) const;
};

}  // namespace analysis::nedra::common::validation
