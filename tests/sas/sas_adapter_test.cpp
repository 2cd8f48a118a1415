// The SAS adapter layers against the virtual board's SAS3008 behind /dev/mpt3ctl: the
// request bytes as the adapter model decodes them, the replies, faults and the drive list.
#include <gtest/gtest.h>

#include <fcntl.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "api/platform/Platform.h"
#include "dapi/sas/SASDAPI.h"
#include "ddapi/sas/SASDDAPI.h"
#include "ddapi/scsi/SCSIFactory.h"
#include "tests/lib/Render.h"
#include "vboard/Board.h"

namespace {

using quarn::test::render;

class SasAdapterTest : public ::testing::Test {
protected:
    void SetUp() override {
        quarn::installPlatform(&board);
        sas = std::make_unique<SASDAPI>("SASDAPI");
    }
    void TearDown() override {
        sas.reset();
        quarn::installPlatform(nullptr);
    }
    quarn::vboard::Sas3008Model& ioc() { return *board.sas->adapter; }
    std::vector<uint8_t> request() { return ioc().lastRequestBytes(); }
    std::string speed(unsigned char phy, std::string initial = "") {
        std::string out = initial;
        ErrorMsg* e = sas->getLinkSpeedByPHY(0, phy, &out);
        return e ? render(e) : out;
    }
    std::string status(unsigned char phy) {
        std::string out;
        ErrorMsg* e = sas->getLinkStatusByPHY(0, phy, &out);
        return e ? render(e) : out;
    }
    std::string attached(unsigned char phy) {
        std::string out;
        ErrorMsg* e = sas->getAttachDeviceByPHY(0, phy, &out);
        return e ? render(e) : out;
    }
    ERROR_COUNT_INFO counts(unsigned char phy) {
        ERROR_COUNT_INFO c;
        EXPECT_EQ(render(sas->getErrorCountByPHY(0, phy, &c)), "");
        return c;
    }

    quarn::vboard::Board board;
    std::unique_ptr<SASDAPI> sas;
};

TEST_F(SasAdapterTest, OneAdapterIsSas1WithControllerNumberZero) {
    std::vector<SAS_CONTROLLER_INFO> list;
    ASSERT_EQ(render(sas->getInformationList(&list)), "");
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0].name, "SAS1");
    EXPECT_EQ(list[0].controller, 0);
    EXPECT_EQ(list[0].version, "mpt3sas-27.101.00.00");
    EXPECT_EQ(list[0].firmwareVersion, "15.0.0.0");
    EXPECT_EQ(list[0].secondVersion, "8.35.0.0");
    EXPECT_EQ(list[0].pciLocation, "0000:03:00.0");
    EXPECT_EQ(list[0].revision, "Rev 02");
    // The IOC information request carries nothing: 92 zero bytes.
    SAS_CONTROLLER_INFO info;
    ASSERT_EQ(render(sas->getInformationByController(0, &info)), "");
    EXPECT_EQ(info.name, "SAS1");
    unsigned char id = 0xEE;
    EXPECT_EQ(render(sas->getLogicalIDByName("SAS1", &id)), "");
    EXPECT_EQ(id, 0);
}

TEST_F(SasAdapterTest, NamesAreComparedExactly) {
    unsigned char id = 0;
    EXPECT_EQ(render(sas->getLogicalIDByName("sas1", &id)),
              "SASDAPI::getLogicalIDByName: \"Bad parameter 5 - sas1\"");
}

TEST_F(SasAdapterTest, ControllerNumberEqualToTheCountIsRefused) {
    SAS_CONTROLLER_INFO info;
    ErrorMsg* e = sas->getInformationByController(1, &info);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getErrorCode(), 0xC7041604u);
    EXPECT_EQ(render(e), "SASDAPI::getInformation: \"Bad parameter - Bad IOC logical ID\"");
    unsigned int t = 0;
    EXPECT_EQ(render(sas->getTemperatureByController(1, &t)),
              "SASDAPI::getTemperature: \"Bad parameter - Bad IOC logical ID\"");
    EXPECT_EQ(ioc().lastRequest(), SASIOCTL::kIOCInfoRequest);  // nothing sent after discovery
}

TEST_F(SasAdapterTest, TemperatureRequestLayout) {
    unsigned int t = 0;
    ASSERT_EQ(render(sas->getTemperatureByController(0, &t)), "");
    EXPECT_EQ(t, 52u);
    EXPECT_EQ(ioc().lastRequest(), 0xC0204C30ul);
    std::vector<uint8_t> want(32, 0);
    want[0] = 9;
    want[14] = 0xFF;
    EXPECT_EQ(request(), want);
    ioc().setTemperature(71);
    ASSERT_EQ(render(sas->getTemperatureByController(0, &t)), "");
    EXPECT_EQ(t, 71u);
}

TEST_F(SasAdapterTest, PhyRequestsCarryControllerAndPhy) {
    std::string s = status(5);
    std::vector<uint8_t> want(32, 0);
    want[0] = 0x20;
    want[13] = 5;
    EXPECT_EQ(request(), want);
    ASSERT_EQ(render(sas->clearPHYErrorCountByPHY(0, 6)), "");
    EXPECT_EQ(ioc().lastRequest(), 0xC0284C2Eul);
    std::vector<uint8_t> clear(40, 0);
    clear[0] = 17;
    clear[10] = 6;
    EXPECT_EQ(request(), clear);
    ASSERT_EQ(render(sas->clearPHYErrorCountByController(0)), "");
    clear[0] = 16;
    clear[10] = 0;
    EXPECT_EQ(request(), clear);
}

TEST_F(SasAdapterTest, LoopbackResetAndAddressLayouts) {
    ASSERT_EQ(render(sas->doLoopbackTest(0)), "");
    EXPECT_EQ(ioc().lastRequest(), 0xC01C4C32ul);
    std::vector<uint8_t> loop(28, 0);
    loop[0] = 2;
    loop[11] = 0xAA;
    loop[12] = 10;
    loop[18] = 1;
    EXPECT_EQ(request(), loop);
    EXPECT_EQ(ioc().loopbacks(), 1u);
    ioc().setLoopbackFault(true);
    EXPECT_EQ(render(sas->doLoopbackTest(0)),
              "SASDAPI::loopbackTest -> SASDDAPI::SAS execute IOCTL fail: \"Fail to access SAS ioctl - operation 3: "
              "Input/output error\"");

    ioc().injectLinkErrors(2, 4, 4, 1, 0);
    ASSERT_EQ(render(sas->resetIOC(0)), "");
    EXPECT_EQ(ioc().lastRequest(), 0xC00C4C18ul);
    EXPECT_EQ(request(), std::vector<uint8_t>(12, 0));
    EXPECT_EQ(ioc().hardResets(), 1u);
    EXPECT_EQ(counts(2).invalidDwordCount, 0u);

    unsigned long long address = 0;
    ASSERT_EQ(render(sas->getAddressByController(0, &address)), "");
    EXPECT_EQ(address, 0x500605B00A1B2C00ull);
    std::vector<uint8_t> sent(32, 0);
    sent[0] = 0x22;
    std::vector<uint8_t> got = request();
    std::memset(got.data() + 4, 0, 8);  // the reply
    EXPECT_EQ(got, sent);
}

TEST_F(SasAdapterTest, LinkTextsFromTheRateByte) {
    EXPECT_EQ(status(0), "UP");
    EXPECT_EQ(speed(0), "12G");
    EXPECT_EQ(status(5), "UNKNOWN");
    EXPECT_EQ(speed(5), "Link rate unknown");
    ioc().setPhy(6, 0x01, 0);
    EXPECT_EQ(status(6), "DOWN");
    EXPECT_EQ(speed(6), "PHY disabled");
    ioc().setPhy(6, 0x0A, 0);
    EXPECT_EQ(speed(6), "6G");
    ioc().setPhy(6, 0x02, 0);
    EXPECT_EQ(status(6), "UNKNOWN");
    EXPECT_EQ(speed(6), "Speed negotiation failed");
    ioc().setPhy(6, 0x05, 0);
    EXPECT_EQ(status(6), "UP");
    EXPECT_EQ(speed(6, "unchanged"), "unchanged");
}

TEST_F(SasAdapterTest, AttachedDeviceTexts) {
    EXPECT_EQ(attached(0), "Edge Expander");
    EXPECT_EQ(attached(4), "not present");
    ioc().setPhy(7, 0x0B, 0x00000480);  // SATA device with SSP target: the SATA text wins
    EXPECT_EQ(attached(7), "SATA Target");
    ioc().setPhy(7, 0x0B, 0x00000441);
    EXPECT_EQ(attached(7), "SAS Initiator and Target");
    ioc().setPhy(7, 0x0B, 0x00002403);
    EXPECT_EQ(attached(7), "ATAPI");
    ioc().setPhy(7, 0x0B, 0x00000003);
    EXPECT_EQ(attached(7), "FanOut Expander");
}

TEST_F(SasAdapterTest, CountersClearPerPhyLeavingOthers) {
    ioc().injectLinkErrors(1, 10, 20, 3, 1);
    ioc().injectLinkErrors(2, 7, 8, 9, 2);
    ERROR_COUNT_INFO c = counts(1);
    EXPECT_EQ(c.invalidDwordCount, 10u);
    EXPECT_EQ(c.runningDisparityErrorCount, 20u);
    EXPECT_EQ(c.lossOfDwordSyncCount, 3u);
    EXPECT_EQ(c.phyResetProblemCount, 1u);
    ERROR_COUNT_INFO total;
    ASSERT_EQ(render(sas->getErrorCountByController(0, &total)), "");
    EXPECT_EQ(total.invalidDwordCount, 17u);
    EXPECT_EQ(total.phyResetProblemCount, 3u);

    ASSERT_EQ(render(sas->clearPHYErrorCountByPHY(0, 1)), "");
    EXPECT_EQ(counts(1).invalidDwordCount, 0u);
    EXPECT_EQ(counts(2).invalidDwordCount, 7u);
    EXPECT_EQ(counts(2).lossOfDwordSyncCount, 9u);
    ASSERT_EQ(render(sas->clearPHYErrorCountByController(0)), "");
    EXPECT_EQ(counts(2).invalidDwordCount, 0u);
}

TEST_F(SasAdapterTest, BadCableShowsClimbingCounts) {
    ioc().setClimbingErrors(3, 25, 11);
    const ERROR_COUNT_INFO first = counts(3);
    const ERROR_COUNT_INFO second = counts(3);
    EXPECT_GT(second.invalidDwordCount, first.invalidDwordCount);
    EXPECT_GT(second.runningDisparityErrorCount, first.runningDisparityErrorCount);
    EXPECT_EQ(second.lossOfDwordSyncCount, 0u);
    EXPECT_EQ(counts(2).invalidDwordCount, 0u);
}

TEST_F(SasAdapterTest, PhyOutOfRangeIsRefusedByTheAdapter) {
    std::string out;
    EXPECT_EQ(render(sas->getLinkStatusByPHY(0, 8, &out)),
              "SASDAPI::getLinkStatu -> SASDDAPI::SAS execute IOCTL fail: \"Fail to access SAS ioctl - operation 11: "
              "Invalid argument\"");
}

TEST_F(SasAdapterTest, IocThatDoesNotAnswer) {
    ASSERT_NE(sas->device(), nullptr);  // the controller list was read while it answered
    ioc().setResponding(false);
    unsigned int t = 0;
    EXPECT_EQ(render(sas->getTemperatureByController(0, &t)),
              "SASDAPI::getTemperature -> SASDDAPI::SAS execute IOCTL fail: \"Fail to access SAS ioctl - operation 7: "
              "Connection timed out\"");
    EXPECT_EQ(render(sas->resetIOC(0)),
              "SASDAPI::resetIOC -> SASDDAPI::SAS execute IOCTL fail: \"Fail to access SAS ioctl - operation 5: "
              "Connection timed out\"");
}

TEST_F(SasAdapterTest, DeviceLayerRefusesPhyForControllerRequestsAndOpZero) {
    SASDDAPI dev("SASDDAPI");
    ASSERT_EQ(render(dev.getErrorMsg()), "");
    ASSERT_EQ(render(dev.setControllerID(0)), "");
    ASSERT_EQ(render(dev.setPHYNumber(2)), "");
    unsigned int t = 0;
    ErrorMsg* e = dev.doIOCTLCommand(SASIOCTL::SAS_IOCTL_TEMPERATURE, &t);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getErrorCode(), 0xC7080806u);
    EXPECT_EQ(render(e), "SASDDAPI::SAS execute IOCTL fail: \"Can not specific PHY number - PHY 2 set\"");
    e = dev.doIOCTLCommand(SASIOCTL::SAS_IOCTL_NONE, nullptr);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getErrorCode(), 0xC7080A23u);
    render(e);
    e = dev.doIOCTLCommand(SASIOCTL::SAS_IOCTL_RESERVED_9, &t);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->getErrorCode(), 0xC7080A20u);
    render(e);
    EXPECT_EQ(render(dev.setControllerID(1)), "SASDDAPI::SAS execute IOCTL fail: \"Bad parameter - Bad IOC logical ID\"");
    // The reply decoders: op 13's address and op 8's IOC information through the device layer.
    ASSERT_EQ(render(dev.setPHYNumber(0xFF)), "");
    unsigned long long address = 0;
    ASSERT_EQ(render(dev.doIOCTLCommand(SASIOCTL::SAS_IOCTL_SAS_ADDRESS, &address)), "");
    EXPECT_EQ(address, 0x500605B00A1B2C00ull);
}

TEST(SasAdapterNoNode, MissingControlNodeIsACleanChain) {
    quarn::vboard::Board board;
    board.removeDevice("/dev/mpt3ctl");
    quarn::installPlatform(&board);
    {
        SASDAPI sas("SASDAPI");
        std::vector<SAS_CONTROLLER_INFO> list;
        EXPECT_EQ(render(sas.getInformationList(&list)),
                  "SASDAPI::getInformation -> SASDDAPI::Cannot get SAS list -> SASDDAPI::Get SAS IOC information fail: "
                  "\"SAS1 at 0000:03:00.0\" -> SASDDAPI::SAS execute IOCTL fail: \"Can not open SAS device - "
                  "/dev/mpt3ctl: No such file or directory\"");
        unsigned int t = 0;
        ErrorMsg* e = sas.getTemperatureByController(0, &t);
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(e->getErrorCode(), 0xC7041800u);
        render(e);
    }
    quarn::installPlatform(nullptr);
}

}  // namespace
