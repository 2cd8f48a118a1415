// GPIO profile, chipset and FPGA drivers against the virtual board.
#include <gtest/gtest.h>

#include <string>

#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "dapi/gpio/GPIODAPI.h"
#include "ddapi/gpio/GPIODDAPI.h"
#include "ddapi/gpio/GPIO_FPGADriver.h"
#include "ddapi/gpio/GPIO_PCHDriver.h"
#include "tests/lib/Render.h"
#include "vboard/Board.h"

namespace {

using quarn::test::render;
using quarn::vboard::PchGpioModel;

const char kBoolPch[] = "GPIO_PCH_DRIVER_DATA_TYPE_BOOLEAN";

class GpioTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override {
        quarn::installPlatform(nullptr);
        EXPECT_EQ(board.portViolations(), 0u) << "a port was used without permission";
    }
    void profile(const std::string& text) { board.writeFile("/etc/quarn/GPIO_profile.ini", text); }
    // Puts the FPGA on PCI 72:00.0, where the FPGA driver finds its registers.
    void withFpgaFunction() { board.fpga->installPciFunction(*board.pci); }

    quarn::vboard::Board board;
};

TEST_F(GpioTest, TheBoardProfileListsTheChipsetPins) {
    GPIODAPI gpio("GPIODAPI");
    ASSERT_EQ(render(gpio.getErrorMsg()), "");
    std::list<std::string> list;
    EXPECT_EQ(render(gpio.displayGPIOList(&list)), "");
    ASSERT_EQ(list.size(), 5u);
    EXPECT_EQ(list.front(), "SLT_AB_PCH  <" + std::string(27, '-') + ">  40");
    EXPECT_EQ(list.back(), "PEER_RST  <" + std::string(29, '-') + ">  70");
}

TEST_F(GpioTest, ListLineOfAThreeLetterName) {
    profile(std::string("[PCH]\nFAN ") + kBoolPch + " GPIO_READ_ONLY 12 ACTIVE_LO FALSE\n");
    GPIODAPI gpio("GPIODAPI");
    std::list<std::string> list;
    EXPECT_EQ(render(gpio.displayGPIOList(&list)), "");
    EXPECT_EQ(list, std::list<std::string>{"FAN  <" + std::string(34, '-') + ">  12"});
}

TEST_F(GpioTest, CommentsEmptyLinesAndEntriesBeforeAnyHeaderChangeNothing) {
    profile(std::string("ORPHAN ") + kBoolPch + " GPIO_READ_WRITE 3 ACTIVE_HI TRUE\n# [FPGA]\n\n[PCH]\n#X " + kBoolPch +
            " GPIO_READ_ONLY 1 ACTIVE_HI TRUE\n\nFAN_FAIL " + kBoolPch + " GPIO_READ_ONLY 12 ACTIVE_LO FALSE\n");
    GPIODDAPI gpio("GPIO_drv");
    EXPECT_EQ(render(gpio.getErrorMsg()), "");
    EXPECT_EQ(gpio.driver(GPIODDAPI::kFpgaSlot), nullptr);
    auto* pch = dynamic_cast<GPIO_PCHDriver*>(gpio.driver(GPIODDAPI::kPchSlot));
    ASSERT_NE(pch, nullptr);
    EXPECT_EQ(pch->entryCount(), 1u);
    EXPECT_EQ(pch->GetGPIOIndexByName("ORPHAN"), 10000u);
    EXPECT_EQ(pch->gpioBase(), 0x500u);
}

TEST_F(GpioTest, LowerCaseRequestFindsTheUpperCaseEntry) {
    GPIODAPI gpio("GPIODAPI");
    bool v = false;
    EXPECT_EQ(render(gpio.getStatus("fan_fail", &v)), "");
    EXPECT_TRUE(v);  // the line is high while the fans run
    board.gpio->setSignal(PchGpioModel::kFanFailPin, false);
    EXPECT_EQ(render(gpio.getStatus("Fan_Fail", &v)), "");
    EXPECT_FALSE(v);  // no active level applied on chipset pins
}

TEST_F(GpioTest, UnknownNameIsRefusedByTheDriver) {
    GPIODAPI gpio("GPIODAPI");
    bool v = false;
    EXPECT_EQ(render(gpio.getStatus("NO_SUCH_PIN", &v)),
              "GPIODAPI::getStatus -> GPIODDAPI::GPIO readBit -> GPIODDAPI::GPIO_PCHDriver isMyGPIO");
    EXPECT_EQ(render(gpio.setStatus("NO_SUCH_PIN", true)),
              "GPIODAPI::setStatus -> GPIODDAPI::GPIO setBit -> GPIODDAPI::GPIO_PCHDriver isMyGPIO");
}

TEST_F(GpioTest, OutputPinsReadBackWhatIsDriven) {
    GPIODAPI gpio("GPIODAPI");
    bool v = true;
    EXPECT_EQ(render(gpio.getStatus("BIOS_SEL", &v)), "");
    EXPECT_FALSE(v);
    EXPECT_EQ(render(gpio.setStatus("BIOS_SEL", true)), "");
    EXPECT_TRUE(board.gpio->padLevel(PchGpioModel::kBiosSelectPin));
    EXPECT_EQ(render(gpio.getStatus("BIOS_SEL", &v)), "");
    EXPECT_TRUE(v);
    // Bank 3: GPIO 70 is bit 6 of the register at base + 0x48.
    EXPECT_EQ(render(gpio.setStatus("PEER_RST", true)), "");
    EXPECT_TRUE(board.gpio->padLevel(PchGpioModel::kPeerResetPin));
    EXPECT_EQ(board.gpio->in(0x548, 1), 0x40u);
    EXPECT_EQ(render(gpio.setStatus("PEER_RST", false)), "");
    EXPECT_FALSE(board.gpio->padLevel(PchGpioModel::kPeerResetPin));
    EXPECT_TRUE(board.gpio->padLevel(PchGpioModel::kBiosSelectPin));  // the neighbours keep their level
}

TEST_F(GpioTest, GpioFortyIsBitEightOfTheSecondBank) {
    unsigned bit = 0;
    EXPECT_EQ(GPIO_PCHDriver::levelRegister(40, &bit), 0x38u);
    EXPECT_EQ(bit, 8u);
    EXPECT_EQ(GPIO_PCHDriver::levelRegister(31, &bit), 0x0Cu);
    EXPECT_EQ(bit, 31u);
    EXPECT_EQ(GPIO_PCHDriver::levelRegister(64, &bit), 0x48u);
    EXPECT_EQ(bit, 0u);
    GPIODAPI gpio("GPIODAPI");
    bool v = false;
    EXPECT_EQ(render(gpio.getStatus("SLT_AB_PCH", &v)), "");
    EXPECT_TRUE(v);
    board.gpio->setSignal(40, false);
    EXPECT_EQ(render(gpio.getStatus("SLT_AB_PCH", &v)), "");
    EXPECT_FALSE(v);
}

TEST_F(GpioTest, ModesTypesAndNumbersAreChecked) {
    profile(std::string("[PCH]\n") +  //
            "RO " + kBoolPch + " GPIO_READ_ONLY 12 ACTIVE_HI TRUE\n" +
            "WO " + kBoolPch + " GPIO_WRITE_ONLY 34 ACTIVE_HI TRUE\n" +
            "ODD " + kBoolPch + " GPIO_TOGGLE 17 ACTIVE_HI TRUE\n" +
            "WIDE GPIO_PCH_DRIVER_DATA_TYPE_UINT8 GPIO_READ_WRITE 17 ACTIVE_HI TRUE\n" +
            "FAR " + kBoolPch + " GPIO_READ_WRITE 96 ACTIVE_HI TRUE\n" +
            "BAD " + kBoolPch + " GPIO_READ_WRITE 1x ACTIVE_HI TRUE\n");
    GPIODAPI gpio("GPIODAPI");
    bool v = false;
    const std::string get = "GPIODAPI::getStatus -> GPIODDAPI::GPIO readBit -> GPIODDAPI::GPIO_PCHDriver readBit: ";
    const std::string set = "GPIODAPI::setStatus -> GPIODDAPI::GPIO setBit -> GPIODDAPI::GPIO_PCHDriver setBit: ";
    EXPECT_EQ(render(gpio.setStatus("RO", true)), set + "\"GPIO Read Only\"");
    EXPECT_EQ(render(gpio.getStatus("WO", &v)), get + "\"GPIO Read Only\"");
    EXPECT_EQ(render(gpio.setStatus("WO", true)), "");
    EXPECT_TRUE(board.gpio->padLevel(34));
    EXPECT_EQ(render(gpio.getStatus("ODD", &v)), get + "\"GPIO Not Support\"");
    EXPECT_EQ(render(gpio.setStatus("ODD", true)), set + "\"GPIO Not Support\"");
    EXPECT_EQ(render(gpio.getStatus("WIDE", &v)), get + "\"GPIO Unsupport Type\"");
    EXPECT_EQ(render(gpio.setStatus("WIDE", true)), set + "\"GPIO Unsupport Type\"");
    EXPECT_EQ(render(gpio.getStatus("FAR", &v)), get + "\"GPIO Unsupport Type\"");
    EXPECT_EQ(render(gpio.setStatus("FAR", true)), set + "\"GPIO Not Support\"");
    EXPECT_EQ(render(gpio.getStatus("BAD", &v)),
              "GPIODAPI::getStatus -> GPIODDAPI::GPIO readBit -> GPIODDAPI::GPIO_PCHDriver isMyGPIO");
    std::list<std::string> list;
    EXPECT_EQ(render(gpio.displayGPIOList(&list)), "");
    EXPECT_EQ(list.size(), 4u);  // WIDE is no boolean, BAD was never an entry
}

TEST_F(GpioTest, APinThatDoesNotFollowItsOutputFailsTheSet) {
    board.gpio->breakOutput(PchGpioModel::kBiosSelectPin);
    GPIODAPI gpio("GPIODAPI");
    EXPECT_EQ(render(gpio.setStatus("BIOS_SEL", true)),
              "GPIODAPI::setStatus -> GPIODDAPI::GPIO setBit -> GPIODDAPI::GPIO_PCHDriver setBit: \"GPIO Set Fail\"");
    EXPECT_FALSE(board.gpio->padLevel(PchGpioModel::kBiosSelectPin));
    board.gpio->breakOutput(PchGpioModel::kBiosSelectPin, false);
    EXPECT_EQ(render(gpio.setStatus("BIOS_SEL", true)), "");
}

TEST_F(GpioTest, EveryPortAccessIsPausedAndNoneStraysOutsideTheBlock) {
    GPIODAPI gpio("GPIODAPI");
    const uint64_t t0 = board.clock().nowNs();
    EXPECT_EQ(render(gpio.setStatus("BIOS_SEL", true)), "");
    // read, write, read back: three accesses, 1 ms each.
    EXPECT_GE(board.clock().nowNs() - t0, 3'000'000u);
    EXPECT_EQ(board.gpio->levelWrites(), 1u);
}

TEST_F(GpioTest, MissingProfileLeavesNoDriverAndTouchesNothing) {
    profile("");
    {
        GPIODDAPI gpio("GPIO_drv");
        EXPECT_EQ(render(gpio.getErrorMsg()), "");
        EXPECT_EQ(gpio.driver(GPIODDAPI::kPchSlot), nullptr);
    }
    ASSERT_EQ(board.unlink("/etc/quarn/GPIO_profile.ini"), 0);
    GPIODAPI gpio("GPIODAPI");
    EXPECT_EQ(render(gpio.getErrorMsg()),
              "GPIODAPI::Constructor -> GPIODDAPI::Constructor: \"Open GPIO_profile.ini fail\"");
    bool v = true;
    EXPECT_EQ(render(gpio.getStatus("SLT_AB_PCH", &v)), "");
    EXPECT_TRUE(v);  // unchanged
    EXPECT_EQ(render(gpio.setStatus("BIOS_SEL", true)), "");
    EXPECT_EQ(board.gpio->levelWrites(), 0u);
}

TEST_F(GpioTest, WithoutTheLpcBridgeNoPortIsTouched) {
    board.pci->function("0000:00:1f.0")->poke(0x48, 0, 4);
    GPIODAPI gpio("GPIODAPI");
    bool v = false;
    EXPECT_EQ(render(gpio.getStatus("SLT_AB_PCH", &v)),
              "GPIODAPI::getStatus -> GPIODDAPI::GPIO readBit -> GPIODDAPI::GPIO_PCHDriver readBit: "
              "\"GPIO Get Fail - no GPIO base\"");
    EXPECT_EQ(board.gpio->levelWrites(), 0u);
}

const char kBoolFpga[] = "GPIO_FPGA_DRIVER_DATA_TYPE_BOOLEAN";

TEST_F(GpioTest, FpgaPinsHonourTheirActiveLevel) {
    withFpgaFunction();
    profile(std::string("[FPGA]\n") +  //
            "BOOT_DONE " + kBoolFpga + " GPIO_READ_WRITE 2 0 3 ACTIVE_HI TRUE\n" +
            "NRESET " + kBoolFpga + " GPIO_READ_WRITE 2 0 5 ACTIVE_LO FALSE\n" +
            "VERSION0 " + kBoolFpga + " GPIO_READ_ONLY 11 0 0 ACTIVE_HI TRUE\n" +
            "BADBIT " + kBoolFpga + " GPIO_READ_WRITE 2 0 8 ACTIVE_HI TRUE\n" +
            "[PCH]\nBIOS_SEL " + kBoolPch + " GPIO_READ_WRITE 17 ACTIVE_HI TRUE\n");
    GPIODAPI gpio("GPIODAPI");
    ASSERT_EQ(render(gpio.getErrorMsg()), "");
    board.fpga->poke(2, 0x00);
    bool v = false;
    EXPECT_EQ(render(gpio.getStatus("nreset", &v)), "");
    EXPECT_TRUE(v);  // active low: bit 5 clear reads true
    EXPECT_EQ(render(gpio.setStatus("NRESET", false)), "");
    EXPECT_EQ(board.fpga->peek(2), 0x20);
    EXPECT_EQ(render(gpio.setStatus("NRESET", true)), "");
    EXPECT_EQ(board.fpga->peek(2), 0x00);
    EXPECT_EQ(render(gpio.setStatus("BOOT_DONE", true)), "");
    EXPECT_EQ(board.fpga->peek(2), 0x08);
    EXPECT_EQ(render(gpio.getStatus("BOOT_DONE", &v)), "");
    EXPECT_TRUE(v);
    EXPECT_EQ(render(gpio.setStatus("VERSION0", true)),
              "GPIODAPI::setStatus -> GPIODDAPI::GPIO setBit -> GPIODDAPI::GPIOFPGADriver setBit: \"GPIO Read Only\"");
    // Both sections are served: the chipset pin is found behind the FPGA driver.
    EXPECT_EQ(render(gpio.setStatus("BIOS_SEL", true)), "");
    EXPECT_TRUE(board.gpio->padLevel(PchGpioModel::kBiosSelectPin));
    // A name neither driver knows is refused as the first driver refuses it.
    EXPECT_EQ(render(gpio.getStatus("BADBIT", &v)),
              "GPIODAPI::getStatus -> GPIODDAPI::GPIO readBit -> GPIODDAPI::GPIOFPGADriver isMyGPIO");
    std::list<std::string> list;
    EXPECT_EQ(render(gpio.displayGPIOList(&list)), "");
    ASSERT_EQ(list.size(), 4u);
    EXPECT_EQ(list.front(), "BOOT_DONE");
    EXPECT_EQ(list.back(), "BIOS_SEL  <" + std::string(29, '-') + ">  17");
}

TEST_F(GpioTest, FpgaSectionWithoutBooleansSaysSo) {
    withFpgaFunction();
    profile("[FPGA]\nWORD GPIO_FPGA_DRIVER_DATA_TYPE_UINT16 GPIO_READ_WRITE 2 0 1 ACTIVE_HI TRUE\n");
    GPIODAPI gpio("GPIODAPI");
    std::list<std::string> list;
    EXPECT_EQ(render(gpio.displayGPIOList(&list)), "");
    EXPECT_EQ(list, std::list<std::string>{"Did Not Find Any GPIO PIN"});
    bool v = false;
    EXPECT_EQ(render(gpio.getStatus("WORD", &v)),
              "GPIODAPI::getStatus -> GPIODDAPI::GPIO readBit -> GPIODDAPI::GPIOFPGADriver readBit: "
              "\"GPIO Unsupport Type\"");
}

TEST_F(GpioTest, PchSectionWithoutBooleansFailsTheList) {
    profile("[PCH]\nWORD GPIO_PCH_DRIVER_DATA_TYPE_UINT16 GPIO_READ_WRITE 2 ACTIVE_HI TRUE\n");
    GPIODAPI gpio("GPIODAPI");
    std::list<std::string> list;
    EXPECT_EQ(render(gpio.displayGPIOList(&list)),
              "GPIODAPI::displayGPIOList -> GPIODDAPI::getGPIOList -> GPIODDAPI::GPIO_PCHDriver setBit: "
              "\"Did Not Find Any PCH GPIO PIN\"");
}

TEST_F(GpioTest, FpgaDriverWithoutItsPciFunctionRefusesAccess) {
    // The board's 72:00.0 (the battery charge control's function) taken away: no sysfs
    // entry, and its configuration space answers as an empty slot.
    board.removeDevice("/sys/bus/pci/devices/0000:72:00.0/config");
    quarn::removePath("/sys/bus/pci/devices/0000:72:00.0");
    profile(std::string("[FPGA]\nBOOT_DONE ") + kBoolFpga + " GPIO_READ_WRITE 2 0 3 ACTIVE_HI TRUE\n");
    GPIODAPI gpio("GPIODAPI");
    const std::string errors = render(gpio.getErrorMsg());
    EXPECT_EQ(errors.rfind("GPIODAPI::Constructor -> GPIODDAPI::Constructor -> GPIODDAPI::GPIOFPGADriver Constructor", 0),
              0u)
        << errors;
    board.fpga->clearAccessLog();
    EXPECT_EQ(render(gpio.setStatus("BOOT_DONE", true)),
              "GPIODAPI::setStatus -> GPIODDAPI::GPIO setBit -> GPIODDAPI::GPIOFPGADriver setBit: "
              "\"GPIO Set Fail - no FPGA base\"");
    EXPECT_TRUE(board.fpga->accessLog().empty());
}

TEST_F(GpioTest, TablesStopAtTheirSize) {
    std::string text = "[PCH]\n";
    for (int i = 0; i < 100; ++i)
        text += "P" + std::to_string(i) + " " + kBoolPch + " GPIO_READ_WRITE " + std::to_string(i % 96) + " ACTIVE_HI TRUE\n";
    text += "[FPGA]\n";
    for (int i = 0; i < 210; ++i)
        text += "F" + std::to_string(i) + " " + kBoolFpga + " GPIO_READ_WRITE 2 0 1 ACTIVE_HI TRUE\n";
    text += std::string(600, 'X') + " " + kBoolFpga + " GPIO_READ_WRITE 2 0 1 ACTIVE_HI TRUE\n";
    withFpgaFunction();
    profile(text);
    GPIODDAPI gpio("GPIO_drv");
    auto* pch = dynamic_cast<GPIO_PCHDriver*>(gpio.driver(GPIODDAPI::kPchSlot));
    auto* fpga = dynamic_cast<GPIO_FPGADriver*>(gpio.driver(GPIODDAPI::kFpgaSlot));
    ASSERT_TRUE(pch && fpga);
    EXPECT_EQ(pch->entryCount(), 95u);
    EXPECT_EQ(fpga->entryCount(), 200u);
    EXPECT_EQ(pch->GetGPIOIndexByName("P94"), 94u);
    EXPECT_EQ(pch->GetGPIOIndexByName("P95"), 10000u);
    deleteErrorMsg(gpio.getErrorMsg());
}

TEST_F(GpioTest, LongNamesAreCutToThirtyCharacters) {
    profile(std::string("[PCH]\nABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789 ") + kBoolPch + " GPIO_READ_ONLY 12 ACTIVE_HI TRUE\n");
    GPIODDAPI gpio("GPIO_drv");
    auto* pch = dynamic_cast<GPIO_PCHDriver*>(gpio.driver(GPIODDAPI::kPchSlot));
    ASSERT_NE(pch, nullptr);
    EXPECT_STREQ(pch->entry(0).name, "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123");
    EXPECT_EQ(pch->GetGPIOIndexByName("abcdefghijklmnopqrstuvwxyz0123"), 0u);
}

}  // namespace
