#include "profiling/datapath/reader_buffer.h"

#include <utility>

namespace analysis::nedra::transport {

char* ReaderBuffer::Data() {
    if (buffer_ == nullptr) {
        buffer_ = encoder_.TakeRoom(capacity_);
    }
    return buffer_ == nullptr ? nullptr : encoder_.DataOf(*buffer_);
}

MessageBuffer ReaderBuffer::TakeMessage(size_t used) {
    const char* data = Data();
    if (data == nullptr) {
        return nullptr;
    }
    if (used < capacity_ / 2) {
        return encoder_.Encode({data, used});
    }
    return encoder_.Finish(*buffer_, used) ? std::exchange(buffer_, nullptr) : nullptr;
}

}  // namespace analysis::nedra::transport
