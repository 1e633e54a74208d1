#include "proto/codec.h"

#include <endian.h>
#include <google/protobuf/descriptor.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream.h>
#include <google/protobuf/stubs/logging.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstring>
#include <exception>

#include "hdc/log_side.h"
#include "proto/profiler.pb.h"

namespace analysis::nedra::message {

using google::protobuf::Descriptor;
using google::protobuf::DescriptorPool;
using google::protobuf::Message;
using google::protobuf::MessageFactory;

namespace {

using NameLen = uint32_t;
constexpr size_t kMaxNameLen = kMaxTypeName + 1;

// Appends what protobuf writes to a string. Large fields come as aliases of the message and are
// appended from there, which spares them the clearing of the bytes that they then overwrite.
class AppendStream : public google::protobuf::io::ZeroCopyOutputStream {
public:
    // `out` must have the capacity for everything that will be written.
    explicit AppendStream(std::string* out) : out_(*out), start_(out->size()) {}
    ~AppendStream() override { Flush(); }

    bool Next(void** data, int* size) override {
        Flush();
        *data = block_;
        *size = used_ = sizeof(block_);
        return true;
    }
    void BackUp(int count) override {
        used_ -= count;
        Flush();
    }
    bool WriteAliasedRaw(const void* data, int size) override {
        Flush();
        out_.append(static_cast<const char*>(data), static_cast<size_t>(size));
        return true;
    }
    bool AllowsAliasing() const override { return true; }
    int64_t ByteCount() const override {
        return static_cast<int64_t>(out_.size() - start_) + used_;
    }

private:
    void Flush() {
        out_.append(block_, static_cast<size_t>(used_));
        used_ = 0;
    }

    std::string& out_;
    const size_t start_;
    int used_ = 0;  // bytes of block_ that are written but not yet appended
    char block_[1024];
};

// Appends the envelope. The room is settled first: nothing is moved on the way, and nothing can
// run out of memory inside protobuf.
bool AppendParts(const std::string& name, const Message& message, std::string* buffer) {
    const size_t bodySize = message.ByteSizeLong();
    if (bodySize > INT_MAX) {
        return false;
    }
    const NameLen nameLen = static_cast<NameLen>(name.size() + 1);
    const NameLen wireLen = htobe32(nameLen);
    const size_t size = buffer->size() + sizeof(wireLen) + nameLen + bodySize;
    if (size > buffer->capacity()) {
        buffer->reserve(size);
    }
    buffer->append(reinterpret_cast<const char*>(&wireLen), sizeof(wireLen));
    buffer->append(name.c_str(), nameLen);

    AppendStream stream(buffer);
    google::protobuf::io::CodedOutputStream coded(&stream);
    coded.EnableAliasing(true);
    message.SerializeWithCachedSizes(&coded);
    return true;
}

}  // namespace

bool AppendEnvelope(const Message& message, std::string* buffer) {
    const size_t start = buffer->size();
    try {
        const std::string name = message.GetTypeName();
        if (name.size() > kMaxTypeName) {
            PROF_LOGE("Type size:%d is invalid", static_cast<int>(name.size()));
            return false;
        }
        if (AppendParts(name, message, buffer)) {
            return true;
        }
    } catch (const std::exception&) {
        buffer->resize(start);
    }
    PROF_LOGE("Failed to append message");
    return false;
}

std::string EncodeMessage(const std::shared_ptr<Message>& message) {
    std::string envelope;
    if (message == nullptr) {
        PROF_LOGE("Message is null");
        return envelope;
    }
    if (!AppendEnvelope(*message, &envelope)) {
        envelope.clear();
    }
    return envelope;
}

std::shared_ptr<std::string> EncodeMessageShared(const std::shared_ptr<Message>& message) {
    try {
        auto envelope = std::make_shared<std::string>(EncodeMessage(message));
        return envelope->empty() ? nullptr : envelope;
    } catch (const std::exception& e) {
        PROF_LOGE("make shared failed, message: %s", e.what());
        return nullptr;
    }
}

std::shared_ptr<Message> CreateMessage(std::string_view name) {
    // Types are found by name alone. Without this a static link could leave out the schema.
    google::protobuf::LinkMessageReflection<proto::Header>();
    try {
        const std::string type(name.substr(0, name.find('\0')));
        const Descriptor* descriptor =
            DescriptorPool::generated_pool()->FindMessageTypeByName(type);
        if (descriptor == nullptr) {
            PROF_LOGW("Failed to FindMessageTypeByName, name=%s", type.c_str());
            return nullptr;
        }
        MessageFactory* factory = MessageFactory::generated_factory();
        if (factory == nullptr) {
            PROF_LOGE("Failed to generated_factory by descriptor of name=%s", type.c_str());
            return nullptr;
        }
        const Message* prototype = factory->GetPrototype(descriptor);
        if (prototype == nullptr) {
            PROF_LOGE("Failed to GetPrototype by descriptor of name=%s", type.c_str());
            return nullptr;
        }
        return std::shared_ptr<Message>(prototype->New());
    } catch (const std::exception& e) {
        PROF_LOGE("make shared failed, message: %s", e.what());
        return nullptr;
    }
}

namespace {

// The name of the type that an envelope of foreign bytes states, its terminating zero included.
bool ReadTypeName(std::string_view buffer, std::string_view* name) {
    if (buffer.size() > kMaxEnvelope) {
        PROF_LOGE("[DecodeMessage] buf size(%u) is too big.", static_cast<unsigned>(buffer.size()));
        return false;
    }
    NameLen nameLen = 0;
    if (buffer.size() < sizeof(nameLen)) {
        PROF_LOGE("bufLen less than name len, bufLen=%d, expected_len=%d",
                  static_cast<int>(buffer.size()), static_cast<int>(sizeof(nameLen)));
        return false;
    }
    std::memcpy(&nameLen, buffer.data(), sizeof(nameLen));
    nameLen = be32toh(nameLen);
    if (nameLen > kMaxNameLen) {
        PROF_LOGE("[DecodeMessage] buf size(%u) is too big.", nameLen);
        return false;
    }
    if (buffer.size() < sizeof(nameLen) + nameLen) {
        PROF_LOGE("bufLen less than name, bufLen=%d, expected_len=%d",
                  static_cast<int>(buffer.size()), static_cast<int>(sizeof(nameLen) + nameLen));
        return false;
    }
    *name = buffer.substr(sizeof(nameLen), nameLen);
    return true;
}

bool ParseBody(std::string_view body, Message* message) {
    // A host's malformed text is one line of the agent's log, not also one on standard error.
    const google::protobuf::LogSilencer silencer;
    try {
        return message->ParseFromArray(body.data(), static_cast<int>(body.size()));
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

std::shared_ptr<Message> DecodeMessage(std::string_view buffer) {
    std::string_view name;
    if (!ReadTypeName(buffer, &name)) {
        return nullptr;
    }
    std::shared_ptr<Message> message = CreateMessage(name);
    if (message == nullptr) {
        // Once more before a host's message is dropped: memory may have been short just then.
        message = CreateMessage(name);
    }
    if (message == nullptr) {
        PROF_LOGW("Failed to CreateMessage from name:%.*s", static_cast<int>(name.size()),
                  name.data());
        return nullptr;
    }
    const std::string_view body = buffer.substr(sizeof(NameLen) + name.size());
    if (!ParseBody(body, message.get())) {
        PROF_LOGE("Failed to ParseFromArray, dataLen=%d", static_cast<int>(body.size()));
        return nullptr;
    }
    return message;
}

std::shared_ptr<Message> DecodeOneOf(Types types, size_t maxSize, std::string_view buffer) {
    std::string_view name;
    if (!ReadTypeName(buffer, &name)) {
        return nullptr;
    }
    name = name.substr(0, name.find('\0'));
    const bool isWanted = std::any_of(types.begin(), types.end(), [&](const Descriptor* type) {
        return type->full_name() == name;
    });
    if (!isWanted || buffer.size() > maxSize) {
        PROF_LOGW("Nobody takes %zu bytes of a message of type:%.*s", buffer.size(),
                  static_cast<int>(name.size()), name.data());
        return nullptr;
    }
    return DecodeMessage(buffer);
}

const Descriptor* TypeOf(std::string_view buffer) {
    std::string_view name;
    const auto message = ReadTypeName(buffer, &name) ? CreateMessage(name) : nullptr;
    return message == nullptr ? nullptr : message->GetDescriptor();
}

}  // namespace analysis::nedra::message
