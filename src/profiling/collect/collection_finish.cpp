#include "profiling/collect/collection_finish.h"

#include <memory>

#include "hdc/log_side.h"
#include "profiling/config/job_records.h"
#include "profiling/config/make_shared.h"
#include "profiling/datapath/uploader_mgr.h"
#include "proto/codec.h"
#include "proto/profiler.pb.h"

namespace analysis::nedra::device {
namespace {

// Empty when memory is out.
std::string EncodeFinish(int devIdOnHost, const std::string& jobId) {
    message::JobContext context;
    context.dev_id = std::to_string(devIdOnHost);
    context.job_id = jobId;
    const auto finish = common::MakeShared<proto::DataChannelFinish>();
    if (finish == nullptr) {
        return {};
    }
    finish->mutable_hdr()->set_job_ctx(context.ToString());
    return message::EncodeMessage(finish);
}

}  // namespace

int FinishCollection(int devIdOnHost, const std::string& jobId) {
    PROF_LOGI("Entering device(%d) FinishCollection...jobId:%s", devIdOnHost, jobId.c_str());
    auto& uploaders = transport::UploaderMgr::instance();
    std::shared_ptr<transport::Uploader> uploader;
    uploaders.GetUploader(jobId, uploader);
    if (uploader != nullptr) {
        PROF_LOGI("Release device(%d) uploader.", devIdOnHost);
        uploader->BoundStall(true);  // it may have come after the engine's own
        const std::string finish = EncodeFinish(devIdOnHost, jobId);
        const int ret = finish.empty()
                            ? -1
                            : uploader->UploadData(finish.data(), static_cast<int>(finish.size()));
        if (ret != 0) {
            PROF_LOGI("Upload data failed when collection finished");
            return ret;
        }
        uploader->Flush();
        PROF_LOGI("Device(%d) data session finished", devIdOnHost);
    }
    PROF_LOGI("reset device(%d) uploader.", devIdOnHost);
    uploaders.DelUploader(jobId);
    PROF_LOGI("Device(%d) leaving finish_collection...", devIdOnHost);
    return 0;
}

}  // namespace analysis::nedra::device
