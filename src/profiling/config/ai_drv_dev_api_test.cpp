#include "profiling/config/ai_drv_dev_api.h"

#include <gmock/gmock.h>

#include "profiling/config/device_test_support.h"

namespace analysis::nedra::driver {
namespace {

using namespace orla::device_test;
using orla::control::CallCount;
using testing::Contains;
using testing::ElementsAre;
using DriverDeviceTest = orla::device_test::DeviceTest;

TEST_F(DriverDeviceTest, EveryNumberIsAskedByItsOwnAddress) {
    using Row = std::tuple<NumberQuery, int, int>;
    for (const auto& [query, module, info] :
         {Row{DrvGetEnvType, 0, 0}, Row{DrvGetCtrlCpuId, 2, 9}, Row{DrvGetAiCpuCoreNum, 1, 3},
          Row{DrvGetCtrlCpuCoreNum, 2, 3}, Row{DrvGetAiCpuCoreId, 1, 9},
          Row{DrvGetCtrlCpuEndianLittle, 2, 11}, Row{DrvGetTsCpuCoreNum, 5, 3},
          Row{DrvGetAiCpuOccupyBitmap, 1, 8}, Row{DrvGetAiCoreId, 4, 9},
          Row{DrvGetAiCoreNum, 4, 3}}) {
        UseAnswers(Info(module, info, R"("value": 5000000000)"));
        int64_t value = 0;
        EXPECT_EQ(query(0, value), 0) << query.name;
        EXPECT_EQ(value, 5000000000) << query.name;
    }
}

TEST_F(DriverDeviceTest, AnUnsupportedNumberIsNoFailureAndNoValue) {
    int64_t value = -77;
    UseAnswers(Info(2, 9, R"("result": 65534)"));
    EXPECT_EQ(DrvGetCtrlCpuId(0, value), 0);
    EXPECT_EQ(DrvGetCtrlCpuId(1, value), -1) << "no such device";
    EXPECT_EQ(value, -77);
    EXPECT_THAT(log.Take(),
                ElementsAre("W Driver doesn't support DrvGetCtrlCpuId by halGetDeviceInfo "
                            "interface, deviceId=0, ret=65534",
                            "E Failed to DrvGetCtrlCpuId, deviceId=1, ret=7"));
}

TEST_F(DriverDeviceTest, VectorCoresAreAskedForOnlyWhereThereAreSome) {
    for (const int type : {0, 1, 4, 2, 5, 7, 3}) {
        ReadConfig(type << 8);
        const uint64_t asked = CallCount("halGetDeviceInfo");
        const bool none = type == 0 || type == 1 || type == 4;
        UseAnswers(Info(7, 3, R"("value": 40)"));
        int64_t value = -1;
        EXPECT_EQ(DrvGetAivNum(0, value), 0) << type;
        EXPECT_EQ(value, none ? 0 : 40) << type;
        EXPECT_EQ(CallCount("halGetDeviceInfo") - asked, none ? 0U : 1U) << type;
    }
}

TEST_F(DriverDeviceTest, CountsUpTo64Devices) {
    std::string devices = R"({"logical": 0})";
    for (int i = 1; i < 65; ++i) {
        devices += R"(, {"logical": )" + std::to_string(i) + "}";
    }
    UseScenario(R"({"devices": [)" + devices + "]}");
    EXPECT_EQ(DrvGetDevNum(), -1);
    EXPECT_THAT(log.Take(), ElementsAre("E Failed to drvGetDevNum, ret=0, num=65"));
    ASSERT_TRUE(orla::control::SetDeviceState(5, orla::control::DeviceState::kDown));
    EXPECT_EQ(DrvGetDevNum(), 64);
    EXPECT_THAT(DrvGetDevIdsStr(), testing::EndsWith(",62,63,64"));
    FailAlways("drvGetDevNum", 3);
    EXPECT_FALSE(DrvIsHelper());
    FailAlways("drvGetDevNum", 65534);
    EXPECT_TRUE(DrvIsHelper());
    EXPECT_EQ(DrvGetDevNum(), -1);
}

TEST_F(DriverDeviceTest, ListsIdsWithinItsLimits) {
    UseScenario(R"({"devices": [{"logical": 4, "physical": 63}, {"logical": 1, "physical": 64}]})");
    EXPECT_EQ(DrvGetDevPhyId(4), 63);
    EXPECT_EQ(DrvGetDevPhyId(1), 1) << "a physical id that is none leaves the index";
    EXPECT_EQ(DrvGetDevPhyId(2), 2);
    for (const int num : {-1, 0, 65}) {
        std::vector<uint32_t> ids = {9};
        EXPECT_TRUE(DrvGetDevIds(num, ids) == -1 && ids.empty()) << num;
    }
    EXPECT_EQ(CallCount("drvGetDevIDs"), 0U);
    EXPECT_EQ(DrvGetDevIdsStr(), "4,1");
    FailAlways("drvGetDevIDs", 2);
    EXPECT_EQ(DrvGetDevIdsStr(), "");
    UseScenario(R"({"devices": []})");
    EXPECT_EQ(DrvGetDevIdsStr(), "");
}

TEST_F(DriverDeviceTest, TimeGoesOnWithoutWhatTheDriverLacks) {
    using Row = std::tuple<const char*, const char*, int, uint64_t, uint64_t>;
    for (const auto& [start, counter, result, startAfter, counterAfter] :
         {Row{R"("value": 11)", R"("value": 12)", 0, 11, 12},
          Row{R"("result": 65534)", R"("value": 12)", 0, 1, 12},
          Row{R"("value": 11)", R"("result": 65534)", 0, 11, 2},
          Row{R"("value": 11)", R"("result": 4)", -1, 11, 2},
          Row{R"("result": 4)", R"("value": 12)", -1, 1, 2}}) {
        UseAnswers(Info(0, 14, start) + "," + Info(0, 13, counter));
        uint64_t startMono = 1;
        uint64_t cntvct = 2;
        EXPECT_EQ(DrvGetDeviceTime(0, startMono, cntvct), result) << start << counter;
        EXPECT_EQ(startMono, startAfter) << start << counter;
        EXPECT_EQ(cntvct, counterAfter) << start << counter;
    }
}

TEST_F(DriverDeviceTest, FrequenciesAreTextInSinglePrecision) {
    using Row = std::tuple<const char*, bool, const char*, const char*>;
    for (const auto& [answer, given, hostAfter, deviceAfter] :
         {Row{R"("value": 19200)", true, "19.200001", "19.200001"},
          Row{R"("value": 1)", true, "0.001000", "0.001000"},
          Row{R"("value": 0)", false, "", "kept"}, Row{R"("value": -50000)", false, "", "kept"},
          Row{R"("result": 65534)", false, "", "kept"}}) {
        UseAnswers(Info(0, 24, answer) + "," + Info(0, 25, answer));
        std::string host = "kept";
        std::string device = "kept";
        EXPECT_EQ(DrvGetHostFreq(host), given) << answer;
        EXPECT_EQ(DrvGetDeviceFreq(0, device), given) << answer;
        EXPECT_EQ(host, hostAfter);
        EXPECT_EQ(device, deviceAfter);
    }
}

}  // namespace
}  // namespace analysis::nedra::driver
