// For the tests of registry, engine and tasks: a job that does as it is told, the root of the work
// directories.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "profiling/collect/collection_register.h"

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

inline const std::string kWorkRoot = "/var/log/npu/profiling/";

inline std::set<std::string> WorkDirs() {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(kWorkRoot)) {
        names.insert(entry.path().filename());
    }
    return names;
}

}  // namespace orla::test
