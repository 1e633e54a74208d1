#include "hdc_message.h"

namespace orla::emulation {

bool Message::AddOutgoing(const char* data, int length) {
    if (receivedLength_ != 0 || outgoing_.size() >= static_cast<size_t>(count_) || length < 1 ||
        static_cast<uint32_t>(length) > maxSegment_) {
        return false;
    }
    outgoing_.push_back({data, static_cast<uint32_t>(length)});
    return true;
}

void Message::SetReceived(Buffer buffer, uint32_t length) {
    received_ = std::move(buffer);
    receivedLength_ = length;
}

bool Message::GetReceived(int index, char** data, int* length) const {
    if (index != 0 || receivedLength_ == 0) {
        return false;
    }
    *data = received_.data.get();
    *length = static_cast<int>(receivedLength_);
    return true;
}

void Message::Clear() {
    outgoing_.clear();
    pool_->Give(std::move(received_));
    received_ = {};
    receivedLength_ = 0;
}

}  // namespace orla::emulation
