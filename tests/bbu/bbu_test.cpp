// Battery backup unit: the bq40z50 gauge model and the charge-control registers.
#include <gtest/gtest.h>

#include <list>
#include <string>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "dapi/bbu/BBUDAPI.h"
#include "ddapi/bbu/BBU_I2C_TI_bq40z50.h"
#include "vboard/Board.h"

namespace {

std::string render(ErrorMsg* chain) {
    std::string text;
    getErrorMessage(chain, &text);
    return text;
}

class BbuTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override { quarn::installPlatform(nullptr); }
    quarn::vboard::I2cBoard& i2c() { return *board.i2c; }
    quarn::vboard::Board board;
};

TEST(BbuDate, ManufactureDateWord) { EXPECT_EQ(BBU_I2C_TI_bq40z50::dateText(0x4A6F), "3/15/2017"); }

TEST_F(BbuTest, OnlyTiBq40z50BatteriesAreListed) {
    std::string profile =
        "[BUS]\nsmbus0 0 100 pch-smbus\n[Topology]\nmux0 0 0xe0 mux 3 4 5 6\n"
        "bbu0 5 0x16 battery TI bq40z50\nbbu1 5 0x18 battery TI bq40z60\nbbu2 5 0x1a battery Acme bq40z50\n";
    board.writeFile("/etc/quarn/I2C_profile.ini", profile);
    BBUDAPI api("BBUDAPI");
    std::list<std::string> names;
    EXPECT_EQ(render(api.Get_BBU_List(&names)), "");
    EXPECT_EQ(names, std::list<std::string>{"bbu0"});
    BBUBaseClassDDAPI objects[3] = {BBUBaseClassDDAPI("a"), BBUBaseClassDDAPI("b"), BBUBaseClassDDAPI("c")};
    int count = 0;
    EXPECT_EQ(render(api.Get_BBU_List(objects, &count)), "");
    EXPECT_EQ(count, 1);
    EXPECT_EQ(objects[0].Get_name(), "bbu0");
}

TEST_F(BbuTest, ReportLayout) {
    BBUDAPI api("BBUDAPI");
    testing::internal::CaptureStdout();
    ErrorMsg* e = api.getBBUInformation("bbu0");
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(render(e), "");
    const std::string rule(65, '_');
    EXPECT_EQ(out.substr(0, out.find('\n')), "*** INTELLIGENT BATTERY MONITORED INFORMATION ***");
    EXPECT_NE(out.find(rule + "\nTemperature          :25.05 C       Voltage             :12600 mV\n"), std::string::npos)
        << out;
    EXPECT_NE(out.find("Current              :1200 mA       Charging Current    :1200 mA\n"), std::string::npos) << out;
    EXPECT_NE(out.find("Charger System State :0x80          Charger Sys Control :N/A\nFWbbuState           :N/A\n" + rule +
                       "\n\n\n*** BATTERY CAPACITY INFORMATION ***\n"),
              std::string::npos)
        << out;
    EXPECT_NE(out.find("Relative State of Charge :95 %\n"), std::string::npos) << out;
    EXPECT_NE(out.find("Specification Info       :0x31 \nDate of Manufacture      :3/15/2017\n"), std::string::npos) << out;
    EXPECT_NE(out.find("Device Chemistry         :LION\n"), std::string::npos) << out;
}

TEST_F(BbuTest, UnknownBatteryPrintsNothing) {
    BBUDAPI api("BBUDAPI");
    testing::internal::CaptureStdout();
    ErrorMsg* e = api.getBBUInformation("bbu9");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(render(e), "TEMPERATUREDAPI::Get_Current_Temperature: \"There is no match name.\"");
}

TEST_F(BbuTest, DischargeUnlocksAndChargeMovesWithTheMode) {
    BBUDAPI api("BBUDAPI");
    quarn::vboard::ChargeControlModel& control = *i2c().chargeControl;
    ASSERT_EQ(control.control(), 0x05);
    EXPECT_EQ(render(api.Discharge("bbu0")), "");
    EXPECT_EQ(control.keyWrites(), 8);
    EXPECT_EQ(control.control(), 0x07);
    EXPECT_EQ(control.refusedWrites(), 0);
    int status = -1;
    EXPECT_EQ(render(api.GetChargeStatus("bbu0", &status)), "");
    EXPECT_EQ(status, 1);
    // An hour of discharge at 2.4 A empties 2280 mAh of 2400.
    BBU_I2C_TI_bq40z50 gauge;
    gauge.Set_name("bbu0");
    int before = 0, after = 0;
    EXPECT_EQ(render(gauge.Get_Remaining_Capacity(&before)), "");
    board.clock().advanceNs(30ull * 60 * 1000000000ull);
    EXPECT_EQ(render(gauge.Get_Remaining_Capacity(&after)), "");
    EXPECT_EQ(before - after, 1200);
    EXPECT_EQ(render(api.Charge("bbu0")), "");
    EXPECT_EQ(control.control(), 0x05);
    board.clock().advanceNs(30ull * 60 * 1000000000ull);
    EXPECT_EQ(render(gauge.Get_Remaining_Capacity(&before)), "");
    EXPECT_EQ(before, after + 600);
    EXPECT_EQ(render(api.GetChargeStatus("bbu0", &status)), "");
    EXPECT_EQ(status, 0);
}

TEST_F(BbuTest, ControlRegisterIgnoresAWriteWithoutTheKey) {
    quarn::vboard::ChargeControlModel& control = *i2c().chargeControl;
    control.write(0x32, 0x07, 1);
    EXPECT_EQ(control.control(), 0x05);
    EXPECT_EQ(control.refusedWrites(), 1);
}

TEST_F(BbuTest, OutOfRangeGaugeValueIsRefused) {
    i2c().battery->setWordOverride(0x0D, 0xFFFF);
    BBU_I2C_TI_bq40z50 gauge;
    gauge.Set_name("bbu0");
    int rsoc = 7;
    EXPECT_EQ(render(gauge.Get_Relative_State_Charge(&rsoc)),
              "TEMPERATUREDDAPI::Get_threshold_hight: \"I2C_ST_STTS2002\" -> TEMPERATUREDDAPI::Get_threshold_hight: "
              "\"out of range - command 0x0d answered 0xffff, above 100\"");
    EXPECT_EQ(rsoc, 7);
}

TEST_F(BbuTest, DirectReadAndWriteAndTheirFailures) {
    BBUDAPI api("BBUDAPI");
    int data[32] = {0};
    int count = 0;
    EXPECT_EQ(render(api.Read("bbu0", 0x09, 0x09, data, &count)), "");
    EXPECT_EQ(count, 1);
    EXPECT_EQ(data[0], 12600);
    int word[2] = {0x00, 0x21};
    EXPECT_EQ(render(api.Write("bbu0", 0x00, word, 2, &count)), "");
    EXPECT_EQ(i2c().battery->writes().back(), std::vector<uint8_t>({0x00, 0x21, 0x00}));
    i2c().battery->setPresent(false);
    testing::internal::CaptureStdout();
    const std::string failure = render(api.Write("bbu0", 0x00, word, 2, &count));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "BBU_I2C_TI_bq40z50 :: Write fail\n");
    EXPECT_EQ(failure, "TEMPERATUREDAPI::Get_Current_Temperature -> I2CDDAPI::write: \"I2C write word data fail - No such device or address\"");
    float t = 0;
    BBU_I2C_TI_bq40z50 gauge;
    gauge.Set_name("bbu0");
    EXPECT_NE(render(gauge.Get_Temperature(&t)), "");
    EXPECT_EQ(render(api.Read("bbu7", 0, 0, data, &count)),
              "TEMPERATUREDAPI::Get_Current_Temperature: \"There is no match name.\"");
}

TEST_F(BbuTest, BatteryNameWithShellMetacharactersIsOnlyAName) {
    int runs = 0;
    for (const char* tool : {"sh", "reboot", "rm"})
        board.addProgram(tool, [&runs](const std::vector<std::string>&, std::string*) { return ++runs, 0; });
    board.writeFile("/etc/quarn/I2C_profile.ini",
                    "[BUS]\nsmbus0 0 100 pch-smbus\n[Topology]\nmux0 0 0xe0 mux 3 4 5 6\n"
                    "bbu0;reboot 5 0x16 battery TI bq40z50\n[Protocol]\nmux0 all=byte\nbbu0;reboot all=word\n");
    BBUDAPI api("BBUDAPI");
    std::list<std::string> names;
    EXPECT_EQ(render(api.Get_BBU_List(&names)), "");
    EXPECT_EQ(names, std::list<std::string>{"bbu0;reboot"});
    int data[4] = {0};
    int count = 0;
    EXPECT_EQ(render(api.Read("bbu0;reboot", 0x09, 0x09, data, &count)), "");
    EXPECT_EQ(data[0], 12600);
    EXPECT_EQ(runs, 0);
}

}  // namespace
