#include "monitor_client.h"

#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>

#include "results.h"

namespace orla::emulation {

namespace {

constexpr timeval kPatience = {2, 0};
constexpr size_t kLongestAnswer = 256;

// What one line can carry.
bool IsOneLine(const std::string& text) {
    return text.find('\n') == std::string::npos;
}

}  // namespace

MonitorClient::MonitorClient(UniqueFd fd) : fd_(std::move(fd)) {
    setsockopt(fd_.get(), SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof(kPatience));
    setsockopt(fd_.get(), SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof(kPatience));
}

bool MonitorClient::Send(const std::string& line) {
    const ssize_t sent = send(fd_.get(), line.data(), line.size(), MSG_NOSIGNAL);
    return sent == static_cast<ssize_t>(line.size());
}

bool MonitorClient::ReceiveLine(std::string* line) {
    for (;;) {
        if (const size_t end = received_.find('\n'); end != std::string::npos) {
            *line = received_.substr(0, end);
            received_.erase(0, end + 1);
            return true;
        }
        char buffer[kLongestAnswer];
        const ssize_t size = recv(fd_.get(), buffer, sizeof(buffer), 0);
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size <= 0 || received_.size() > kLongestAnswer) {
            return false;
        }
        received_.append(buffer, static_cast<size_t>(size));
    }
}

int MonitorClient::Ask(const std::string& verb, const std::string& arguments) {
    if (!IsOneLine(arguments)) {
        return kInvalidArgument;
    }
    const std::lock_guard<std::mutex> lock(askMutex_);
    const std::string number = std::to_string(++questions_) + ' ';
    if (!Send(verb + ' ' + number + arguments + '\n')) {
        return kSystemError;
    }
    for (std::string answer; ReceiveLine(&answer);) {
        if (answer.compare(0, number.size(), number) == 0) {
            return answer.substr(number.size()) == "ok" ? kDone : kNotWatched;
        }
    }
    return kSystemError;
}

int MonitorClient::Register(uint32_t timeoutMs, const std::string& script) {
    const int result = Ask("register", std::to_string(timeoutMs) + ' ' + script);
    registered_ = result == kDone;
    return result;
}

int MonitorClient::Heartbeat() {
    if (!registered_) {
        return kNotWatched;
    }
    return Send("heartbeat\n") ? kDone : kSystemError;
}

int MonitorClient::Deregister(const std::string& reason) {
    registered_ = false;
    return Ask("deregister", reason);
}

void MonitorClient::Close() {
    shutdown(fd_.get(), SHUT_RDWR);
}

}  // namespace orla::emulation
