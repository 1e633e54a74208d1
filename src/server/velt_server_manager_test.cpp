#include "server/velt_server_manager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <functional>
#include <set>
#include <utility>

#include "server/scripted_comm_opt_test.h"

namespace Velt {
namespace {

constexpr auto kPatience = std::chrono::seconds(20);
constexpr int kForever = 1 << 20;

// The transport and the event wait of one manager: what it did, and what shall fail.
class World {
public:
    std::mutex mutex;
    std::condition_variable changed;
    // Guarded by mutex.
    std::map<int64_t, std::string> open;  // server to device
    std::set<int64_t> listening;          // in the event wait
    std::set<std::string> dead;           // devices whose accepts fail
    std::map<std::string, int> failures;  // times that the next calls of a step fail
    std::map<std::string, int> calls;     // of a step
    std::vector<int64_t> doubleCloses;
    int64_t lastServer = 0;

    // Counts the call; true when it shall fail.
    bool Fails(const std::string& step) {
        ++calls[step];
        changed.notify_all();
        return failures[step] > 0 && failures[step]-- > 0;
    }
    [[nodiscard]] bool WaitFor(const std::function<bool()>& condition) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, kPatience, condition);
    }
    // Devices with a server that listens.
    std::vector<std::string> Served() const {
        std::vector<std::string> devices;
        for (const auto& [server, device] : open) {
            if (listening.count(server) != 0) {
                devices.push_back(device);
            }
        }
        std::sort(devices.begin(), devices.end());
        return devices;
    }
    bool WaitForServed(const std::vector<std::string>& devices) {
        return WaitFor([&] { return Served() == devices; });
    }
};

class FakeDevices : public VeltDevice {
public:
    void GetAllEnableDevices(int32_t, int32_t, DeviceList& list) override {
        list.clear();
        GetEnableDevices(list);
    }
};

class FakeCommOpt : public ScriptedCommOpt {
public:
    FakeCommOpt(int32_t type, World& world, std::shared_ptr<VeltDevice> devices)
        : ScriptedCommOpt(type), world_(world) {
        device_ = std::move(devices);
    }
    int64_t OpenServer(const CommOptions& options) override {
        const std::lock_guard<std::mutex> lock(world_.mutex);
        if (world_.Fails("open") || options.at("ServiceType") != "12") {
            return kNoHandle;
        }
        world_.open[++world_.lastServer] = options.at("DeviceId");
        return world_.lastServer;
    }
    int CloseServer(int64_t& server) override {
        const std::lock_guard<std::mutex> lock(world_.mutex);
        if (world_.Fails("close")) {
            return -1;
        }
        if (world_.open.erase(server) == 0) {
            world_.doubleCloses.push_back(server);
        }
        world_.listening.erase(server);
        return 0;
    }
    int64_t Accept(int64_t) override {
        const std::lock_guard<std::mutex> lock(world_.mutex);
        world_.Fails("accept");
        return kNoHandle;
    }

private:
    World& world_;
};

class FakeEpoll : public VeltEpoll {
public:
    explicit FakeEpoll(World& world) : world_(world) {}
    int Create(int size) override {
        const std::lock_guard<std::mutex> lock(world_.mutex);
        return world_.Fails("create") || size != 128 ? -1 : 0;
    }
    int Destroy() override { return 0; }
    int Ctl(int64_t handle, const VeltEvent& event, int operation) override {
        const std::lock_guard<std::mutex> lock(world_.mutex);
        const bool add = operation == kEpollAdd;
        if (world_.Fails(add ? "add" : "del") || event.mask != kEventConnect ||
            event.data != static_cast<uint64_t>(handle)) {
            return -1;
        }
        if (add) {
            return world_.listening.insert(handle).second ? 0 : -1;
        }
        return world_.listening.erase(handle) == 1 ? 0 : -1;
    }
    int Wait(VeltEvent* events, int size, int) override {
        mmSleep(1);
        const std::lock_guard<std::mutex> lock(world_.mutex);
        world_.Fails("wait");
        int count = 0;
        for (const auto& [server, device] : world_.open) {
            if (count < size && world_.dead.count(device) != 0) {
                events[count++] = {kEventConnect, static_cast<uint64_t>(server)};
            }
        }
        return count;
    }
    int ProcessOther() override {
        const std::lock_guard<std::mutex> lock(world_.mutex);
        world_.Fails("pause");
        return 0;
    }
    int Size() override { return 128; }

private:
    World& world_;
};

class ServerManagerTest : public testing::Test {
protected:
    void SetUp() override {
        static int32_t nextType = 100;  // the manager of options keeps them for ever
        ASSERT_TRUE(manager_->RegisterEpoll(std::make_unique<FakeEpoll>(*world_)));
        ASSERT_TRUE(manager_->RegisterCommOpt(
            std::make_shared<FakeCommOpt>(nextType++, *world_, devices_), "12"));
    }
    void TearDown() override {
        if (manager_ != nullptr) {
            Fail("close", 0);
            manager_.reset();
            EXPECT_TRUE(world_->open.empty());
        }
        EXPECT_TRUE(world_->doubleCloses.empty());
    }
    // The next calls of that step.
    void Fail(const std::string& step, int times) {
        const std::lock_guard<std::mutex> lock(world_->mutex);
        world_->failures[step] = times;
    }
    int Calls(const std::string& step) {
        const std::lock_guard<std::mutex> lock(world_->mutex);
        return world_->calls[step];
    }
    // Several rounds of the loop from now on.
    bool LetItTurn() {
        const int before = Calls("wait");
        return world_->WaitFor([&] { return world_->calls["wait"] >= before + 3; });
    }

    // Never freed: the option that refers to it stays in the manager of options.
    World* world_ = new World;
    const std::shared_ptr<FakeDevices> devices_ = std::make_shared<FakeDevices>();
    std::unique_ptr<VeltServerManager> manager_ = std::make_unique<VeltServerManager>();
};

TEST_F(ServerManagerTest, ServersFollowTheDevices) {
    ASSERT_EQ(0, manager_->Start());
    ASSERT_TRUE(LetItTurn());  // with no device at all
    devices_->AddDevice("2");
    devices_->AddDevice("10");
    ASSERT_TRUE(world_->WaitForServed({"10", "2"}));
    devices_->DeviceSuspend("2");
    ASSERT_TRUE(world_->WaitForServed({"10"}));
    devices_->DeviceUp("2");
    ASSERT_TRUE(world_->WaitForServed({"10", "2"}));
    ASSERT_TRUE(LetItTurn());
    EXPECT_EQ(3, Calls("open"));
    EXPECT_EQ(1, Calls("close"));
}

TEST_F(ServerManagerTest, OnlyTheNamedDeviceIsServed) {
    for (const char* device : {"2", "3", "30"}) {
        devices_->AddDevice(device);
    }
    manager_->SetDeviceId(3);
    ASSERT_EQ(0, manager_->Start());
    ASSERT_TRUE(world_->WaitForServed({"3"}));
    ASSERT_TRUE(LetItTurn());
    EXPECT_EQ(1, Calls("open"));
}

TEST_F(ServerManagerTest, WhatFailsToOpenIsTriedAgain) {
    world_->failures = {{"open", 2}, {"create", 1}, {"add", 2}};
    devices_->AddDevice("0");
    ASSERT_EQ(0, manager_->Start());
    ASSERT_TRUE(world_->WaitForServed({"0"}));
    EXPECT_EQ(6, Calls("open"));
    EXPECT_EQ(3, Calls("close"));  // those that were open already
    EXPECT_EQ(1u, world_->open.size());
}

TEST_F(ServerManagerTest, FailedDeleteDoesNotKeepAClosedServer) {
    devices_->AddDevice("0");
    ASSERT_EQ(0, manager_->Start());
    ASSERT_TRUE(world_->WaitForServed({"0"}));
    Fail("del", 1);
    devices_->DeviceSuspend("0");
    ASSERT_TRUE(world_->WaitForServed({}));
    ASSERT_TRUE(LetItTurn());
    EXPECT_EQ(1, Calls("close"));
    devices_->DeviceUp("0");
    EXPECT_TRUE(world_->WaitForServed({"0"}));
}

TEST_F(ServerManagerTest, ServerThatCannotBeClosedListensOn) {
    devices_->AddDevice("0");
    ASSERT_EQ(0, manager_->Start());
    ASSERT_TRUE(world_->WaitForServed({"0"}));
    Fail("close", kForever);
    devices_->DeviceSuspend("0");
    ASSERT_TRUE(world_->WaitFor([&] { return world_->calls["close"] >= 2; }));
    devices_->DeviceUp("0");
    ASSERT_TRUE(LetItTurn());
    EXPECT_TRUE(world_->WaitForServed({"0"}));
    EXPECT_EQ(1, Calls("open"));
}

TEST_F(ServerManagerTest, DeviceWhoseAcceptsFailGetsANewServerAtAModestPace) {
    devices_->AddDevice("0");
    devices_->AddDevice("1");
    world_->dead = {"1"};
    ASSERT_EQ(0, manager_->Start());
    ASSERT_TRUE(world_->WaitFor([&] { return world_->calls["close"] >= 3; }));
    {
        const std::lock_guard<std::mutex> lock(world_->mutex);
        EXPECT_EQ("0", world_->open[1]);  // untouched
        EXPECT_GE(world_->calls["pause"], world_->calls["accept"] / 2 - 1);
        world_->dead.clear();
    }
    EXPECT_TRUE(world_->WaitForServed({"0", "1"}));
}

TEST_F(ServerManagerTest, EndStopsAtTheFirstServerThatStays) {
    devices_->AddDevice("0");
    devices_->AddDevice("1");
    ASSERT_EQ(0, manager_->Start());
    ASSERT_TRUE(world_->WaitForServed({"0", "1"}));
    Fail("close", kForever);
    manager_.reset();
    EXPECT_EQ(1, Calls("close"));
}

// ---- Components and sessions -----------------------------------------------------------------

struct Events {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> seen;  // guarded by mutex

    void Add(const std::string& event) {
        const std::lock_guard<std::mutex> lock(mutex);
        seen.push_back(event);
        changed.notify_all();
    }
    bool WaitFor(const std::vector<std::string>& events) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, kPatience, [&] { return seen == events; });
    }
};

class FakeComponent : public VeltComponent {
public:
    FakeComponent(int32_t type, Events& events, std::function<int()> process = nullptr)
        : type_(type), events_(events), process_(std::move(process)) {}
    int Init() override {
        events_.Add("init " + std::to_string(type_));
        return -1;  // isn't used
    }
    int32_t GetType() override { return type_; }
    int Process(const CommHandle& session, const MsgPtr& message) override {
        events_.Add("process " + std::to_string(session.value) + " " +
                    std::string(message->data, message->sliceLen));
        return process_ == nullptr ? 0 : process_();
    }
    int UnInit() override {
        events_.Add("uninit " + std::to_string(type_));
        return -1;
    }

private:
    const int32_t type_;
    Events& events_;
    const std::function<int()> process_;
};

TEST(ServerManager, RefusesWhatItHasOrCannotHave) {
    Events events;
    World world;
    {
        VeltServerManager manager;
        EXPECT_FALSE(manager.AddComponent(nullptr));
        EXPECT_TRUE(manager.AddComponent(std::make_unique<FakeComponent>(10, events)));
        EXPECT_TRUE(manager.AddComponent(std::make_unique<FakeComponent>(6, events)));
        EXPECT_FALSE(manager.AddComponent(std::make_unique<FakeComponent>(6, events)));
        EXPECT_FALSE(manager.ComponentInit());
        EXPECT_FALSE(manager.RegisterEpoll(nullptr));
        EXPECT_FALSE(manager.RegisterCommOpt(nullptr, "12"));
        EXPECT_TRUE(manager.RegisterEpoll(std::make_unique<FakeEpoll>(world)));
        EXPECT_FALSE(manager.RegisterEpoll(std::make_unique<FakeEpoll>(world)));
        EXPECT_TRUE(manager.ComponentInit());
    }
    EXPECT_EQ((std::vector<std::string>{"init 6", "init 10", "uninit 6", "uninit 10"}),
              events.seen);
}

// An option whose closes are seen.
class ClosingCommOpt : public ScriptedCommOpt {
public:
    ClosingCommOpt(int32_t type, Events& events) : ScriptedCommOpt(type), events_(events) {}
    int Close(int64_t& session) override {
        events_.Add("close " + std::to_string(session));
        session = kNoHandle;
        return 0;
    }

private:
    Events& events_;
};

class SessionsTest : public testing::Test {
protected:
    void SetUp() override {
        static int32_t nextType = 200;
        option_ = std::make_shared<ClosingCommOpt>(nextType++, *events_);
        ASSERT_TRUE(VeltCommOptManager::instance().CommOptsRegister(option_));
        sessions_->SetCommOptType(option_->CommOptType());
    }
    void Take(int64_t session, const std::string& message) {
        option_->deliveries.push_back({0, message});
        sessions_->Take({option_->CommOptType(), session});
    }

    Events* const events_ = new Events;  // never freed, as the option isn't
    std::shared_ptr<ClosingCommOpt> option_;
    std::shared_ptr<VeltSessions> sessions_ =
        std::make_shared<VeltSessions>(std::chrono::milliseconds(20));
};

TEST_F(SessionsTest, ThrowingComponentCostsItsOwnSession) {
    ASSERT_TRUE(sessions_->AddComponent(
        std::make_unique<FakeComponent>(6, *events_, []() -> int { throw std::bad_alloc(); })));
    Take(1, DataBytes("a"));
    ASSERT_TRUE(events_->WaitFor({"process 1 a", "close 1"}));
    Take(2, DataBytes("b"));
    ASSERT_TRUE(events_->WaitFor({"process 1 a", "close 1", "process 2 b", "close 2"}));
    sessions_->Quit();
    sessions_->End();
    EXPECT_EQ("uninit 6", events_->seen.back());
}

TEST_F(SessionsTest, LogComponentKeepsItsSessions) {
    ASSERT_TRUE(sessions_->AddComponent(std::make_unique<FakeComponent>(6, *events_)));
    ASSERT_TRUE(sessions_->AddComponent(std::make_unique<FakeComponent>(7, *events_)));
    Take(1, DataBytes("a"));
    ASSERT_TRUE(events_->WaitFor({"process 1 a"}));
    while (sessions_.use_count() > 1) {  // until the thread has let go
        mmSleep(1);
    }
    sessions_->Quit();
    sessions_->End();
    EXPECT_TRUE(events_->WaitFor({"process 1 a", "uninit 6", "uninit 7"}));
}

// A component that doesn't return in time keeps what it uses, and lets go of it at its end.
TEST_F(SessionsTest, EndDoesNotWaitForADeafComponent) {
    std::mutex deaf;
    std::unique_lock<std::mutex> hold(deaf);
    ASSERT_TRUE(sessions_->AddComponent(std::make_unique<FakeComponent>(6, *events_, [&deaf] {
        const std::lock_guard<std::mutex> lock(deaf);
        return 0;
    })));
    Take(1, DataBytes("a"));
    ASSERT_TRUE(events_->WaitFor({"process 1 a"}));
    sessions_->Quit();
    sessions_->End();
    sessions_.reset();
    EXPECT_TRUE(events_->WaitFor({"process 1 a", "close 1"}));
    hold.unlock();
    EXPECT_TRUE(events_->WaitFor({"process 1 a", "close 1", "uninit 6"}));
}

}  // namespace
}  // namespace Velt
