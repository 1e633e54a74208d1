#include "server/velt_hdc_device.h"

#include <gtest/gtest.h>

#include "hdc/test_support.h"
#include "server/velt_comm_opt_manager.h"

namespace Velt {
namespace {

using Lines = std::vector<std::string>;

constexpr const char* kTwoDevices = R"({"devices": [{"logical": 0}, {"logical": 1}]})";

DeviceList Enabled(VeltHdcDevice& devices, int32_t mode = 0, int32_t deviceId = -1) {
    DeviceList list = {"left over"};
    devices.GetAllEnableDevices(mode, deviceId, list);
    return list;
}

TEST(VeltDevice, StatesChangeForKnownIdsAlone) {
    VeltHdcDevice devices;
    EXPECT_TRUE(devices.IsEmpty());
    devices.DeviceUp("7");
    devices.DeviceSuspend("7");
    EXPECT_TRUE(devices.IsEmpty());
    for (const char* id : {"2", "10", "33"}) {
        devices.AddDevice(id);
    }
    orla::test::LogCapture log;
    devices.DeviceSuspend("10");
    devices.DeviceSuspend("10");
    devices.AddDevice("10");
    devices.DeviceUp("2");
    EXPECT_EQ(Lines{"I device 10 going suspend."}, log.Take());
    DeviceList list = {"kept"};
    devices.GetEnableDevices(list);
    EXPECT_EQ((DeviceList{"kept", "2", "33"}), list);
    devices.GetDisableDevices(list);
    EXPECT_EQ(DeviceList{"10"}, list);
    devices.DeviceUp("10");
    EXPECT_EQ(Lines{"I device 10 going up."}, log.Take());
    EXPECT_EQ((DeviceList{"10", "2", "33"}), Enabled(devices));  // text order
}

TEST(VeltHdcDevice, FillsItselfOnceTheDriverAnswers) {
    orla::control::Reset();
    ASSERT_EQ("", orla::control::LoadScenario(
                      R"({"devices": [{"logical": 2}, {"logical": 10}, {"logical": 1123}]})"));
    ASSERT_TRUE(orla::control::InjectFault({"drvGetDevNum", {}, {}, 1, 0, 1, 0}));
    ASSERT_TRUE(orla::control::InjectFault({"drvGetDeviceLocalIDs", {}, {}, 1, 0, 1, 0}));
    VeltHdcDevice devices;
    EXPECT_EQ(DeviceList{}, Enabled(devices));
    EXPECT_EQ(DeviceList{}, Enabled(devices));
    EXPECT_EQ((DeviceList{"10", "1123", "2"}), Enabled(devices));
    ASSERT_TRUE(orla::control::SetDeviceState(10, orla::control::DeviceState::kDown));
    devices.DeviceSuspend("2");
    EXPECT_EQ((DeviceList{"10", "1123"}), Enabled(devices));
    orla::control::Reset();
}

// The driver tells 64 ids at most; what stands behind them in the list is no device.
TEST(VeltHdcDevice, MoreDevicesThanTheDriverTells) {
    std::string scenario;
    for (int id = 1; id <= 70; ++id) {
        scenario += (id == 1 ? "" : ", ") + (R"({"logical": )" + std::to_string(id) + "}");
    }
    ASSERT_EQ("", orla::control::LoadScenario(R"({"devices": [)" + scenario + "]}"));
    VeltHdcDevice devices;
    const DeviceList list = Enabled(devices);
    EXPECT_EQ(64u, list.size());
    EXPECT_EQ("1", list[0]);  // and not "0"
    orla::control::Reset();
}

TEST(VeltHdcDevice, SingleDeviceModeKnowsItsRange) {
    for (const auto& [id, list] :
         {std::pair<int32_t, DeviceList>{31, {}}, {32, {"32"}}, {63, {"63"}}, {64, {}}, {-1, {}}}) {
        VeltHdcDevice devices;
        EXPECT_EQ(list, Enabled(devices, 1, id));
    }
}

TEST(DeviceNotify, ChangesTheTableOfTheHdcOption) {
    auto& manager = VeltCommOptManager::instance();
    ASSERT_TRUE(manager.CommOptsRegister(CreateCommOpt(kKindHdc)));
    const auto devices = manager.GetDevice(kCommOptHdc);
    // The table is the process's own: other tests shall find it filled from the driver.
    ASSERT_EQ("", orla::control::LoadScenario(kTwoDevices));
    DeviceList list;
    devices->GetAllEnableDevices(0, -1, list);
    const std::string id = "900";
    devices->AddDevice(id);
    const auto isUp = [&] {
        DeviceList suspended;
        devices->GetDisableDevices(suspended);
        return suspended.empty();
    };
    const bool meaning[] = {true, false, false, false, true, true, false, true, true};
    for (uint32_t state = 0; state < 9; ++state) {
        SCOPED_TRACE(state);
        const DeviceStateMessage message{state, 900};
        const bool ignored = state == 4 || state == 5 || state == 8;
        for (const bool before : {true, false}) {
            before ? devices->DeviceUp(id) : devices->DeviceSuspend(id);
            EXPECT_EQ(0, DeviceStateNotify(&message));
            EXPECT_EQ(ignored ? before : meaning[state], isUp());
        }
    }
    devices->DeviceSuspend(id);
    std::vector<uint32_t> ids(1125, 1124);
    orla::test::LogCapture log;
    ids[1124] = 900;  // beyond the limit
    EXPECT_EQ(0, DeviceStartupNotify(1125, ids.data()));
    EXPECT_FALSE(isUp());
    EXPECT_EQ(1125u, log.Take("W").size());
    ids[1] = 900;
    EXPECT_EQ(0, DeviceStartupNotify(2, ids.data()));
    EXPECT_TRUE(isUp());
    EXPECT_EQ((Lines{"W device startup notify skip bad device id 1124.",
                     "I device 900 notify startup state.", "I device 900 going up."}),
              log.Take());
    const DeviceStateMessage bad{1, 1124};
    EXPECT_EQ(0, DeviceStateNotify(&bad));
    EXPECT_EQ(1, DeviceStateNotify(nullptr));
    EXPECT_EQ(1, DeviceStartupNotify(1, nullptr));
    EXPECT_EQ((Lines{"W device state notify skip bad device id 1124.", "E cb input error",
                     "E Startup Notify input error"}),
              log.Take());
    devices->DeviceSuspend(id);
}

}  // namespace
}  // namespace Velt
