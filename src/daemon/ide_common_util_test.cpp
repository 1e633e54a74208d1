#include "daemon/ide_common_util.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

std::vector<std::string> calls;
bool failing[kComponentSlots];

template <uint32_t Slot>
int32_t Init() {
    calls.push_back("init " + std::to_string(Slot));
    return failing[Slot] ? 7 : 0;
}

template <uint32_t Slot>
int32_t Destroy() {
    calls.push_back("destroy " + std::to_string(Slot));
    return failing[Slot] ? 7 : 0;
}

int32_t Handle(const HdcSessionPtr&, const IdeRequest*) {
    return 0;
}

template <uint32_t Slot>
void Register() {
    IdeRegisterComponent(Slot, {Init<Slot>, Destroy<Slot>, nullptr, Handle});
}

class ComponentTable : public testing::Test {
protected:
    void SetUp() override {
        for (bool& slot : failing) {
            slot = false;
        }
        Register<17>();
        Register<2>();
        Register<7>();
        IdeRegisterComponent(16, {Init<16>, nullptr, nullptr, nullptr});
        calls.clear();
    }
    void TearDown() override { IdeComponentsDestroy(); }
};

TEST_F(ComponentTable, StartsUpwardsAndStopsDownwards) {
    EXPECT_EQ(0, IdeComponentsInit());
    IdeComponentsDestroy();
    const std::vector<std::string> expected = {"init 2",     "init 7",    "init 16",  "init 17",
                                               "destroy 17", "destroy 7", "destroy 2"};
    EXPECT_EQ(expected, calls);
    calls.clear();
    IdeComponentsDestroy();
    EXPECT_TRUE(calls.empty()) << "a destroyed component is destroyed again";
}

TEST_F(ComponentTable, OnlyTheHdcSlotStopsTheStart) {
    failing[7] = true;
    EXPECT_EQ(0, IdeComponentsInit());
    EXPECT_NE(nullptr, IdeComponentHandler(7))
        << "a component that failed to start keeps its handler";
    EXPECT_EQ("init 17", calls.back());

    calls.clear();
    failing[2] = true;
    EXPECT_EQ(-1, IdeComponentsInit());
    EXPECT_EQ(std::vector<std::string>{"init 2"}, calls);
    IdeComponentsDestroy();
    EXPECT_EQ("destroy 2", calls.back()) << "a failing destroy stops the walk";
}

TEST_F(ComponentTable, NamesAndSlots) {
    const struct {
        uint32_t type;
        uint32_t slot;
        const char* name;
    } cases[] = {{4, 7, "log"},       {5, 10, "profiling"}, {15, 0, "hook_reg"},
                 {16, 18, "default"}, {0, 18, "default"},   {0xFFFFFFFF, 18, "default"}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type);
        const IdeRequest request{c.type, 0, 0};
        EXPECT_EQ(c.slot, IdeRequestSlot(&request));
        EXPECT_STREQ(c.name, IdeRequestName(c.type));
    }
    EXPECT_EQ(kNoComponent, IdeRequestSlot(nullptr));
    EXPECT_EQ(nullptr, IdeComponentHandler(18));
    EXPECT_EQ(nullptr, IdeComponentHandler(0));
    IdeRegisterComponent(18, {Init<2>, nullptr, nullptr, Handle});  // ignored, writes nowhere
}

}  // namespace
