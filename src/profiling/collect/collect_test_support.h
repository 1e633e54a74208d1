// For the tests of registry, engine and tasks: a job that does as it is told, a host, the root of
// the work directories.
#pragma once

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "profiling/collect/collection_register.h"
#include "profiling/datapath/transport.h"

namespace orla::test {

class ScriptedJob : public Analysis::Nedra::JobWrapper::ICollectionJob {
public:
    using Cfg = Analysis::Nedra::JobWrapper::CollectionJobCfg;

    int Init(std::shared_ptr<Cfg> cfg) override {
        calls += 'I';
        config = std::move(cfg);
        return initResult;
    }
    int Process() override {
        calls += 'P';
        return processResult;
    }
    int Uninit() override {
        calls += 'U';
        onUninit();
        return uninitResult;
    }
    bool IsGlobalJobLevel() override { return isGlobal; }

    int initResult = 0;
    int processResult = 0;
    int uninitResult = 0;
    bool isGlobal = false;
    std::function<void()> onUninit = [] {};

    std::string calls;  // a letter each, in their order
    std::shared_ptr<Cfg> config;
};

// A host on a data session. It takes `pace` for each message; one that has been cut off takes no
// more.
class PacedHost : public analysis::nedra::transport::ITransport {
public:
    explicit PacedHost(std::chrono::milliseconds pace = {}) : pace_(pace) {}

    int SendBuffer(const void* buffer, int length) override {
        std::unique_lock<std::mutex> lock(mutex_);
        if (closing_.wait_for(lock, pace_, [this] { return closed_; })) {
            return -1;
        }
        got_.emplace_back(static_cast<const char*>(buffer), static_cast<size_t>(length));
        return length;
    }
    int CloseSession() override {
        const std::lock_guard<std::mutex> lock(mutex_);
        closed_ = true;
        closing_.notify_all();
        return 0;
    }
    void WriteDone() override {}
    int SendVeltBuffer(void*, int) override { return -1; }
    int RecvPacket(IdeRequest**) override { return -1; }
    void DestroyPacket(IdeRequest*) override {}

    std::vector<std::string> Got() {
        const std::lock_guard<std::mutex> lock(mutex_);
        return got_;
    }

private:
    const std::chrono::milliseconds pace_;
    std::mutex mutex_;
    std::condition_variable closing_;
    bool closed_ = false;
    std::vector<std::string> got_;
};

inline const std::string kWorkRoot = "/var/log/npu/profiling/";

inline std::set<std::string> WorkDirs() {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(kWorkRoot)) {
        names.insert(entry.path().filename());
    }
    return names;
}

}  // namespace orla::test
