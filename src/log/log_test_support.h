// For the tests of the log side: a temporary directory that the self log is sent to, and both ends
// of sessions in one process.
#pragma once

#include <secure_c.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <string>

#include "hdc/hdc_api.h"
#include "hdc/test_support.h"
#include "log/self_log.h"
#include "platform/emulation/control.h"

namespace orla::test {

inline std::string ReadFile(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline void WriteFile(const std::filesystem::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// Where the self log goes while this lives; root() is the directory, gone afterwards.
class SelfLogHere {
public:
    SelfLogHere() {
        char pattern[] = "/tmp/orla_log_XXXXXX";
        root_ = mkdtemp(pattern);
        auto files = std::make_shared<LogFileSet>();
        Set(files->root, root_);
        Set(files->directory, directory());
        Set(files->log, log());
        Set(files->old, old());
        Set(files->lock, lock());
        std::filesystem::create_directory(directory());
        files_ = files;
        SetLogFiles(files_);
    }
    ~SelfLogHere() {
        SetLogFiles(nullptr);
        std::filesystem::remove_all(root_);
    }
    SelfLogHere(const SelfLogHere&) = delete;
    SelfLogHere& operator=(const SelfLogHere&) = delete;

    std::string root() const { return root_; }
    std::string directory() const { return root_ + "/slogd"; }
    std::string log() const { return directory() + "/slogdlog"; }
    std::string old() const { return log() + ".old"; }
    std::string lock() const { return directory() + "/tmp.lock"; }
    std::shared_ptr<const LogFileSet> files() const { return files_; }

    // Everything written since the last call.
    std::string Take() {
        const std::string text = ReadFile(log());
        std::filesystem::remove(log());
        return text;
    }

private:
    template <size_t kSize>
    static void Set(char (&field)[kSize], const std::string& text) {
        if (strcpy_s(field, kSize, text.c_str()) != EOK) {
            std::abort();
        }
    }

    std::string root_;
    std::shared_ptr<const LogFileSet> files_;
};

// A device's server and a host's client. What is opened here is closed here.
class Listener {
public:
    Listener() : server_(HdcServerCreate(0, kHdcServiceRequests)) {}
    ~Listener() {
        HdcServerDestroy(server_);
        HdcClientDestroy(client_);
    }
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // The host's end of a new session; null when it can't connect.
    drvHdcSession_t Connect() const {
        drvHdcSession_t session = nullptr;
        return HdcSessionConnect(0, 0, client_, &session) == 0 ? session : nullptr;
    }
    // The device's end of the next one.
    drvHdcSession_t Accept() const { return HdcServerAccept(server_); }
    drvHdcClient_t client() const { return client_; }

private:
    drvHdcServer_t server_;
    drvHdcClient_t client_ = HdcClientCreate(kHdcServiceRequests);
};

// One session, of which either end may be closed early.
class Session {
public:
    explicit Session(const Listener& listener)
        : host(listener.Connect()), device(listener.Accept()) {}
    ~Session() {
        Close(&host);
        Close(&device);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    static void Close(drvHdcSession_t* end) {
        if (*end != nullptr) {
            HdcSessionClose(*end);
            *end = nullptr;
        }
    }

    drvHdcSession_t host;
    drvHdcSession_t device;
};

// The next message, or nothing when the peer has gone.
inline std::optional<std::string> ReadMessage(drvHdcSession_t session) {
    void* data = nullptr;
    uint32_t length = 0;
    if (HdcRead(session, &data, &length) != kHdcReadDone) {
        return std::nullopt;
    }
    const HeapBlock owned(static_cast<char*>(data));
    return std::string(owned.get(), length);
}

}  // namespace orla::test
