#include "profiling/datapath/reader_buffer.h"

#include <google/protobuf/io/coded_stream.h>

#include <cstring>
#include <utility>

namespace analysis::nedra::transport {

using google::protobuf::io::CodedOutputStream;

namespace {

size_t LengthBytes(size_t size) {
    return CodedOutputStream::VarintSize32(static_cast<uint32_t>(size));
}

}  // namespace

ReaderBuffer::ReaderBuffer(size_t capacity, FileChunkInfo info, std::string jobCtx)
    : capacity_(capacity),
      info_(std::move(info)),
      jobCtx_(std::move(jobCtx)),
      lengthBytes_(LengthBytes(capacity)) {}

char* ReaderBuffer::Data() {
    if (head_.empty() && !AppendChunkHead(info_, jobCtx_, &head_)) {
        head_.clear();
        return nullptr;
    }
    const size_t head = head_.size() + lengthBytes_;
    if (buffer_ == nullptr) {
        buffer_ = TakeFilledBuffer(head + capacity_ + kChunkTailRoom);
    }
    return buffer_ == nullptr ? nullptr : buffer_->data() + kFrontRoom + head;
}

MessageBuffer ReaderBuffer::TakeMessage(size_t used) {
    const char* data = Data();
    if (data == nullptr) {
        return nullptr;
    }
    const bool isLarge = used >= capacity_ / 2;
    if (!isLarge || LengthBytes(used) != lengthBytes_) {
        MessageBuffer copy = EncodeFileChunk({data, used}, info_, jobCtx_);
        if (isLarge && copy != nullptr) {
            lengthBytes_ = LengthBytes(used);
        }
        return copy;
    }
    std::string tail;
    if (!AppendChunkTail(used, info_, &tail)) {
        return nullptr;
    }
    char* head = buffer_->data() + kFrontRoom;
    std::memcpy(head, head_.data(), head_.size());
    CodedOutputStream::WriteVarint32ToArray(static_cast<uint32_t>(used),
                                            reinterpret_cast<uint8_t*>(head) + head_.size());
    // There is room for all of this.
    buffer_->resize(static_cast<size_t>(data - buffer_->data()) + used);
    buffer_->append(tail);
    return std::exchange(buffer_, nullptr);
}

}  // namespace analysis::nedra::transport
