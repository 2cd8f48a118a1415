// SMART of the virtual board's SATA disks through ATA PASS-THROUGH and libatasmart.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "ddapi/sata/SATADDAPI.h"
#include "vboard/Board.h"
#include "tests/lib/Render.h"

namespace {

using quarn::test::render;
using quarn::test::lines;
class SataSmartTest : public ::testing::Test {
protected:
    void SetUp() override {
        quarn::installPlatform(&board);
        ASSERT_EQ(render(sata.generateSATAList()), "");
    }
    void TearDown() override { quarn::installPlatform(nullptr); }
    std::string smart(unsigned int id, unsigned int first, unsigned int last) {
        std::string out;
        ErrorMsg* e = sata.getSMARTInfoByID(id, first, last, &out);
        return e ? render(e) : out;
    }
    const SMARTAttribute* find(unsigned int portId, unsigned int attribute) {
        for (const SMARTAttribute& a : sata.findPort(portId)->smartAttributes)
            if (a.id == attribute) return &a;
        return nullptr;
    }

    quarn::vboard::Board board;
    SATADDAPI sata{"SATA"};
};

TEST_F(SataSmartTest, AttributesNamedAndScaledByLibatasmart) {
    const std::vector<std::string> table = lines(smart(1, 0, 255));
    ASSERT_EQ(table.size(), 2u + 17u);
    EXPECT_EQ(table[0],
              "   ID                     Name Current   Worst Threshold            Readable           RawData      Type"
              "    Update   HealthStatus    PastHealthStatus");
    EXPECT_EQ(table[1], std::string(145, '-'));
    EXPECT_EQ(table[2],
              "    1      raw-read-error-rate     200     200        51                   0      000000000000   prefail"
              "    online            yes                 yes");
    const SMARTAttribute* temperature = find(1, 194);
    ASSERT_TRUE(temperature);
    EXPECT_EQ(temperature->name, "temperature-celsius-2");
    EXPECT_EQ(temperature->readable, "34.0 C");
    EXPECT_EQ(temperature->rawData, "220000000000");
    EXPECT_EQ(temperature->type, "old-age");
    EXPECT_EQ(temperature->threshold, "0");
    const SMARTAttribute* hours = find(1, 9);
    ASSERT_TRUE(hours);
    EXPECT_EQ(hours->name, "power-on-hours");
    EXPECT_EQ(hours->readable, "5.6 months");  // 4012 h
    EXPECT_EQ(find(1, 5)->readable, "0 sectors");
    EXPECT_EQ(find(1, 3)->readable, "4.2 s");  // spin-up time in ms
    EXPECT_EQ(find(1, 10)->worst, "253");  // never degraded: the 0xFD "not yet" value
    const SATAPort* port = sata.findPort(1);
    EXPECT_EQ(port->smartStatus, "good");
    EXPECT_EQ(port->temperature, "34.0 C");
    EXPECT_EQ(port->modelName, "WDC WD10EFRX-68FYTN0");  // libatasmart keeps single blanks
}

TEST_F(SataSmartTest, RangeSelectsAttributes) {
    const std::vector<std::string> only = lines(smart(1, 0xC2, 0xC2));
    ASSERT_EQ(only.size(), 3u);
    EXPECT_EQ(only[2].substr(0, 30), "  194    temperature-celsius-2");
    EXPECT_EQ(lines(smart(1, 100, 150)).size(), 2u);  // header and dashes only
    std::string temperature;
    EXPECT_EQ(render(sata.getDataByID(1, SATA_DATA_TEMPERATURE, &temperature)), "");
    EXPECT_EQ(temperature, "34.0 C");
    board.sataDisk2->setDriveTemperature(41);
    EXPECT_EQ(render(sata.getDataByID(3, SATA_DATA_TEMPERATURE, &temperature)), "");
    EXPECT_EQ(temperature, "41.0 C");
}

TEST_F(SataSmartTest, ThresholdExceededTurnsStatusBad) {
    board.sataDisk0->setAttribute(5, 100, 100, 1200);  // reallocated sectors below threshold 140
    smart(1, 0, 255);
    EXPECT_EQ(sata.findPort(1)->smartStatus, "bad status");
    EXPECT_EQ(find(1, 5)->healthStatus, "no");
    EXPECT_EQ(find(1, 5)->readable, "1200 sectors");

    board.sataDisk0->setAttribute(5, 200, 200, 0);
    board.sataDisk0->setAttribute(197, 200, 200, 3);  // pending sectors
    smart(1, 0, 255);
    EXPECT_EQ(sata.findPort(1)->smartStatus, "bad sector");
}

TEST_F(SataSmartTest, FailuresAreChained) {
    EXPECT_EQ(smart(0, 0, 255), "SATADDAPI::getSMARTInfoByID: \"wrong logical ID - 0 is a controller\"");
    EXPECT_EQ(smart(9, 0, 255), "SATADDAPI::getSMARTInfoByID: \"logical ID not found - logical ID 9\"");
    EXPECT_EQ(smart(2, 0, 255), "SATADDAPI::getSMARTInfoByID: \"open device node fail - SATA0-Port1 has no drive\"");
    board.sataDisk0->injectAtaAbort(0xB0, 3);  // every SMART command of one dump
    EXPECT_EQ(smart(1, 0, 255),
              "SATADDAPI::getSMARTInfoByID: \"dump SMART info error - SATA0-Port0: ATA command failed\"");
    board.device("/dev/sg1")->faults().openErrno = ENXIO;
    EXPECT_EQ(smart(1, 0, 255),
              "SATADDAPI::getSMARTInfoByID: \"open device node fail - /dev/sg1: No such device or address\"");
    std::string temperature;
    EXPECT_EQ(render(sata.getDataByID(1, SATA_DATA_TEMPERATURE, &temperature)),
              "SATADDAPI::getDataByID -> SATADDAPI::getSMARTInfoByID: \"open device node fail - /dev/sg1: No such "
              "device or address\"");
}

}  // namespace
