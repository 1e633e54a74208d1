// The handles of this process, one table for each kind. The tables are never destroyed, so that
// a thread which is still in the driver when the process ends finds them.
#pragma once

#include "handle_table.h"
#include "hdc_client.h"
#include "hdc_epoll.h"
#include "hdc_message.h"
#include "hdc_server.h"
#include "hdc_session.h"
#include "monitor_client.h"

namespace orla::emulation {

struct Handles {
    HandleTable<Client, HandleKind::kClient> clients;
    HandleTable<Server, HandleKind::kServer> servers;
    HandleTable<Session, HandleKind::kSession> sessions;
    HandleTable<Message, HandleKind::kMessage> messages;
    HandleTable<EventWait, HandleKind::kEpoll> epolls;
    HandleTable<MonitorClient, HandleKind::kMonitor> monitors;

    [[nodiscard]] static Handles& Get() {
        static Handles& handles = *new Handles;
        return handles;
    }
};

}  // namespace orla::emulation
