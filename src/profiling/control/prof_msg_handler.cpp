#include "profiling/control/prof_msg_handler.h"

#include <string>

#include "hdc/log_side.h"
#include "profiling/config/make_shared.h"
#include "profiling/config/param_validation.h"
#include "profiling/control/collection_entry.h"
#include "profiling/control/task_manager.h"
#include "profiling/control/task_relationship_mgr.h"

namespace analysis::nedra::device {

using Analysis::Nedra::TaskHandle::TaskRelationshipMgr;
using common::validation::ParamValidation;
using message::JobContext;
using message::StatusInfo;

namespace {

// The words of a command.
struct Command {
    const char* handler;  // in log lines
    const char* failure;  // what the host reads when the task gave no reason of its own
    const char* reply;    // in the log line of the reply
};

constexpr Command kJobStart{"JobStartHandler", "start job failed", "Reply job start"};
constexpr Command kJobStop{"JobStopHandler", "stop job failed", "Reply job stop"};
constexpr Command kReplayStart{"StartHandler", "start failed", "Reply start"};
constexpr Command kReplayStop{"StopHandler", "stop failed", "Stop"};

// A command on its way from its message to its reply.
class Conversation {
public:
    Conversation(const Command& command, const ControlSession& session)
        : command_(command), session_(session) {
        PROF_LOGI("[%s::OnNewMessage] Entering handler", command.handler);
    }

    // False when the context cannot be read; there is no reply then.
    [[nodiscard]] bool Open(const proto::Header& header) {
        if (!context_.FromString(header.job_ctx())) {
            PROF_LOGE("Failed to parse jobctx json %s.", header.job_ctx().c_str());
            return false;
        }
        key_ = context_.job_id + "_" + context_.dev_id;
        return true;
    }
    // Null, and no reply, when there is no task of the key.
    [[nodiscard]] std::shared_ptr<IJobCallback> FindTask() {
        auto task = TaskManager::instance().GetTask(key_, session_.transport);
        if (task == nullptr) {
            PROF_LOGE("Get Task Failed");
        }
        return task;
    }

    // Takes what the task's operation answered, and what it said.
    void Finish(int ret, StatusInfo status, int devIndexId) {
        if (ret != 0) {
            status.status = 1;
            if (status.info.empty()) {
                status.info = command_.failure;
            }
        }
        Reply(status, devIndexId);
    }
    void Reply(const StatusInfo& status, int devIndexId) {
        const int sent = CollectionEntry::instance().SendMsgByDevId(
            context_.job_id, devIndexId, CreateResponse(status), session_.transport);
        PROF_LOGI("%s, status=%s, devIndexId=%d, ret=%d", command_.reply, status.ToString().c_str(),
                  devIndexId, sent);
    }

    const JobContext& context() const { return context_; }
    const std::string& key() const { return key_; }

private:
    const Command& command_;
    const ControlSession& session_;
    JobContext context_;
    std::string key_;
};

// The three commands for a task that is there. True when it was, and has been replied.
template <typename Request, typename Operation>
bool RunOnTask(const Command& command, const ControlSession& session,
               const message::MessagePtr& message, Operation operation,
               std::string* key = nullptr) {
    const auto request = std::dynamic_pointer_cast<Request>(message);
    if (request == nullptr) {
        return false;
    }
    Conversation conversation(command, session);
    if (!conversation.Open(request->hdr())) {
        return false;
    }
    const auto task = conversation.FindTask();
    if (task == nullptr) {
        return false;
    }
    const int devIndexId = task->GetDevId();
    StatusInfo status;
    const int ret = operation(*task, request, status);
    conversation.Finish(ret, status, devIndexId);
    if (key != nullptr) {
        *key = conversation.key();
    }
    return true;
}

// The session's own number means the session's own device, whatever other hosts call by it.
int DeviceOf(int hostId, const ControlSession& session) {
    return hostId == session.devIdOnHost ? session.devIndexId
                                         : TaskRelationshipMgr::instance().GetDevIdByHostId(hostId);
}

bool IsJobContextValid(const JobContext& context) {
    const auto& checks = ParamValidation::instance();
    if (!checks.CheckDeviceIdIsValid(context.dev_id)) {
        PROF_LOGE("[JobStartHandler::OnNewMessage]jobCtx.dev_id:%s is not valid!",
                  context.dev_id.c_str());
        return false;
    }
    if (!checks.CheckJobIdIsValid(context.job_id)) {
        PROF_LOGE("[JobStartHandler::OnNewMessage]jobCtx.job_id:%s is illegal",
                  context.job_id.c_str());
        return false;
    }
    return true;
}

}  // namespace

std::shared_ptr<proto::Response> CreateResponse(const StatusInfo& status) {
    auto response = common::MakeShared<proto::Response>();
    if (response != nullptr) {
        response->set_status(status.status == 0 ? proto::SUCCESS : proto::FAILED);
        response->set_message(status.ToString());
    }
    return response;
}

void JobStartHandler::OnNewMessage(message::MessagePtr message) {
    const auto request = std::dynamic_pointer_cast<proto::JobStartReq>(message);
    if (request == nullptr) {
        return;
    }
    Conversation conversation(kJobStart, session_);
    if (!conversation.Open(request->hdr()) || !IsJobContextValid(conversation.context())) {
        return;
    }
    const int hostId = std::stoi(conversation.context().dev_id);
    const int devId = DeviceOf(hostId, session_);
    StatusInfo status;
    const auto task =
        TaskManager::instance().CreateTask(hostId, conversation.key(), session_.transport, devId);
    if (task == nullptr) {
        PROF_LOGE("Create Task Failed");
        status.status = 1;
        status.info = "Create task failed.";
        // There is no task to tell the device, but the host waits for this on its session.
        conversation.Reply(status, devId);
        return;
    }
    const int devIndexId = task->GetDevId();
    const int ret = task->OnJobStart(request, status);
    conversation.Finish(ret, status, devIndexId);
}

void JobStopHandler::OnNewMessage(message::MessagePtr message) {
    std::string key;
    const auto stop = [](IJobCallback& task, const auto&, StatusInfo& status) {
        return task.OnJobEnd(status);
    };
    if (RunOnTask<proto::JobStopReq>(kJobStop, session_, message, stop, &key) &&
        !TaskManager::instance().DeleteTask(key)) {
        PROF_LOGE("DeleteTask failed.jobId: %s", key.c_str());
    }
}

void ReplayStartHandler::OnNewMessage(message::MessagePtr message) {
    RunOnTask<proto::ReplayStartReq>(
        kReplayStart, session_, message,
        [](IJobCallback& task, const auto& request, StatusInfo& status) {
            return task.Start(request, status);
        });
}

void ReplayStopHandler::OnNewMessage(message::MessagePtr message) {
    RunOnTask<proto::ReplayStopReq>(kReplayStop, session_, message,
                                    [](IJobCallback& task, const auto& request,
                                       StatusInfo& status) { return task.End(request, status); });
}

}  // namespace analysis::nedra::device
