// The input is an envelope. What decodes must encode again, to an envelope of an equal message.
#include <google/protobuf/util/message_differencer.h>

#include <cstdint>
#include <cstdlib>

#include "proto/codec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace analysis::nedra::message;
    const auto message = DecodeMessage({reinterpret_cast<const char*>(data), size});
    if (message == nullptr) {
        return 0;
    }
    const auto again = DecodeMessage(EncodeMessage(message));
    if (again == nullptr || !google::protobuf::util::MessageDifferencer::Equals(*message, *again)) {
        std::abort();
    }
    return 0;
}
