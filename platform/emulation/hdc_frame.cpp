#include "hdc_frame.h"

#include <string>
#include <utility>

#include "log_book.h"

namespace orla::emulation {

void TellWhatIsLeft() {
    const Handles& handles = Handles::Get();
    if (!LogBook::Get().Enabled(LogLevel::kDebug) || handles.servers.added() == 0 ||
        handles.servers.size() != 0) {
        return;
    }
    std::string text = "no server is left;";
    const auto add = [&text](const char* kind, size_t idle, size_t all) {
        text += " " + std::string(kind) + " " + std::to_string(idle) + " and " +
                std::to_string(all - idle) + " in a call,";
    };
    add("clients", handles.clients.CountIdle(), handles.clients.size());
    add("sessions", handles.sessions.CountIdle(), handles.sessions.size());
    add("messages", handles.messages.CountIdle(), handles.messages.size());
    add("event waits", handles.epolls.CountIdle(), handles.epolls.size());
    text.pop_back();
    LogBook::Get().Write(kDriverModule, LogLevel::kDebug, std::move(text));
}

}  // namespace orla::emulation
