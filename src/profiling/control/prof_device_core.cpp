#include "profiling/control/prof_device_core.h"

#include <portability.h>

#include <exception>
#include <memory>
#include <string>

#include "hdc/hdc_api.h"
#include "hdc/log_side.h"
#include "profiling/config/json_parser.h"
#include "profiling/config/param_validation.h"
#include "profiling/config/platform.h"
#include "profiling/control/collection_entry.h"
#include "profiling/control/task_manager.h"
#include "profiling/datapath/hdc_transport.h"

namespace {

using Analysis::Nedra::Common::Platform::Platform;
using analysis::nedra::common::validation::ParamValidation;
using analysis::nedra::device::CollectionEntry;
using analysis::nedra::device::TaskManager;
using analysis::nedra::transport::HDCTransportFactory;
using analysis::nedra::transport::ITransport;
using Tracelets::Parser::JsonParser;
using Tracelets::Parser::kTuningFile;

constexpr uint32_t kMaxFirstRequest = 0x300000;

int Init() {
    // Without the file nothing changes; the parser would take its absence for a fault.
    if (mmAccess(kTuningFile) == EN_OK) {
        JsonParser::instance().Init(kTuningFile);
    }
    const int ret = CollectionEntry::instance().Init();
    if (ret != 0) {
        PROF_LOGE("CollectionEntry instance init failed");
        return ret;
    }
    Platform::instance().UpdatePlatformInfo();
    return TaskManager::instance().Init();
}

// Null: the session is open and the caller's.
std::shared_ptr<ITransport> TakeSession(const HdcSessionPtr& session, const IdeRequest* request,
                                        int* devIndexId) {
    if (request == nullptr || request->len < 1 || request->len > kMaxFirstRequest) {
        PROF_LOGE("HDC request is invalid");
        return nullptr;
    }
    const int err = IdeGetDevIdBySession(session, devIndexId, orla::kProfilingSide);
    if (err != 0) {
        PROF_LOGE("IdeGetDevIdBySession failed, err: %d", err);
        return nullptr;
    }
    if (!ParamValidation::instance().CheckDeviceIdIsValid(std::to_string(*devIndexId))) {
        PROF_LOGE("[IdeDeviceProfileProcess]devIndexId is not valid! devIndexId: %d", *devIndexId);
        return nullptr;
    }
    auto transport = HDCTransportFactory().CreateHdcTransport(session);
    if (transport == nullptr) {
        PROF_LOGE("create HDC transport failed");
    }
    return transport;
}

int RefuseContainer(ITransport& transport, int vfId) {
    PROF_LOGW("Prohibit container operate profiling, vfId=%d.", vfId);
    const std::string refusal = analysis::nedra::transport::kContainerNoSupport;
    if (transport.SendBuffer(refusal.data(), static_cast<int>(refusal.size())) == -1) {
        PROF_LOGE("Transport send buffer failed.");
        return -1;
    }
    return 0;
}

int Process(const HdcSessionPtr& session, const IdeRequest* request) {
    if (session == nullptr) {
        PROF_LOGE("HDC session is invalid");
        return -1;
    }
    int devIndexId = -1;
    const auto transport = TakeSession(session, request, &devIndexId);
    if (transport == nullptr) {
        HdcSessionClose(session, orla::kProfilingSide);
        return -1;
    }
    int vfId = 0;
    const int ret = HdcGetSessionVfId(session, &vfId, orla::kProfilingSide);
    if (ret != 0) {
        PROF_LOGE("Ide get vfid by session failed, ret=%d.", ret);
        return -1;
    }
    if (vfId != 0) {
        return RefuseContainer(*transport, vfId);
    }
    PROF_LOGI("device %d step handle function", devIndexId);
    return CollectionEntry::instance().Handle(transport, std::string(request->value, request->len),
                                              devIndexId);
}

// What `step` answers; -1 for an exception. Nothing may leave a component's entry.
template <typename Step>
int Guarded(Step step) {
    try {
        return step();
    } catch (const std::exception& e) {
        PROF_LOGE("Profiling ends a step by an exception, message: %s", e.what());
        return -1;
    }
}

}  // namespace

int IdeDeviceProfileInit() {
    PROF_EVENT("Begin to init profiling");
    const int ret = Guarded(Init);
    PROF_EVENT("End to init profiling, ret:%d", ret);
    return ret;
}

int IdeDeviceProfileProcess(const HdcSessionPtr& session, const IdeRequest* request) {
    PROF_EVENT("Begin to process profiling");
    const int ret = Guarded([&] { return Process(session, request); });
    PROF_EVENT("End to process profiling, ret:%d", ret);
    return ret;
}

int IdeDeviceProfileCleanup() {
    PROF_EVENT("Begin to cleanup profiling");
    if (Guarded([] { return CollectionEntry::instance().Uninit(); }) != 0) {
        PROF_LOGE("CollectionEntry instance unInit failed");
    }
    const int ret = Guarded([] { return TaskManager::instance().Uninit(); });
    PROF_EVENT("End to cleanup profiling, ret:%d", ret);
    return ret;
}
