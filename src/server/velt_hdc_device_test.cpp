#include "server/velt_hdc_device.h"

#include <gtest/gtest.h>

#include <memory>

#include "hdc/test_support.h"
#include "server/velt_comm_opt_manager.h"

namespace Velt {
namespace {

DeviceList Enabled(VeltDevice& devices, int32_t mode = 0, int32_t deviceId = -1) {
    DeviceList list = {"left over"};
    devices.GetAllEnableDevices(mode, deviceId, list);
    return list;
}

DeviceList Suspended(const VeltDevice& devices) {
    DeviceList list = {"left over"};
    devices.GetDisableDevices(list);
    return list;
}

// The driver tells 64 ids at most; what stands behind them in the list is no device.
TEST(VeltHdcDevice, FillsItselfOnceTheDriverAnswers) {
    std::string scenario = R"({"devices": [{"logical": 1123})";
    for (int id = 1; id < 70; ++id) {
        scenario += R"(, {"logical": )" + std::to_string(id) + "}";
    }
    ASSERT_EQ("", orla::control::LoadScenario(scenario + "]}"));
    orla::test::InjectFault("drvGetDevNum", 1);
    orla::test::InjectFault("drvGetDeviceLocalIDs", 1);
    VeltHdcDevice devices;
    devices.DeviceUp("2");
    devices.DeviceSuspend("2");
    EXPECT_EQ(DeviceList{}, Enabled(devices));
    EXPECT_EQ(DeviceList{}, Enabled(devices));
    DeviceList list = Enabled(devices);
    EXPECT_EQ(64u, list.size());
    list.resize(4);
    EXPECT_EQ((DeviceList{"1", "10", "11", "1123"}), list);  // text order, and no "0"
    ASSERT_TRUE(orla::control::SetDeviceState(10, orla::control::DeviceState::kDown));
    devices.DeviceSuspend("2");
    devices.AddDevice("2");
    EXPECT_EQ(63u, Enabled(devices).size());
    EXPECT_EQ(DeviceList{"2"}, Suspended(devices));
    orla::control::Reset();
    for (const int32_t id : {-1, 31, 32, 63, 64}) {
        VeltHdcDevice one;
        const bool served = id == 32 || id == 63;
        EXPECT_EQ(served ? DeviceList{std::to_string(id)} : DeviceList{}, Enabled(one, 1, id));
    }
}

TEST(DeviceNotify, ChangesTheTableOfTheHdcOption) {
    auto& manager = VeltCommOptManager::instance();
    ASSERT_TRUE(manager.CommOptsRegister(CreateCommOpt(kKindHdc)));
    const auto devices = manager.GetDevice(kCommOptHdc);
    // The table is the process's own: other tests shall find it filled from the driver.
    ASSERT_EQ("", orla::control::LoadScenario(R"({"devices": [{"logical": 0}, {"logical": 1}]})"));
    ASSERT_FALSE(Enabled(*devices).empty());
    const std::string id = "900";
    devices->AddDevice(id);
    const std::string meaning = "+---..-+.";  // of the states 0 to 8: up, suspended, nothing
    for (uint32_t state = 0; state < meaning.size(); ++state) {
        SCOPED_TRACE(state);
        const DeviceStateMessage message{state, 900};
        for (const char before : {'+', '-'}) {
            before == '+' ? devices->DeviceUp(id) : devices->DeviceSuspend(id);
            EXPECT_EQ(0, DeviceStateNotify(&message));
            const char after = meaning[state] == '.' ? before : meaning[state];
            EXPECT_EQ(after == '-', Suspended(*devices) == DeviceList{id});
        }
    }
    devices->DeviceSuspend(id);
    std::vector<uint32_t> ids(1125, 1124);
    for (const size_t place : {1124, 1123}) {  // the first is beyond the limit
        ids[place] = 900;
        EXPECT_EQ(0, DeviceStartupNotify(1125, ids.data()));
        EXPECT_EQ(place == 1124, Suspended(*devices) == DeviceList{id});
    }
    const DeviceStateMessage bad{1, 1124};
    EXPECT_EQ(0, DeviceStateNotify(&bad));
    EXPECT_EQ(1, DeviceStateNotify(nullptr));
    EXPECT_EQ(1, DeviceStartupNotify(1, nullptr));
    devices->DeviceSuspend(id);
}

}  // namespace
}  // namespace Velt
