#include "profiling/collect/collection_register.h"

#include <gmock/gmock.h>

#include <future>
#include <new>

#include "hdc/test_support.h"
#include "profiling/collect/collect_test_support.h"

namespace Analysis::Nedra::JobWrapper {
namespace {

using orla::test::LogCapture;
using orla::test::ScriptedJob;
using testing::ElementsAre;

struct CollectionRegister : testing::Test {
    CollectionRegisterMgr& registry = CollectionRegisterMgr::instance();
    std::shared_ptr<ScriptedJob> a = std::make_shared<ScriptedJob>();
    std::shared_ptr<ScriptedJob> b = std::make_shared<ScriptedJob>();
    LogCapture log;
};

TEST_F(CollectionRegister, AJobRunsOncePerDeviceAndAGlobalOneOnce) {
    for (const auto& [device, tag] : {std::pair{-1, 5}, {0, 37}, {0, -1}}) {
        EXPECT_EQ(registry.CollectionJobRegisterAndRun(device, tag, a), -1);
        EXPECT_EQ(registry.CollectionJobUnregisterAndStop(device, tag), -1);
    }
    b->uninitResult = 8;
    EXPECT_EQ(registry.CollectionJobRegisterAndRun(0, 36, a), 0);
    EXPECT_EQ(registry.CollectionJobRegisterAndRun(1, 36, b), 0) << "this job is each device's";
    EXPECT_FALSE(registry.Holds(0, 35, nullptr) || registry.Holds(2, 36, nullptr));
    EXPECT_EQ(registry.CollectionJobUnregisterAndStop(1, 36), 8);
    EXPECT_EQ(registry.CollectionJobUnregisterAndStop(0, 36), 0);
    a->isGlobal = b->isGlobal = true;
    b->uninitResult = 0;
    EXPECT_EQ(registry.CollectionJobRegisterAndRun(3, 28, a), 0);
    log.Take();
    EXPECT_EQ(registry.CollectionJobRegisterAndRun(1, 28, b), -1);
    EXPECT_EQ(registry.CollectionJobRegisterAndRun(3, 28, b), -1);
    EXPECT_EQ(registry.CollectionJobUnregisterAndStop(1, 28), -1);
    EXPECT_THAT(log.Take(), testing::Each("W IsGlobalJobLevel, devId:3 jobTag:28"));
    EXPECT_EQ(registry.CollectionJobUnregisterAndStop(3, 28, a), 0);
    EXPECT_THAT(log.Take(), ElementsAre("W IsGlobalJobLevel, devId:3 jobTag:28",
                                        "D Collection Job Unregisteter, devId:3 jobTag:28"));
    EXPECT_EQ(registry.CollectionJobRegisterAndRun(1, 28, b), 0);
    EXPECT_EQ(registry.CollectionJobUnregisterAndStop(1, 28, b), 0);
    EXPECT_EQ(a->calls + b->calls, "PUPUPUPU");
}

TEST_F(CollectionRegister, AJobThatStopsKeepsItsTagAndHoldsNobodyUp) {
    std::promise<void> goOn;
    std::promise<void> stops;
    a->isGlobal = true;
    a->onUninit = [&] {
        stops.set_value();
        goOn.get_future().wait();
    };
    ASSERT_EQ(registry.CollectionJobRegisterAndRun(0, 28, a), 0);
    auto stop = std::async(std::launch::async,
                           [&] { return registry.CollectionJobUnregisterAndStop(0, 28, a); });
    stops.get_future().wait();
    EXPECT_EQ(registry.CollectionJobRegisterAndRun(1, 28, b), -1) << "not let go of yet";
    EXPECT_EQ(registry.CollectionJobUnregisterAndStop(0, 28, a), -1) << "once";
    EXPECT_FALSE(registry.Holds(0, 28, a));
    EXPECT_EQ(registry.CollectionJobRegisterAndRun(1, 5, b), 0);
    EXPECT_EQ(registry.CollectionJobUnregisterAndStop(1, 5, b), 0);
    goOn.set_value();
    EXPECT_EQ(stop.get(), 0);
    EXPECT_EQ(registry.CollectionJobRegisterAndRun(1, 28, b), 0);
    EXPECT_EQ(registry.CollectionJobUnregisterAndStop(1, 28, b), 0);
    a->onUninit = [] { throw std::bad_alloc(); };
    ASSERT_EQ(registry.CollectionJobRegisterAndRun(0, 28, a), 0);
    EXPECT_THROW(static_cast<void>(registry.CollectionJobUnregisterAndStop(0, 28, a)),
                 std::bad_alloc);
    EXPECT_EQ(registry.CollectionJobUnregisterAndStop(0, 28, a), -1) << "and not for good";
}

}  // namespace
}  // namespace Analysis::Nedra::JobWrapper
