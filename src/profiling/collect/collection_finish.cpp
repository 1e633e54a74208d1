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

// 0 when the message and all before it went to the driver.
int SendFinish(transport::Uploader& uploader, int devIdOnHost, const std::string& jobId) {
    const std::string finish = EncodeFinish(devIdOnHost, jobId);
    const int ret =
        finish.empty() ? -1 : uploader.UploadData(finish.data(), static_cast<int>(finish.size()));
    if (ret != 0) {
        PROF_LOGI("Upload data failed when collection finished");
        return ret;
    }
    if (!uploader.Flush()) {
        PROF_LOGE("Device(%d) data session of job %s ends without all of its data", devIdOnHost,
                  jobId.c_str());
        return -1;
    }
    PROF_LOGI("Device(%d) data session finished", devIdOnHost);
    return 0;
}

}  // namespace

int FinishCollection(int devIdOnHost, const std::string& jobId) {
    PROF_LOGI("Entering device(%d) FinishCollection...jobId:%s", devIdOnHost, jobId.c_str());
    auto& uploaders = transport::UploaderMgr::instance();
    const transport::UploaderMgr::Ending ending(uploaders, jobId);
    std::shared_ptr<transport::Uploader> uploader;
    uploaders.GetUploader(jobId, uploader);
    int ret = 0;
    if (uploader != nullptr) {
        PROF_LOGI("Release device(%d) uploader.", devIdOnHost);
        ret = SendFinish(*uploader, devIdOnHost, jobId);
    }
    PROF_LOGI("reset device(%d) uploader.", devIdOnHost);
    uploaders.DelUploader(jobId);
    PROF_LOGI("Device(%d) leaving finish_collection...", devIdOnHost);
    return ret;
}

}  // namespace analysis::nedra::device
