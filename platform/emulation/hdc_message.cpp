#include "hdc_message.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

namespace orla::emulation {

namespace {

constexpr uint32_t kOwnMapping = 128 << 10;  // from this size on a freed block may be unmapped

bool IsMapped(const char* at) {
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    unsigned char resident = 0;
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the page that an address lies in.
    void* start = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(at) / page * page);
    return mincore(start, 1, &resident) == 0;
}

}  // namespace

OutgoingBuffer::OutgoingBuffer(const char* data, uint32_t length, const Caller& adder)
    : data_(data), length_(length), adder_(adder) {
    std::memcpy(first_.data(), data_, Kept());
    std::memcpy(last_.data(), data_ + length_ - Kept(), Kept());
}

bool OutgoingBuffer::IsIntact() const {
    const char* last = data_ + length_ - Kept();
    if (length_ >= kOwnMapping && !IsMapped(data_)) {
        return false;
    }
    return std::memcmp(first_.data(), data_, Kept()) == 0 &&
           std::memcmp(last_.data(), last, Kept()) == 0;
}

bool Message::SetOutgoing(const char* data, int length, const Caller& adder) {
    if (!empty() || length < 1 || static_cast<uint32_t>(length) > maxSegment_) {
        return false;
    }
    outgoing_.emplace(data, static_cast<uint32_t>(length), adder);
    return true;
}

void Message::CheckOutgoing(HandleValue handle, const Caller& caller) const {
    if (outgoing_ && !outgoing_->IsIntact()) {
        Breach("a buffer that is gone or changed before its message was given back",
               HandleText(handle), caller.Text(), outgoing_->adder().Text());
    }
}

void Message::AddReceived(Buffer buffer, uint32_t offset, uint32_t length) {
    received_[receivedCount_++] = {std::move(buffer), offset, length};
}

bool Message::GetReceived(int index, char** data, int* length) const {
    if (index < 0 || static_cast<size_t>(index) >= receivedCount_) {
        return false;
    }
    const Received& received = received_[static_cast<size_t>(index)];
    *data = received.buffer.data == nullptr ? nullptr : &received.buffer.data[received.offset];
    *length = static_cast<int>(received.length);
    return true;
}

void Message::Clear() {
    outgoing_.reset();
    for (size_t i = 0; i < receivedCount_; ++i) {
        pool_->Give(std::move(received_[i].buffer));
    }
    receivedCount_ = 0;
}

}  // namespace orla::emulation
