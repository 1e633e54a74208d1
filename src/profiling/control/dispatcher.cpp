#include "profiling/control/dispatcher.h"

#include <utility>

#include "hdc/log_side.h"

namespace analysis::nedra::message {

void MsgDispatcher::Register(Type type, std::shared_ptr<IMsgHandler> handler) {
    if (handler != nullptr) {
        handlers_[type] = std::move(handler);
    }
}

void MsgDispatcher::OnNewMessage(const MessagePtr& message) {
    if (message == nullptr) {
        PROF_LOGE("message is null");
        return;
    }
    const auto handler = handlers_.find(message->GetDescriptor());
    if (handler == handlers_.end()) {
        PROF_LOGE("Failed to find handler for message:%s", message->GetTypeName().c_str());
        return;
    }
    handler->second->OnNewMessage(message);
}

}  // namespace analysis::nedra::message
