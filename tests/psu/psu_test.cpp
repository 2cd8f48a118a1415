// Power supplies against the board's PMBus supply models (psu0, psu1 behind mux0).
#include <gtest/gtest.h>

#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <string>
#include <thread>

#include "api/ErrorText.h"
#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "dapi/psu/PSUDAPI.h"
#include "ddapi/psu/PMBusPSU.h"
#include "ddapi/psu/PSUDDAPI.h"
#include "ddapi/psu/VarnelPSU.h"
#include "vboard/Board.h"

namespace {

using quarn::psu::floatToLinear11;
using quarn::psu::linear11ToDouble;

std::string render(ErrorMsg* chain) {
    std::string text;
    getErrorMessage(chain, &text);
    return text;
}

class PsuTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override { quarn::installPlatform(nullptr); }
    quarn::vboard::PmbusSupplyModel& psu(int i) { return *board.i2c->psu[i]; }
    std::string info() {
        std::string text;
        quarn::readTextFile(quarn::psu::kInfoFile, &text);
        return text;
    }
    // A firmware image file: 32 header bytes and the body.
    std::string writeImage(const std::vector<uint8_t>& body) {
        std::string image(32, 'H');
        image.append(body.begin(), body.end());
        board.writeFile("/tmp/fw.bin", image);
        return "/tmp/fw.bin";
    }
    quarn::vboard::Board board;
};

TEST(Linear11, DecodesBothEndsOfExponentAndMantissa) {
    EXPECT_DOUBLE_EQ(linear11ToDouble(0xEB20), 100.0);  // N = -3, Y = 800
    EXPECT_DOUBLE_EQ(linear11ToDouble(0x0019), 25.0);
    EXPECT_DOUBLE_EQ(linear11ToDouble(0x7BFF), 1023.0 * 32768.0);   // N = 15, Y = 1023
    EXPECT_DOUBLE_EQ(linear11ToDouble(0x7C00), -1024.0 * 32768.0);  // N = 15, Y = -1024
    EXPECT_DOUBLE_EQ(linear11ToDouble(0x8001), 1.0 / 65536.0);      // N = -16, Y = 1
    EXPECT_DOUBLE_EQ(linear11ToDouble(0x87FF), -1.0 / 65536.0);     // N = -16, Y = -1
}

TEST(Linear11, EncodesWithTheSmallestErrorFirstExactWins) {
    EXPECT_EQ(floatToLinear11(100.0f), 0x0064);
    EXPECT_EQ(floatToLinear11(2000.0f), 0x0BE8);  // N = 1, Y = 1000
    EXPECT_EQ(floatToLinear11(0.0f), 0x0000);
    EXPECT_DOUBLE_EQ(linear11ToDouble(floatToLinear11(0.5f)), 0.5);
    EXPECT_DOUBLE_EQ(linear11ToDouble(floatToLinear11(-10.0f)), -10.0);
    EXPECT_DOUBLE_EQ(linear11ToDouble(floatToLinear11(-0.25f)), -0.25);
    EXPECT_DOUBLE_EQ(linear11ToDouble(floatToLinear11(-1024.0f)), -1024.0);
    // The largest value: 1023 x 2^15.
    EXPECT_EQ(floatToLinear11(1023.0f * 32768.0f), 0x7BFF);
    // Past it no mantissa fits at all: the encoder answers 0 (callers keep values in range).
    EXPECT_EQ(floatToLinear11(1e12f), 0x0000);
    // Below 2^-15 nothing beats the error of 0 itself.
    EXPECT_EQ(floatToLinear11(1e-6f), 0x0000);
}

TEST(Linear16, ScalesByTheVoutModeExponent) {
    EXPECT_DOUBLE_EQ(quarn::psu::linear16ToDouble(6170, 0x17), 6170.0 / 512.0);
}

TEST_F(PsuTest, InfoFileListsTheSuppliesAndTheListsComposeItemNames) {
    PSUDAPI api("PSUDAPI");
    EXPECT_EQ(render(api.getErrorMsg()), "");
    EXPECT_EQ(info(), "psu0 3 0xb0 \npsu1 4 0xb0 ");
    std::list<std::string> list;
    EXPECT_EQ(render(api.getDeviceList("psu", &list)), "");
    EXPECT_EQ(list, (std::list<std::string>{"psu0", "psu1"}));
    list.clear();
    EXPECT_EQ(render(api.getDeviceList("led", &list)), "");
    ASSERT_EQ(list.size(), 10u);
    EXPECT_EQ(list.front(), "psu0_fault_led");
    EXPECT_EQ(*std::next(list.begin()), "psu0_rtr_led");
    EXPECT_EQ(list.back(), "psu1_fan1_fault_led");
    list.clear();
    EXPECT_EQ(render(api.getDeviceList("threshold", &list)), "");
    EXPECT_EQ(list, (std::list<std::string>{"psu0_over_temp_threshold", "psu0_under_temp_threshold",
                                            "psu1_over_temp_threshold", "psu1_under_temp_threshold"}));
    EXPECT_EQ(render(api.getDeviceList("volt", &list)), "PSUDAPI::getDeviceList: \"Illegal request - volt\"");
}

TEST_F(PsuTest, IdentityAndReadingsByElement) {
    PSUDAPI api("PSUDAPI");
    std::string v;
    EXPECT_EQ(render(api.getDataByElement(PSU_TYPE, "psu0", &v)), "");
    EXPECT_EQ(v, "PMBus");
    EXPECT_EQ(render(api.getDataByElement(PSU_VENDOR, "psu0", &v)), "");
    EXPECT_EQ(v, "DELTA");
    EXPECT_EQ(render(api.getDataByElement(PSU_SERIAL_NUMBER, "psu1", &v)), "");
    EXPECT_EQ(v, "DPS1A2B3C5");
    EXPECT_EQ(render(api.getDataByElement(PSU_FW_VERSION, "psu0", &v)), "");
    EXPECT_EQ(v, "S1F 1.04");
    EXPECT_EQ(render(api.getDataByElement(PSU_MAX_POWER, "psu0", &v)), "");
    EXPECT_EQ(v, "550");
    EXPECT_EQ(render(api.getDataByElement(PSU_TEMPERATURE, "psu1_temp0", &v)), "");
    EXPECT_EQ(v, "34.000000");
    psu(0).setTemperature(1, -5.25);
    EXPECT_EQ(render(api.getDataByElement(PSU_TEMPERATURE, "psu0_temp1", &v)), "");
    EXPECT_EQ(v, "-5.250000");
    EXPECT_EQ(render(api.getDataByElement(PSU_FAN_SPEED, "psu0_fan0", &v)), "");
    EXPECT_EQ(v, "6208");  // 6200 rpm at the supply's 32-rpm resolution
    v = "stale";
    EXPECT_EQ(render(api.getDataByElement(PSU_FAN_SPEED, "psu0fan0", &v)),
              "PSUDAPI::getDataByElement -> PSUDDAPI::getFanSpeed: \"Bad parameter 1 - unexpected format\"");
    EXPECT_EQ(v, "");
    EXPECT_EQ(render(api.getDataByElement(PSU_FAN_SPEED, "psu7_fan0", &v)),
              "PSUDAPI::getDataByElement -> PSUDDAPI::getFanSpeed: \"No device is found - psu7\"");
    EXPECT_EQ(render(api.getDataByElement(PSU_FAN_SPEED, "psu0_fan2", &v)),
              "PSUDAPI::getDataByElement -> PSUDDAPI::getFanSpeed -> PSUDDAPI::getFanSpeed: "
              "\"No device is found - fan2\"");
    EXPECT_EQ(render(api.getDataByElement(static_cast<PSU_ELEMENT_TYPE>(10), "psu0", &v)),
              "PSUDAPI::getDataByElement: \"function is not supported\"");
}

TEST_F(PsuTest, FanFollowsTheSetSpeedAndTheRangeComesFromTheSupply) {
    PSUDAPI api("PSUDAPI");
    EXPECT_EQ(render(api.setDataByElement(PSU_FAN_SPEED, "psu1_fan1", "0x2000")), "");
    EXPECT_EQ(psu(1).fanRpm(1), 8192);
    std::string v;
    EXPECT_EQ(render(api.getDataByElement(PSU_FAN_SPEED, "psu1_fan1", &v)), "");
    EXPECT_EQ(v, "8192");
    std::list<std::string> range;
    EXPECT_EQ(render(api.getSupportValueByElement(PSU_FAN_SPEED, "psu0_fan1", &range)), "");
    EXPECT_EQ(range, (std::list<std::string>{"0", "16000"}));
    EXPECT_EQ(render(api.getSupportValueByElement(PSU_TEMPERATURE, "psu0_fan1", &range)),
              "PSUDAPI::getSupportValueByElement: \"function is not supported\"");
    EXPECT_THROW(api.setDataByElement(PSU_FAN_SPEED, "psu0_fan0", "fast"), std::invalid_argument);
    EXPECT_THROW(api.setDataByElement(PSU_FAN_SPEED, "psu0_fan0", "99999999999"), std::out_of_range);
    EXPECT_THROW(api.setDataByElement(PSU_TEMPERATURE_THRESHOLD, "psu0_over_temp_threshold", "hot"),
                 std::invalid_argument);
    EXPECT_THROW(api.setDataByElement(PSU_TEMPERATURE_THRESHOLD, "psu0_over_temp_threshold", "1e99"),
                 std::out_of_range);
}

TEST_F(PsuTest, ThresholdWriteIsEncodedAndReadBack) {
    PSUDAPI api("PSUDAPI");
    EXPECT_EQ(render(api.setDataByElement(PSU_TEMPERATURE_THRESHOLD, "psu0_over_temp_threshold", "2000")), "");
    EXPECT_EQ(psu(0).writes().back(), std::vector<uint8_t>({0x4F, 0xE8, 0x0B}));
    std::string v;
    EXPECT_EQ(render(api.getDataByElement(PSU_TEMPERATURE_THRESHOLD, "psu0_over_temp_threshold", &v)), "");
    EXPECT_EQ(v, "2000.000000");
    EXPECT_EQ(render(api.getDataByElement(PSU_TEMPERATURE_THRESHOLD, "psu0_under_temp_threshold", &v)), "");
    EXPECT_EQ(v, "-10.000000");
}

TEST_F(PsuTest, LedsAreActiveLowAndStandbyClearsItsCompanionBit) {
    PSUDDAPI dd;
    quarn::vboard::PmbusSupplyModel& m = psu(0);
    std::string status;
    EXPECT_EQ(render(dd.setLEDStatus("psu0_standby_led", "off")), "");
    EXPECT_EQ(render(dd.getLEDStatus("psu0_standby_led", &status)), "");
    EXPECT_EQ(status, "off");
    EXPECT_EQ(render(dd.setLEDStatus("psu0_rtr_led", "on")), "");
    EXPECT_EQ(render(dd.setLEDStatus("psu0_standby_led", "on")), "");
    // standby on: bit 0x0010 and bit 0x0020 cleared.
    EXPECT_EQ(m.ledRegister() & 0x0030, 0);
    EXPECT_EQ(render(dd.getLEDStatus("psu0_standby_led", &status)), "");
    EXPECT_EQ(status, "on");
    EXPECT_EQ(render(dd.setLEDStatus("psu0_rtr_led", "blink")),
              "PSUDDAPI::setLEDStatus -> PSUDDAPI::setLEDStatus: \"unexpected value - blink\"");
    EXPECT_EQ(render(dd.getLEDStatus("psu0_power_led", &status)),
              "PSUDDAPI::getLEDStatus -> PSUDDAPI::getLEDStatus: \"No device is found - power_led\"");
}

TEST_F(PsuTest, StandbyOnFromRegister0030WritesZero) {
    PSUDDAPI dd;
    psu(0).setLedRegister(0x0030);
    EXPECT_EQ(render(dd.setLEDStatus("psu0_standby_led", "on")), "");
    EXPECT_EQ(psu(0).writes().back(), std::vector<uint8_t>({0xF1, 0x00, 0x00}));
    psu(0).setLedRegister(0x0000);
    EXPECT_EQ(render(dd.setLEDStatus("psu0_fault_led", "off")), "");
    EXPECT_EQ(psu(0).ledRegister(), 0x0008);
}

TEST_F(PsuTest, AbsentSupplyIsLeftOutWithoutErrorAndABadRevisionIsReported) {
    psu(1).setPresent(false);
    {
        PSUDDAPI dd;
        EXPECT_EQ(render(dd.getErrorMsg()), "");
        std::list<std::string> list;
        EXPECT_EQ(render(dd.getDeviceList(&list)), "");
        EXPECT_EQ(list, (std::list<std::string>{"psu0"}));
    }
    psu(1).setPresent(true);
    psu(1).setRevision(0x33);
    PSUDDAPI dd;
    EXPECT_EQ(render(dd.getErrorMsg()),
              "PSUDDAPI::Constructor -> PSUDDAPI::isPresent: \"unexpected value - PMBUS_REVISION 0x33\"");
}

TEST_F(PsuTest, ProfileNamesAreDataNeverCommands) {
    int runs = 0;
    for (const char* tool : {"sh", "touch", "reboot"})
        board.addProgram(tool, [&runs](const std::vector<std::string>&, std::string*) { return ++runs, 0; });
    board.writeFile(quarn::psu::kInfoFile, "psu0;touch${IFS}/tmp/pwned 3 0xb0 \n$(reboot) 4 0xb0 ");
    PSUDDAPI dd;
    EXPECT_EQ(render(dd.getErrorMsg()), "");
    std::list<std::string> list;
    // Neither name is on the I2C map, so neither answers: no supply, nothing run.
    EXPECT_NE(render(dd.getDeviceList(&list)), "");
    struct stat st;
    EXPECT_NE(board.stat("/tmp/pwned", &st), 0);
    EXPECT_EQ(runs, 0);
}

TEST_F(PsuTest, FirmwareUpdateReplacesTheRevision) {
    PSUDAPI api("PSUDAPI");
    const std::string path = writeImage(quarn::vboard::PmbusSupplyModel::makeFirmwareBody("S1F 2.00", 42));
    testing::internal::CaptureStdout();
    ErrorMsg* e = api.updateFWByFile("psu1", 0, path);
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(render(e), "");
    EXPECT_EQ(out, "erase flash\nWrite FW to PSU\n\r0%\r46%\r93%\rWrite FW complete\nFW upgrade is successful\n");
    EXPECT_EQ(psu(1).firmware(), "S1F 2.00");
    EXPECT_EQ(psu(0).firmware(), "S1F 1.04");
    using Block = std::pair<uint32_t, uint32_t>;
    EXPECT_EQ(psu(1).blocks(), (std::vector<Block>{{0, 28}, {28, 28}, {56, 4}}));
    std::string v;
    EXPECT_EQ(render(api.getDataByElement(PSU_FW_VERSION, "psu1", &v)), "");
    EXPECT_EQ(v, "S1F 2.00");
}

TEST_F(PsuTest, NackMidUpdateKeepsOldFirmwareAndReleasesTheLock) {
    PSUDAPI api("PSUDAPI");
    const std::string path = writeImage(quarn::vboard::PmbusSupplyModel::makeFirmwareBody("S1F 2.00", 100));
    psu(0).setNackDataFrom(2);
    testing::internal::CaptureStdout();
    ErrorMsg* e = api.updateFWByFile("psu0", 0, path);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(render(e),
              "PSUDAPI::updateFwByFile -> PSUDDAPI::program -> PSUDDAPI::program -> I2CDAPI::Write: "
              "\"By well_know_name\" -> I2CDDAPI::write: \"I2C write block data fail - Input/output error\"");
    EXPECT_EQ(psu(0).firmware(), "S1F 1.04");
    // The lock is free again: a second update (the fault gone) goes through.
    psu(0).setNackDataFrom(-1);
    testing::internal::CaptureStdout();
    e = api.updateFWByFile("psu0", 0, path);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(render(e), "");
    EXPECT_EQ(psu(0).firmware(), "S1F 2.00");
}

TEST_F(PsuTest, BadBlockStatusNamesTheBlock) {
    PSUDAPI api("PSUDAPI");
    const std::string path = writeImage(quarn::vboard::PmbusSupplyModel::makeFirmwareBody("S1F 2.00", 42));
    psu(0).setBadBlockAt(28);
    testing::internal::CaptureStdout();
    ErrorMsg* e = api.updateFWByFile("psu0", 0, path);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(render(e), "PSUDAPI::updateFwByFile -> PSUDDAPI::program -> PSUDDAPI::program: "
                         "\"fail to program data - data[56-28]\"");
    EXPECT_EQ(psu(0).firmware(), "S1F 1.04");
}

TEST_F(PsuTest, EraseTimeoutAndArgumentChecks) {
    PSUDDAPI dd;
    char image[64] = {0};
    EXPECT_EQ(render(dd.program("psu0", 0, nullptr, 64)), "PSUDDAPI::program: \"Bad parameter 3 - NULL pointer\"");
    EXPECT_EQ(render(dd.program("psu0", 0, image, 0)), "PSUDDAPI::program: \"Bad parameter 4 - invalid FW size\"");
    EXPECT_EQ(render(dd.program("psu9", 0, image, 64)), "PSUDDAPI::program: \"No device is found - psu9\"");
    testing::internal::CaptureStdout();
    EXPECT_EQ(render(dd.program("psu0", 1, image, 64)),
              "PSUDDAPI::program -> PSUDDAPI::program: \"Bad parameter 1 - sector should be 0 only\"");
    psu(0).setEraseStuck(true);
    EXPECT_EQ(render(dd.program("psu0", 0, image, 64)),
              "PSUDDAPI::program -> PSUDDAPI::program: \"Time out - erase timeout\"");
    testing::internal::GetCapturedStdout();
    PSUDAPI api("PSUDAPI");
    EXPECT_EQ(render(api.updateFWByFile("psu0", 0, "/tmp/none.bin")),
              "PSUDAPI::updateFwByFile: \"Fail to open file node - /tmp/none.bin\"");
}

TEST_F(PsuTest, SecondProcessWaitsForTheFirmwareLock) {
    // Another process holds the lock: take it through the platform as it would.
    quarn::Platform& p = quarn::platform();
    const int id = p.semget(quarn::psu::kFirmwareLockKey, 1, IPC_CREAT | 0666);
    ASSERT_GE(id, 0);
    ASSERT_EQ(p.semctl(id, 0, SETVAL, 0), 0);  // held
    PSUDDAPI dd;
    const std::vector<uint8_t> body = quarn::vboard::PmbusSupplyModel::makeFirmwareBody("S1F 3.00", 10);
    std::string image(32, 'H');
    image.append(body.begin(), body.end());
    std::atomic<bool> done{false};
    ErrorMsg* result = nullptr;
    testing::internal::CaptureStdout();
    std::thread second([&] {
        result = dd.program("psu0", 0, &image[0], static_cast<int>(image.size()));
        done = true;
    });
    // While the lock is held the supply sees no loader command.
    for (int i = 0; i < 50 && !done; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    EXPECT_FALSE(done.load());
    EXPECT_FALSE(psu(0).inLoader());
    struct sembuf give = {0, 1, 0};
    ASSERT_EQ(p.semop(id, &give, 1), 0);
    second.join();
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(render(result), "");
    EXPECT_EQ(psu(0).firmware(), "S1F 3.00");
    EXPECT_EQ(p.semctl(id, 0, GETVAL, 0), 1);  // released
}

}  // namespace
