// Controller LEDs and slot ID, and the LED dispatch by module name.
#include <gtest/gtest.h>

#include <string>

#include "api/platform/Platform.h"
#include "dapi/led/LEDDAPI.h"
#include "ddapi/controller/ControllerDDAPI.h"
#include "tests/lib/Render.h"
#include "vboard/Board.h"

namespace {

using quarn::test::render;
using quarn::vboard::FpgaModel;

class LedTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override {
        quarn::installPlatform(nullptr);
        EXPECT_EQ(board.portViolations(), 0u) << "a port was used without permission";
    }
    std::vector<uint8_t> controlWrites() {
        std::vector<uint8_t> values;
        for (const FpgaModel::Access& a : board.fpga->accessLog())
            if (a.write && a.offset == FpgaModel::kLedControl) values.push_back(a.value);
        return values;
    }
    std::string state(const std::string& name) {
        std::string s = "?";
        EXPECT_EQ(render(led.getLEDStatus(name, &s)), "");
        return s;
    }

    quarn::vboard::Board board;
    LEDDAPI led{"LEDDAPI"};
};

TEST_F(LedTest, ControllerLampsLightAndGoDark) {
    EXPECT_EQ(state("ctrl_act_led"), "off");
    EXPECT_EQ(state("ctrl_fault_led"), "off");
    EXPECT_EQ(render(led.setLEDStatus("ctrl_act_led", "on")), "");
    EXPECT_TRUE(board.fpga->lampOn(FpgaModel::kActivity));
    EXPECT_FALSE(board.fpga->lampOn(FpgaModel::kFault));
    EXPECT_EQ(state("ctrl_act_led"), "on");
    EXPECT_EQ(state("ctrl_fault_led"), "off");
    EXPECT_EQ(render(led.setLEDStatus("ctrl_act_led", "off")), "");
    EXPECT_FALSE(board.fpga->lampOn(FpgaModel::kActivity));
    EXPECT_EQ(board.fpga->lampChanges(FpgaModel::kActivity), 2u);
    EXPECT_EQ(controlWrites(), (std::vector<uint8_t>{0x13, 0x03}));
}

TEST_F(LedTest, SettingOneLampKeepsTheOther) {
    EXPECT_EQ(render(led.setLEDStatus("ctrl_act_led", "on")), "");
    board.fpga->clearAccessLog();
    EXPECT_EQ(render(led.setLEDStatus("ctrl_fault_led", "on")), "");
    EXPECT_EQ(controlWrites(), std::vector<uint8_t>{0x33});
    EXPECT_TRUE(board.fpga->lampOn(FpgaModel::kActivity));
    EXPECT_TRUE(board.fpga->lampOn(FpgaModel::kFault));
    board.fpga->clearAccessLog();
    EXPECT_EQ(render(led.setLEDStatus("ctrl_act_led", "off")), "");
    EXPECT_EQ(controlWrites(), std::vector<uint8_t>{0x23});
    EXPECT_FALSE(board.fpga->lampOn(FpgaModel::kActivity));
    EXPECT_TRUE(board.fpga->lampOn(FpgaModel::kFault));
}

TEST_F(LedTest, HardwareActivityShowsUntilSoftwareTakesTheLamp) {
    board.fpga->setHardwareActivity(true);
    EXPECT_EQ(state("ctrl_act_led"), "on");
    // Setting the fault lamp hands the activity lamp to software in its current state.
    EXPECT_EQ(render(led.setLEDStatus("ctrl_fault_led", "on")), "");
    board.fpga->setHardwareActivity(false);
    EXPECT_EQ(state("ctrl_act_led"), "on");
}

TEST_F(LedTest, NamesAndStatesAreCheckedExactly) {
    std::string s = "unchanged";
    EXPECT_EQ(render(led.getLEDStatus("CTRL_ACT_LED", &s)),
              "LEDDAPI::getLEDStatus -> CONTROLLERDDAPI::getLEDStatus: \"No device is found - CTRL_ACT_LED\"");
    EXPECT_EQ(s, "unchanged");
    EXPECT_EQ(render(led.setLEDStatus("ctrl_act_led", "blink")),
              "LEDDAPI::setLEDStatus -> CONTROLLERDDAPI::setLEDStatus: \"unexpected value - blink\"");
    EXPECT_EQ(render(led.setLEDStatus("ctrl_act_led", "ON")),
              "LEDDAPI::setLEDStatus -> CONTROLLERDDAPI::setLEDStatus: \"unexpected value - ON\"");
    EXPECT_EQ(render(led.setLEDStatus("ctrl_power_led", "on")),
              "LEDDAPI::setLEDStatus -> CONTROLLERDDAPI::setLEDStatus: \"No device is found - ctrl_power_led\"");
    EXPECT_EQ(render(led.getLEDStatus("led1", &s)), "LEDDAPI::getLEDStatus: \"No device is found - led1\"");
    EXPECT_EQ(render(led.setLEDStatus("encl_fault", "on")), "LEDDAPI::setLEDStatus: \"No device is found - encl_fault\"");
    EXPECT_EQ(render(led.getLEDStatus("ctrl", &s)), "LEDDAPI::getLEDStatus: \"No device is found - ctrl\"");
    EXPECT_EQ(render(led.getLEDStatus("sas0_fault", &s)), "LEDDAPI::getLEDStatus: \"No device is found - sas0_fault\"");
    EXPECT_TRUE(controlWrites().empty());
}

TEST_F(LedTest, ModuleNames) {
    EXPECT_EQ(led.getModuleName("ctrl_act_led"), "ctrl");
    EXPECT_EQ(led.getModuleName("eth0_link"), "eth");
    EXPECT_EQ(led.getModuleName("PSU1_fault"), "PSU");
    EXPECT_EQ(led.getModuleName("led1"), "led");
    EXPECT_EQ(led.getModuleName("ctrl"), "");
    EXPECT_EQ(led.getModuleName(""), "");
    EXPECT_EQ(led.getModuleName("_x"), "");
    BaseClassDDAPI* ctrl = led.createModuleClassByName("CTRL");
    ASSERT_NE(ctrl, nullptr);
    EXPECT_STREQ(ctrl->getClassName(), "ControllerDDAPI");
    delete ctrl;
    EXPECT_EQ(led.createModuleClassByName("encl"), nullptr);
    EXPECT_EQ(led.createModuleClassByID(static_cast<LED_MODULE_INDEX>(1)), nullptr);
}

TEST_F(LedTest, ListHasTheControllerLamps) {
    std::list<std::string> names;
    EXPECT_EQ(render(led.getDeviceList(&names)), "");
    ASSERT_GE(names.size(), 2u);
    EXPECT_EQ(names.front(), "ctrl_act_led");
    EXPECT_EQ(*std::next(names.begin()), "ctrl_fault_led");
    ControllerDDAPI ctrl;
    EXPECT_EQ(render(ctrl.getLEDList(nullptr)), "CONTROLLERDDAPI::getLEDList: \"Bad parameter - NULL pointer\"");
}

TEST_F(LedTest, WithoutTheFpgaTheLampsCannotBeReached) {
    board.setPortAccessAllowed(false);
    std::string s;
    EXPECT_EQ(render(led.getLEDStatus("ctrl_act_led", &s)),
              "LEDDAPI::getLEDStatus -> CONTROLLERDDAPI::getLEDStatus -> FPGADDAPI::Constructor: "
              "\"unknown base address\"");
    EXPECT_EQ(render(led.setLEDStatus("ctrl_fault_led", "on")),
              "LEDDAPI::setLEDStatus -> CONTROLLERDDAPI::setLEDStatus -> FPGADDAPI::Constructor: "
              "\"unknown base address\"");
    EXPECT_FALSE(board.fpga->lampOn(FpgaModel::kFault));
}

TEST_F(LedTest, SlotIdFromTheStrap) {
    ControllerDDAPI ctrl;
    unsigned id = 9;
    EXPECT_EQ(render(ctrl.getSlotID(&id)), "");
    EXPECT_EQ(id, 1u);
    board.gpio->setSignal(quarn::vboard::PchGpioModel::kSlotIdPin, false);
    EXPECT_EQ(render(ctrl.getSlotID(&id)), "");
    EXPECT_EQ(id, 0u);
}

TEST_F(LedTest, SlotIdFailuresCarryTheGpioChain) {
    ControllerDDAPI ctrl;
    unsigned id = 9;
    board.writeFile("/etc/quarn/GPIO_profile.ini", "[PCH]\nFAN_FAIL GPIO_PCH_DRIVER_DATA_TYPE_BOOLEAN GPIO_READ_ONLY 12 A TRUE\n");
    EXPECT_EQ(render(ctrl.getSlotID(&id)),
              "CONTROLLERDDAPI::getSlotID -> GPIODDAPI::GPIO readBit -> GPIODDAPI::GPIO_PCHDriver isMyGPIO");
    ASSERT_EQ(board.unlink("/etc/quarn/GPIO_profile.ini"), 0);
    EXPECT_EQ(render(ctrl.getSlotID(&id)),
              "CONTROLLERDDAPI::getSlotID -> GPIODDAPI::Constructor: \"Open GPIO_profile.ini fail\"");
    EXPECT_EQ(id, 9u);
}

TEST_F(LedTest, PsuNamesGoWholeToThePowerSupplies) {
    // The supply set answers for the name as given (module prefix included).
    std::string s = "unchanged";
    const std::string chain = render(led.getLEDStatus("PSU_x", &s));
    EXPECT_EQ(chain.rfind("LEDDAPI::getLEDStatus -> PSUDDAPI::getLEDStatus", 0), 0u) << chain;
    EXPECT_NE(chain.find("PSU"), std::string::npos);
    EXPECT_EQ(s, "unchanged");
    const std::string set = render(led.setLEDStatus("psu1_led", "on"));
    EXPECT_EQ(set.rfind("LEDDAPI::setLEDStatus -> PSUDDAPI::setLEDStatus", 0), 0u) << set;
    EXPECT_TRUE(controlWrites().empty());
}

TEST_F(LedTest, EthernetNamesGoToTheEthernetPortsWithoutTheirPrefix) {
    std::list<std::string> names;
    EXPECT_EQ(render(led.getDeviceList(&names)), "");
    ASSERT_GT(names.size(), 2u);
    EXPECT_EQ(names.front(), "ctrl_act_led");  // the controller first, then the ports
    std::string first;
    for (const std::string& n : names) {
        if (n.rfind("eth_", 0) == 0 && first.empty()) first = n;
        if (n.rfind("ctrl_", 0) != 0) EXPECT_EQ(n.rfind("eth_", 0), 0u) << n;
    }
    ASSERT_FALSE(first.empty());
    // eth_<port>_<led>: the port's own LED name is what follows "eth_".
    EXPECT_EQ(render(led.setLEDStatus(first, "on")), "");
    EXPECT_EQ(state(first), "on");
    EXPECT_EQ(render(led.setLEDStatus(first, "off")), "");
    EXPECT_EQ(state(first), "off");
    EXPECT_TRUE(controlWrites().empty());  // the controller's lamps were not touched
    std::string s;
    EXPECT_NE(render(led.getLEDStatus("eth_nosuchport_led0", &s)), "");
}

}  // namespace
