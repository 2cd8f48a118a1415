// Temperature sensors: MAX6657 and DIMM sensors on the I2C map, the processor package
// sensor in MSRs, SATA drives and the supplies' sensors.
#include <gtest/gtest.h>

#include <list>
#include <string>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "dapi/temperature/TemperatureDAPI.h"
#include "ddapi/processor/ProcessorDDAPI.h"
#include "ddapi/temperature/I2CTemperature.h"
#include "ddapi/temperature/TemperatureDDAPI.h"
#include "ddapi/temperature/TemperatureGeneric.h"
#include "vboard/Board.h"

namespace {

std::string render(ErrorMsg* chain) {
    std::string text;
    getErrorMessage(chain, &text);
    return text;
}

using List = std::list<std::string>;

class TemperatureTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override { quarn::installPlatform(nullptr); }
    quarn::vboard::I2cBoard& i2c() { return *board.i2c; }
    quarn::vboard::Board board;
};

TEST(DimmConversion, WordsOfBothSigns) {
    EXPECT_EQ(DIMMTemperature::convert(0x9401), "25.25");  // bytes 0x01, 0x94
    EXPECT_EQ(DIMMTemperature::convert(0x701F), "-9.00");  // register 0x1F70
    EXPECT_EQ(DIMMTemperature::convert(0x0000), "0.00");
    EXPECT_EQ(DIMMTemperature::convert(0xFC1F), "-0.25");   // register 0x1FFC
    EXPECT_EQ(DIMMTemperature::convert(0xFC0F), "255.75");  // register 0x0FFC, top of range
    EXPECT_EQ(DIMMTemperature::convert(0xF0EF), "255.00");  // event flags (bits 15-13) are not temperature
    EXPECT_EQ(DIMMTemperature::convert(0x00F0), "-256.00"); // register 0x1000
}

TEST_F(TemperatureTest, NameListIsTheProfilesTemperatureDevicesInOrder) {
    TemperatureDAPI api("TemperatureDAPI");
    EXPECT_EQ(render(api.getErrorMsg()), "");
    List names;
    EXPECT_EQ(render(api.displayTemperatureNameList(&names)), "");
    EXPECT_EQ(names, (List{"max6657", "dimm0-temp", "dimm1-temp", "dimm2-temp", "dimm3-temp", "bp-temp"}));
}

TEST_F(TemperatureTest, AllInfoOfTheMax6657) {
    TemperatureDAPI api("TemperatureDAPI");
    List lines;
    EXPECT_EQ(render(api.getDataByName("max6657", TEMPERATURE_ALL_INFO, &lines)), "");
    EXPECT_EQ(lines, (List{"temperature: 41", "threshold_hi0: 70", "threshold_low0: 0", "threshold_hi1: Not Support",
                           "threshold_low1: Not Support"}));
}

TEST_F(TemperatureTest, NegativeMax6657ReadingIsReportedAsZero) {
    i2c().max6657->setLocal(-10);  // register 0x00 reads 0xF6
    TemperatureDAPI api("TemperatureDAPI");
    List v;
    EXPECT_EQ(render(api.getDataByName("max6657", TEMPERATURE_CURRENT, &v)), "");
    EXPECT_EQ(v, List{"0"});
}

TEST_F(TemperatureTest, DimmSensorReadsBelowZeroAndRefusesLimitWrites) {
    i2c().dimmTemp[2]->setTemperature(-9.0);
    TemperatureDAPI api("TemperatureDAPI");
    List v;
    EXPECT_EQ(render(api.getDataByName("dimm2-temp", TEMPERATURE_CURRENT, &v)), "");
    EXPECT_EQ(v, List{"-9.00"});
    v.clear();
    EXPECT_EQ(render(api.getDataByName("dimm0-temp", TEMPERATURE_THRESHOLD_HIGH0, &v)), "");
    EXPECT_EQ(v, List{"85.00"});
    EXPECT_EQ(render(api.setDataByName("dimm0-temp", TEMPERATURE_THRESHOLD_HIGH0, "70")),
              "TEMPERATUREDAPI::Set_Data_By_Name -> TEMPERATUREDDAPI::Set_i2c_Data_By_Name -> "
              "TEMPERATUREDDAPI::Get_i2c_Set_Threshold_High0_List -> I2CDAPI::MUX_Test -> "
              "I2CDAPI::MUX_Test: \"Write Temperature High Limit not support\"");
}

TEST_F(TemperatureTest, Max6657LimitWriteGoesToTheWriteCommand) {
    TemperatureDAPI api("TemperatureDAPI");
    EXPECT_EQ(render(api.setDataByName("max6657", TEMPERATURE_THRESHOLD_HIGH0, "75")), "");
    EXPECT_EQ(i2c().max6657->localHighLimit(), 75);
    EXPECT_EQ(i2c().max6657->writes().back(), std::vector<uint8_t>({0x0B, 75}));
    EXPECT_EQ(render(api.setDataByName("max6657", TEMPERATURE_THRESHOLD_LOW0, "-5")), "");
    EXPECT_EQ(i2c().max6657->localLowLimit(), -5);
    // High1/Low1 are not the sensor's: nothing is written.
    EXPECT_EQ(render(api.setDataByName("max6657", TEMPERATURE_THRESHOLD_HIGH1, "99")), "");
    EXPECT_EQ(i2c().max6657->writes().back(), std::vector<uint8_t>({0x0C, 0xFB}));
    EXPECT_NE(render(api.setDataByName("max6657", TEMPERATURE_THRESHOLD_HIGH0, "200")), "");
    EXPECT_NE(render(api.setDataByName("max6657", TEMPERATURE_THRESHOLD_HIGH0, "7x")), "");
    EXPECT_EQ(i2c().max6657->localHighLimit(), 75);
    // A part that refuses limit writes.
    i2c().max6657->setLimitsLocked(true);
    const std::string refused = render(api.setDataByName("max6657", TEMPERATURE_THRESHOLD_HIGH0, "60"));
    EXPECT_NE(refused.find("\"Write Internal High Limit fail\" -> I2CDDAPI::write"), std::string::npos) << refused;
    EXPECT_EQ(i2c().max6657->localHighLimit(), 75);
}

TEST_F(TemperatureTest, UnsupportedModelIsWrappedByEveryLayer) {
    board.writeFile("/etc/quarn/I2C_profile.ini",
                    "[BUS]\nsmbus0 0 100 pch-smbus\n[Topology]\ntmp0 0 0x90 temperature TI TMP75\n");
    TemperatureDAPI api("TemperatureDAPI");
    List v;
    EXPECT_EQ(render(api.getDataByName("tmp0", TEMPERATURE_CURRENT, &v)),
              "TEMPERATUREDAPI::Get_Data_By_Name -> TEMPERATUREDDAPI::Get_Data_By_Name -> "
              "TEMPERATUREDDAPI::Get_i2c_Data_By_Name -> TEMPERATUREDDAPI::Get_current_i2c_temperature -> "
              "I2CDAPI::MUX_Test: \"Not support temperature sensor\"");
    EXPECT_TRUE(v.empty());
}

TEST_F(TemperatureTest, ElementOutsideTheTableAndUnknownName) {
    TemperatureDAPI api("TemperatureDAPI");
    List v;
    EXPECT_EQ(render(api.getDataByName("max6657", static_cast<TEMPERATURE_DATA_ELEMENT>(6), &v)),
              "TEMPERATUREDAPI::Get_Data_By_Name: \"element 6 outside 0 to 5\"");
    EXPECT_EQ(render(api.setDataByName("max6657", static_cast<TEMPERATURE_DATA_ELEMENT>(6), "1")),
              "TEMPERATUREDAPI::Set_Data_By_Name: \"element 6 outside 0 to 5\"");
    EXPECT_EQ(render(api.getDataByName("nosuch", TEMPERATURE_CURRENT, &v)),
              "TEMPERATUREDAPI::Get_Data_By_Name -> TEMPERATUREDDAPI::Get_Data_By_Name -> "
              "TEMPERATUREDDAPI::Get_i2c_Data_By_Name -> TEMPERATUREDDAPI::Get_current_i2c_temperature -> "
              "I2CDDAPI::read: \"No I2C device - by well_know_name\"");
}

TEST_F(TemperatureTest, ProcessorPackageSensorFromMsrs) {
    Temperature_CPU cpu("TEMP_CPU");
    List names;
    EXPECT_EQ(render(cpu.getTemperatureNameList(&names)), "");
    EXPECT_EQ(names, List{"Processor0"});
    List v;
    EXPECT_EQ(render(cpu.getDataByName("processor0", TEMPERATURE_CURRENT, &v)), "");
    ASSERT_EQ(v.size(), 1u);
    EXPECT_EQ(render(cpu.setDataByName("processor0", TEMPERATURE_THRESHOLD_HIGH0, "90")), "");
    v.clear();
    EXPECT_EQ(render(cpu.getDataByName("processor0", TEMPERATURE_THRESHOLD_HIGH0, &v)), "");
    EXPECT_EQ(v, List{"90"});
    EXPECT_NE(render(cpu.setDataByName("processor0", TEMPERATURE_THRESHOLD_HIGH0, "-100")), "");
}

TEST_F(TemperatureTest, SataDriveTemperature) {
    Temperature_SATA sata("TEMP_SATA");
    List names;
    EXPECT_EQ(render(sata.getDriveNames(&names)), "");
    ASSERT_FALSE(names.empty());
    List v;
    EXPECT_EQ(render(sata.getDataByName(names.front(), TEMPERATURE_CURRENT, &v)), "");
    ASSERT_EQ(v.size(), 1u);
    EXPECT_FALSE(v.front().empty());
}

TEST_F(TemperatureTest, SasAdapterTemperature) {
    Temperature_SAS sas("TEMP_SAS");
    EXPECT_EQ(render(sas.getErrorMsg()), "");
    List names;
    EXPECT_EQ(render(sas.getTemperatureNameList(&names)), "");
    ASSERT_EQ(names, List{"SAS1"});  // the SAS layer numbers its adapters from 1
    List v;
    EXPECT_EQ(render(sas.getDataByName("sas1", TEMPERATURE_CURRENT, &v)), "");
    ASSERT_EQ(v.size(), 1u);
    EXPECT_GT(std::stoi(v.front()), 0);
    EXPECT_EQ(render(sas.getDataByName("sas3", TEMPERATURE_CURRENT, &v)),
              "TEMPERATUREDAPI::Get_Current_Temperature: \"sas3\"");
}

TEST_F(TemperatureTest, SupplySensorsAndTheirDerivedThresholds) {
    Temperature_PSU psu("TEMP_PSU");
    EXPECT_EQ(render(psu.getErrorMsg()), "");
    List names;
    EXPECT_EQ(render(psu.getTemperatureNameList(&names)), "");
    EXPECT_EQ(names, (List{"psu0_temp0", "psu0_temp1", "psu1_temp0", "psu1_temp1"}));
    List v;
    EXPECT_EQ(render(psu.getDataByName("psu0_temp0", TEMPERATURE_CURRENT, &v)), "");
    EXPECT_EQ(render(psu.getDataByName("psu0_temp0", TEMPERATURE_THRESHOLD_HIGH0, &v)), "");
    EXPECT_EQ(render(psu.getDataByName("psu0_temp0", TEMPERATURE_THRESHOLD_LOW0, &v)), "");
    EXPECT_EQ(v, (List{"33.000000", "85.000000", "-10.000000"}));
    EXPECT_EQ(render(psu.setDataByName("psu1_temp1", TEMPERATURE_THRESHOLD_HIGH0, "90.5")), "");
    EXPECT_EQ(i2c().psu[1]->writes().back()[0], 0x4F);
}

}  // namespace
