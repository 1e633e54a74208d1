// An application monitor for a development machine, on the socket that the real one serves on a
// device: it prints and counts what its clients say, tells when one falls silent, and can be told
// to refuse or to be late. It never runs the script that a client names.
//
// Lines of text in both directions, given in docs/emulation.md. One thread: it sleeps in poll
// until a client says something, an answer is due or a client should have said something.
#include <fmt/core.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <deque>
#include <list>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr char kSocketPath[] = "/var/driver/appmon.socket";
constexpr size_t kLongestLine = 4096;
constexpr uint32_t kLongestTimeoutMs = 24 * 3600 * 1000;

struct Options {
    std::string socket = kSocketPath;
    uint32_t refuse = 0;
    uint32_t delayMs = 0;
};

struct Counts {
    uint64_t registrations = 0;
    uint64_t refusals = 0;
    uint64_t heartbeats = 0;
    uint64_t deregistrations = 0;
};

template <typename... Arguments>
void Say(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
    fmt::print("{}\n", fmt::format(format, std::forward<Arguments>(arguments)...));
    std::fflush(stdout);
}

struct Client {
    struct Answer {
        Clock::time_point due;
        std::string text;
    };

    int fd;
    pid_t pid;  // 0 when it isn't visible from here
    std::string received = {};
    std::deque<Answer> answers = {};  // in the order in which they are due
    // Of a registration; the timeout is 0 without one.
    milliseconds timeout{0};
    Clock::time_point lastSign = {};
    bool isSilent = false;
    std::string script = {};
    uint64_t heartbeats = 0;
};

// ---- What a client says ------------------------------------------------------------------

class Monitor {
public:
    explicit Monitor(const Options& options) : options_(options) {}

    [[nodiscard]] const Counts& counts() const { return counts_; }

    // One line of a client. False for one that is none of ours.
    bool Take(Client* client, const std::string& line, Clock::time_point now) {
        std::istringstream in(line);
        std::string verb;
        in >> verb;
        if (verb == "heartbeat") {
            return Heartbeat(client, now);
        }
        uint32_t number = 0;
        if (!(in >> number)) {
            return false;
        }
        if (verb == "register") {
            return Register(client, number, in, now);
        }
        if (verb != "deregister") {
            return false;
        }
        ++counts_.deregistrations;
        client->timeout = milliseconds(0);
        Say("pid {}: deregistered: {}", client->pid, Rest(in));
        Answer(client, number, "ok", now);
        return true;
    }

private:
    static std::string Rest(std::istringstream& in) {
        std::string rest;
        std::getline(in >> std::ws, rest);
        return rest;
    }

    bool Register(Client* client, uint32_t number, std::istringstream& in, Clock::time_point now) {
        uint32_t timeoutMs = 0;
        if (!(in >> timeoutMs) || timeoutMs == 0 || timeoutMs > kLongestTimeoutMs) {
            return false;
        }
        if (counts_.refusals < options_.refuse) {
            ++counts_.refusals;
            Say("pid {}: refused", client->pid);
            Answer(client, number, "refused", now);
            return true;
        }
        ++counts_.registrations;
        client->timeout = milliseconds(timeoutMs);
        client->lastSign = now;
        client->isSilent = false;
        client->script = Rest(in);
        Say("pid {}: registered, timeout {} ms, script {}", client->pid, timeoutMs, client->script);
        Answer(client, number, "ok", now);
        return true;
    }

    bool Heartbeat(Client* client, Clock::time_point now) {
        if (client->timeout.count() == 0) {
            return false;
        }
        ++counts_.heartbeats;
        client->lastSign = now;
        client->isSilent = false;
        Say("pid {}: heartbeat {}", client->pid, ++client->heartbeats);
        return true;
    }

    void Answer(Client* client, uint32_t number, const char* word, Clock::time_point now) {
        client->answers.push_back(
            {now + milliseconds(options_.delayMs), fmt::format("{} {}\n", number, word)});
    }

    const Options& options_;
    Counts counts_;
};

// ---- The socket --------------------------------------------------------------------------

sockaddr_un AddressOf(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    return address;
}

// A listening socket in place of one that a killed monitor left; -1 with errno.
int Listen(const std::string& path) {
    const sockaddr_un address = AddressOf(path);
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0 || path.size() >= sizeof(address.sun_path)) {
        return -1;
    }
    if (connect(fd, generic, sizeof(address)) != 0 && errno == ECONNREFUSED) {
        unlink(path.c_str());
    }
    const bool listens = bind(fd, generic, sizeof(address)) == 0 && listen(fd, SOMAXCONN) == 0;
    return listens ? fd : -1;
}

Client Accept(int listener) {
    Client client = {accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK), 0};
    ucred credentials = {};
    socklen_t size = sizeof(credentials);
    if (client.fd >= 0 &&
        getsockopt(client.fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0) {
        client.pid = credentials.pid;
    }
    return client;
}

// False when the client has gone, or says what nobody understands.
bool Receive(Client* client, Monitor* monitor, Clock::time_point now) {
    char buffer[1024];
    const ssize_t size = recv(client->fd, buffer, sizeof(buffer), 0);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) {
        return true;
    }
    if (size <= 0) {
        return false;
    }
    client->received.append(buffer, static_cast<size_t>(size));
    for (size_t end = 0; (end = client->received.find('\n')) != std::string::npos;) {
        const std::string line = client->received.substr(0, end);
        client->received.erase(0, end + 1);
        if (!monitor->Take(client, line, now)) {
            Say("pid {}: not understood: {}", client->pid, line);
            return false;
        }
    }
    return client->received.size() <= kLongestLine;
}

void SendDue(Client* client, Clock::time_point now) {
    while (!client->answers.empty() && client->answers.front().due <= now) {
        const std::string& text = client->answers.front().text;
        // An answer that nobody takes is lost; a client that has gone is noticed by the receive.
        static_cast<void>(send(client->fd, text.data(), text.size(), MSG_NOSIGNAL));
        client->answers.pop_front();
    }
}

// ---- The process -------------------------------------------------------------------------

class Server {
public:
    Server(int listener, int signals, const Options& options)
        : listener_(listener), signals_(signals), monitor_(options) {}

    // Returns after a signal, with everything taken that had been said until then.
    const Counts& Serve() {
        for (bool stopping = false;;) {
            std::vector<pollfd> waits = {{stopping ? -1 : signals_, POLLIN, 0},
                                         {listener_, POLLIN, 0}};
            for (const Client& client : clients_) {
                waits.push_back({client.fd, POLLIN, 0});
            }
            const int ready = poll(waits.data(), waits.size(), stopping ? 0 : PauseMs());
            if (stopping && ready <= 0) {
                return monitor_.counts();
            }
            stopping = stopping || waits[0].revents != 0;
            ServeClients(waits);
            if (waits[1].revents != 0) {
                if (Client client = Accept(listener_); client.fd >= 0) {
                    clients_.push_back(std::move(client));
                }
            }
        }
    }

private:
    // Until the next answer or the next heartbeat that should have come; -1 for never.
    [[nodiscard]] int PauseMs() const {
        Clock::time_point next = Clock::time_point::max();
        for (const Client& client : clients_) {
            if (!client.answers.empty()) {
                next = std::min(next, client.answers.front().due);
            }
            if (client.timeout.count() != 0 && !client.isSilent) {
                next = std::min(next, client.lastSign + client.timeout);
            }
        }
        if (next == Clock::time_point::max()) {
            return -1;
        }
        const auto pause = std::chrono::ceil<milliseconds>(next - Clock::now()).count();
        return static_cast<int>(std::clamp<int64_t>(pause, 0, kLongestTimeoutMs));
    }

    void ServeClients(const std::vector<pollfd>& waits) {
        size_t index = 2;
        for (auto client = clients_.begin(); client != clients_.end(); ++index) {
            const Clock::time_point now = Clock::now();
            if (waits[index].revents != 0 && !Receive(&*client, &monitor_, now)) {
                Say("pid {}: gone{}", client->pid,
                    client->timeout.count() == 0 ? "" : " while registered");
                close(client->fd);
                client = clients_.erase(client);
                continue;
            }
            SendDue(&*client, now);
            TellSilence(&*client, now);
            ++client;
        }
    }

    static void TellSilence(Client* client, Clock::time_point now) {
        if (client->timeout.count() != 0 && !client->isSilent &&
            now >= client->lastSign + client->timeout) {
            client->isSilent = true;
            Say("pid {}: silent for {} ms, {} would run", client->pid, client->timeout.count(),
                client->script);
        }
    }

    const int listener_;
    const int signals_;
    Monitor monitor_;
    std::list<Client> clients_;
};

void AddOptions(CLI::App* app, Options* options) {
    app->add_option("--socket", options->socket, "Where to listen")->capture_default_str();
    app->add_option("--refuse", options->refuse, "Refuse the first N registrations");
    app->add_option("--delay-ms", options->delayMs, "Answer only after this time")
        ->check(CLI::Range(0U, kLongestTimeoutMs));
}

int StopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);  // nobody may be reading what is printed
    return signalfd(-1, &signals, SFD_CLOEXEC);
}

int Run(const Options& options) {
    const int signals = StopSignals();
    const int listener = Listen(options.socket);
    if (signals < 0 || listener < 0) {
        fmt::print(stderr, "orla-appmon: {}: {}\n", options.socket, std::strerror(errno));
        return 1;
    }
    Say("orla-appmon: listening on {}", options.socket);
    const Counts counts = Server(listener, signals, options).Serve();
    unlink(options.socket.c_str());
    Say("orla-appmon: registrations {}, refusals {}, heartbeats {}, deregistrations {}",
        counts.registrations, counts.refusals, counts.heartbeats, counts.deregistrations);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("orla-appmon: an application monitor for development machines", "orla-appmon");
    Options options;
    AddOptions(&app, &options);
    CLI11_PARSE(app, argc, argv);
    return Run(options);
}
