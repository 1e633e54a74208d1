// Hands a decoded message to the handler of its type. A dispatcher belongs to one receiver: it is
// filled before the receiver's thread starts and read on that thread alone.
#pragma once

#include <google/protobuf/message.h>

#include <map>
#include <memory>

namespace analysis::nedra::message {

using MessagePtr = std::shared_ptr<google::protobuf::Message>;

class IMsgHandler {
public:
    virtual ~IMsgHandler() = default;
    // Deals with the message, reply included, before it returns. One of another type is ignored.
    virtual void OnNewMessage(MessagePtr message) = 0;
};

class MsgDispatcher {
public:
    virtual ~MsgDispatcher() = default;

    // A null handler is ignored, a second one for a type replaces the first.
    template <typename Request>
    void RegisterHandler(std::shared_ptr<IMsgHandler> handler) {
        Register(Request::descriptor(), std::move(handler));
    }
    // A null message (one that did not decode), and one of a type without a handler, costs a log
    // line.
    void OnNewMessage(const MessagePtr& message);

private:
    using Type = const google::protobuf::Descriptor*;

    void Register(Type type, std::shared_ptr<IMsgHandler> handler);

    std::map<Type, std::shared_ptr<IMsgHandler>> handlers_;
};

}  // namespace analysis::nedra::message
