// For the tests of registry, engine and tasks: a job that does as it is told.
#pragma once

#include <functional>
#include <memory>
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

}  // namespace orla::test
