// The host's way into the channel: a connection, and the hello on it. Any thread.
#pragma once

#include <cstdint>
#include <memory>

#include "hdc_client.h"
#include "hdc_session.h"

namespace orla::emulation {

// A session of `client` with a logical device, in the name of process `pid` (0: this one). A
// result of the driver; `*session` is unchanged on a failure.
[[nodiscard]] int Connect(uint32_t device, uint32_t pid, const std::shared_ptr<Client>& client,
                          std::shared_ptr<Session>* session);

}  // namespace orla::emulation
