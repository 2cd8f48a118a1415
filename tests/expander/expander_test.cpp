// The expander layers against the virtual board's two cascaded expanders in the SAS
// transport sysfs tree and its SMP and SES tools.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "api/platform/Platform.h"
#include "dapi/expander/ExpanderDAPI.h"
#include "ddapi/expander/ExpanderDDAPI.h"
#include "tests/lib/Render.h"
#include "vboard/Board.h"

namespace {

using quarn::test::lines;
using quarn::test::render;

class ExpanderTest : public ::testing::Test {
protected:
    void SetUp() override {
        quarn::installPlatform(&board);
        exp = std::make_unique<ExpanderDDAPI>("ExpanderDDAPI");
        ASSERT_EQ(render(exp->getErrorMsg()), "");
    }
    void TearDown() override {
        exp.reset();
        quarn::installPlatform(nullptr);
    }
    unsigned int id(const std::string& name) {
        unsigned int out = 0xFFFFFFFF;
        EXPECT_EQ(render(exp->getLogicalIDByName(name, &out)), "") << name;
        return out;
    }
    std::string data(const std::string& name, EXP_DATAELEMENT element) {
        std::string out;
        ErrorMsg* e = exp->getDataByID(id(name), element, &out);
        return e ? render(e) : out;
    }
    std::string errors(const std::string& name, EXP_ERRORELEMENT element) {
        std::string out;
        ErrorMsg* e = exp->getErrorDataByID(id(name), element, &out);
        return e ? render(e) : out;
    }
    std::vector<std::string> names(EXP_DEVICE kind) {
        std::vector<std::string> out;
        for (const auto& d : exp->getDeviceList())
            if (d.kind == kind) out.push_back(d.name);
        return out;
    }
    quarn::vboard::SasExpanderModel& model(int n) { return *board.sas->expanders[static_cast<size_t>(n)]; }

    quarn::vboard::Board board;
    std::unique_ptr<ExpanderDDAPI> exp;
};

TEST_F(ExpanderTest, ExpandersPhysAndPortsAreNamedAndOrderedNumerically) {
    EXPECT_EQ(names(EXP_DEVICE_EXPANDER), (std::vector<std::string>{"EXP0", "EXP1"}));
    const std::vector<std::string> phys = names(EXP_DEVICE_PHY);
    ASSERT_EQ(phys.size(), 48u);
    EXPECT_EQ(phys[2], "EXP0-PHY2");
    EXPECT_EQ(phys[3], "EXP0-PHY3");
    EXPECT_EQ(phys[10], "EXP0-PHY10");  // PHY2 precedes PHY10
    EXPECT_EQ(phys[24], "EXP1-PHY0");
    // Ports by the expander PHY they hang from; the cascade port by its lowest PHY.
    EXPECT_EQ(names(EXP_DEVICE_PORT), (std::vector<std::string>{"EXP0-PORT8", "EXP0-PORT16", "EXP0-PORT18", "EXP1-PORT21"}));
    // Logical IDs follow the list; names are upper-cased before the comparison.
    EXPECT_EQ(id("exp0-phy3"), id("EXP0-PHY3"));
    EXPECT_EQ(id("EXP0"), 0u);
    EXPECT_EQ(id("EXP0-PHY0"), 2u);
    std::string name;
    ASSERT_EQ(render(exp->getDeviceNameByID(EXP_DEVICE_PORT, 3, &name)), "");
    EXPECT_EQ(name, "EXP1-PORT21");
    unsigned int out = 0;
    EXPECT_EQ(render(exp->getLogicalIDByName("EXP2", &out)), "ExpanderDDAPI::getLogicalIDByName: \"unknown name - EXP2\"");
}

TEST_F(ExpanderTest, PhyLinkData) {
    EXPECT_EQ(data("EXP0-PHY16", EXP_DATA_SPEED), "12.0 Gbit");
    EXPECT_EQ(data("EXP0-PHY16", EXP_DATA_LINK_STATUS), "UP");
    EXPECT_EQ(data("EXP0-PHY18", EXP_DATA_SPEED), "6.0 Gbit");
    EXPECT_EQ(data("EXP0-PHY20", EXP_DATA_SPEED), "Unknown");
    EXPECT_EQ(data("EXP0-PHY20", EXP_DATA_LINK_STATUS), "DOWN");
    EXPECT_EQ(data("EXP1-PHY3", EXP_DATA_ATTACHED_TYPE), "edge expander");
    EXPECT_EQ(data("EXP1-PHY3", EXP_DATA_SAS_ADDRESS), "0x500605b0000273bf");
    // Upper or lower case, the text names a rate: the link is up.
    model(0).phy(20).rate = "3.0 GBIT";
    EXPECT_EQ(data("EXP0-PHY20", EXP_DATA_LINK_STATUS), "UP");
    model(0).phy(20).rate = "Phy disabled";
    EXPECT_EQ(data("EXP0-PHY20", EXP_DATA_LINK_STATUS), "DOWN");
}

TEST_F(ExpanderTest, PortAndExpanderData) {
    EXPECT_EQ(data("EXP0-PORT16", EXP_DATA_ATTACHED_TYPE), "end device");
    EXPECT_EQ(data("EXP0-PORT16", EXP_DATA_SAS_ADDRESS), "0x5000c500a1b2c3d5");
    EXPECT_EQ(data("EXP0-PORT18", EXP_DATA_SPEED), "6.0 Gbit");
    EXPECT_EQ(data("EXP0-PORT8", EXP_DATA_ATTACHED_TYPE), "edge expander");  // the cascaded EXP1
    EXPECT_EQ(data("EXP0-PORT8", EXP_DATA_SAS_ADDRESS), "0x500605b0000273bf");
    EXPECT_EQ(data("EXP0-PORT8", EXP_DATA_SPEED), "12.0 Gbit");
    EXPECT_EQ(data("EXP0-PORT8", EXP_DATA_LINK_STATUS), "UP");
    EXPECT_EQ(data("EXP0", EXP_DATA_ATTACHED_TYPE), "edge expander");
    EXPECT_EQ(data("EXP0", EXP_DATA_SAS_ADDRESS), "0x500605b0000272bf");
    EXPECT_EQ(data("EXP0", EXP_DATA_LINK_STATUS), "UNSUPPORT");
}

TEST_F(ExpanderTest, WidePortWithMixedRatesFails) {
    model(0).phy(10).rate = "6.0 Gbit";
    EXPECT_EQ(data("EXP0-PORT8", EXP_DATA_SPEED),
              "ExpanderDDAPI::getDataByID: \"diff phy speed - EXP0-PORT8: 6.0 Gbit, 12.0 Gbit\"");
}

TEST_F(ExpanderTest, ErrorCountersOfPhysOnly) {
    model(0).injectLinkErrors(5, 3, 4, 5, 6);
    EXPECT_EQ(errors("EXP0-PHY5", EXP_ERROR_DISPARITY), "4");
    EXPECT_EQ(errors("EXP0-PHY5", EXP_ERROR_INVALID_DWORD), "3");
    EXPECT_EQ(errors("EXP0-PHY5", EXP_ERROR_LOSS_DWORD_SYNC), "5");
    EXPECT_EQ(errors("EXP0-PHY5", EXP_ERROR_PHY_RESET_PROBLEM), "6");
    EXPECT_EQ(errors("EXP0-PHY6", EXP_ERROR_INVALID_DWORD), "0");
    EXPECT_EQ(errors("EXP0-PORT16", EXP_ERROR_DISPARITY),
              "ExpanderDDAPI::getErrorDataByID: \"unsupport dev type - EXP0-PORT16\"");
    std::string out;
    EXPECT_EQ(render(exp->getErrorDataByID(9999, EXP_ERROR_DISPARITY, &out)),
              "ExpanderDDAPI::getErrorDataByID: \"unknown ID - ID 9999\"");
}

TEST_F(ExpanderTest, BadCableCountsClimb) {
    model(1).setClimbingErrors(21, 40, 17);
    const unsigned long first = std::stoul(errors("EXP1-PHY21", EXP_ERROR_INVALID_DWORD));
    const unsigned long second = std::stoul(errors("EXP1-PHY21", EXP_ERROR_INVALID_DWORD));
    EXPECT_GT(second, first);
    EXPECT_GE(std::stoul(errors("EXP1-PHY21", EXP_ERROR_DISPARITY)), 17u * 2);
}

TEST_F(ExpanderTest, ClearPhyErrorsThroughTheEnclosureScripts) {
    model(0).injectLinkErrors(2, 9, 9, 9, 9);
    model(1).injectLinkErrors(7, 1, 1, 1, 1);
    ASSERT_EQ(render(exp->clearPHYError()), "");
    EXPECT_EQ(board.sas->lastSes, (std::vector<std::string>{"exp_ses.sh", "0", "0x80", "w", "1", "1"}));
    EXPECT_EQ(errors("EXP0-PHY2", EXP_ERROR_INVALID_DWORD), "0");
    EXPECT_EQ(errors("EXP1-PHY7", EXP_ERROR_PHY_RESET_PROBLEM), "0");

    board.sas->enclosurePort = 2;
    ASSERT_EQ(render(exp->clearPHYError()), "");
    EXPECT_EQ(board.sas->lastSes[2], "0x81");

    board.sas->enclosurePort = 3;
    EXPECT_EQ(render(exp->clearPHYError()),
              "ExpanderDDAPI::clearPHYError: \"SMP cmd fail - EXP_Enclosure_Data.sh | grep \"^Port ID\" | awk "
              "'{printf $3 \"\\n\"}'\"");
    board.sas->enclosurePort = 1;
    board.addProgram("exp_ses.sh", [](const std::vector<std::string>&, std::string* out) {
        out->append("RESULT: FAILED\n");
        return 1;
    });
    EXPECT_EQ(render(exp->clearPHYError()), "ExpanderDDAPI::clearPHYError: \"SES cmd fail - exp_ses.sh 0 0x80 w 1 1\"");
}

TEST_F(ExpanderTest, ResetThroughSmpResetExpander) {
    model(1).injectLinkErrors(0, 5, 0, 0, 0);
    ASSERT_EQ(render(exp->reset(id("EXP1"))), "");
    EXPECT_EQ(board.sas->lastSmpReset,
              (std::vector<std::string>{"smp_reset_expander", "-vvvv", "-s", "0x500605b0000273bf", "-I", "mpt", "-a",
                                        "0xc3800200", "-d", "0x0c0b080a", "/dev/mpt3ctl"}));
    EXPECT_EQ(model(1).resets(), 1u);
    EXPECT_EQ(model(0).resets(), 0u);
    EXPECT_EQ(errors("EXP1-PHY0", EXP_ERROR_INVALID_DWORD), "0");
    // A PHY resets the expander it belongs to (its address is the expander's).
    ASSERT_EQ(render(exp->reset(id("EXP0-PHY3"))), "");
    EXPECT_EQ(model(0).resets(), 1u);
    // An end device is no expander: the SMP passthrough fails and its line is the detail.
    EXPECT_EQ(render(exp->reset(id("EXP0-PORT16"))),
              "ExpanderDDAPI::reset: \"SMP cmd fail -     mpt3ctl: SMP passthrough failed (IOCStatus) "
              "IOCStatus=0x0045 IOCLo\"");
}

TEST_F(ExpanderTest, ResetWithoutTheToolIsAPopenFailure) {
    board.removeDevice("/dev/mpt3ctl");
    EXPECT_EQ(render(exp->reset(id("EXP0"))),
              "ExpanderDDAPI::reset: \"SMP cmd fail - open /dev/mpt3ctl: No such file or directory (IOCStatus) "
              "unavailable\"");
}

TEST(ExpanderNone, BoardWithoutExpandersListsNone) {
    quarn::vboard::Board board;
    board.removeDevice("/dev/null-nothing");
    quarn::installPlatform(&board);
    ASSERT_EQ(quarn::platform().rename("/sys/class/sas_expander", "/sys/class/sas_expander.off"), 0);
    {
        ExpanderDAPI dapi("ExpanderDAPI");
        EXPECT_EQ(render(dapi.getErrorMsg()), "");
        testing::internal::CaptureStdout();
        EXPECT_EQ(render(dapi.listDevice(EXP_DEVICE_EXPANDER)), "");
        EXPECT_EQ(render(dapi.listDevice(EXP_DEVICE_PHY)), "");
        EXPECT_EQ(render(dapi.listDevice(EXP_DEVICE_PORT)), "");
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "NONE\nNONE\nNONE\n");
        unsigned int id = 0;
        EXPECT_EQ(render(dapi.getLogicalIDByName("EXP0", &id)),
                  "ExpanderDAPI::getLogicalIDByName -> ExpanderDDAPI::getLogicalIDByName: \"unknown name - EXP0\"");
    }
    quarn::installPlatform(nullptr);
}

TEST(ExpanderPrint, ShowDataAndErrorsPrintTheLabels) {
    quarn::vboard::Board board;
    quarn::installPlatform(&board);
    {
        ExpanderDAPI dapi("ExpanderDAPI");
        unsigned int id = 0;
        ASSERT_EQ(render(dapi.getLogicalIDByName("EXP0-PHY16", &id)), "");
        board.sas->expanders[0]->injectLinkErrors(16, 1, 2, 3, 4);
        testing::internal::CaptureStdout();
        EXPECT_EQ(render(dapi.showData(id, EXP_DATA_ALL)), "");
        EXPECT_EQ(render(dapi.showErrorData(id, EXP_ERROR_ALL)), "");
        EXPECT_EQ(lines(testing::internal::GetCapturedStdout()),
                  (std::vector<std::string>{"ATTACHED TYPE     : edge expander", "LINK STATUS       : UP",
                                            "SPEED             : 12.0 Gbit", "SAS ADDRESS       : 0x500605b0000272bf",
                                            "DISPARITY_ERR     : 2", "INVALID_DWORD_ERR : 1", "LOSS_DWORD_SYNC   : 3",
                                            "PHY_RESET_PRBM    : 4"}));
        ASSERT_EQ(render(dapi.getLogicalIDByName("EXP0-PORT16", &id)), "");
        EXPECT_EQ(render(dapi.showErrorData(id, EXP_ERROR_DISPARITY)),
                  "ExpanderDAPI::showErrorData -> ExpanderDDAPI::getErrorDataByID: \"unsupport dev type - "
                  "EXP0-PORT16\"");
    }
    quarn::installPlatform(nullptr);
}

}  // namespace
