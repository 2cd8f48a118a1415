// The USB layers against the virtual board's USB tree: discovery and naming, attributes,
// the READ(10)/WRITE(10) layout and the tests on the USB disk.
#include <gtest/gtest.h>

#include <fcntl.h>

#include <filesystem>
#include <list>
#include <string>

#include "api/platform/Platform.h"
#include "dapi/usb/USBDAPI.h"
#include "ddapi/usb/USBDDAPI.h"
#include "vboard/Board.h"
#include "tests/lib/Render.h"

namespace {

using quarn::test::render;

class UsbTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override { quarn::installPlatform(nullptr); }
    std::string data(USBDDAPI& usb, uint32_t id, USB_DATA_ELEMENT element) {
        std::list<std::string> out;
        if (ErrorMsg* e = usb.getDataByID(id, element, &out)) return render(e);
        return out.empty() ? "<none>" : out.front();
    }
    quarn::vboard::UsbDiskModel& disk() { return *board.usb.disk; }

    quarn::vboard::Board board;
};

TEST_F(UsbTest, DevicesAreNamedByKindInDiscoveryOrder) {
    USBDDAPI usb("USB_drv");
    EXPECT_EQ(render(usb.getErrorMsg()), "");
    std::list<std::string> names;
    ASSERT_EQ(render(usb.getUSBDevicesList(&names)), "");
    // Class 3 (usbhid) is scanned before class 8; the consumer-control interface 1-2:1.1
    // (protocol 0) is neither keyboard nor mouse.
    EXPECT_EQ(names, (std::list<std::string>{"KEYBOARD0", "MOUSE0", "USB0"}));
    uint32_t id = 99;
    ASSERT_EQ(render(usb.getLogicalIdByName("usb0", &id)), "");
    EXPECT_EQ(id, 2u);
    EXPECT_EQ(std::string(usb.entry(2)->interface), "1-1:1.0");
    EXPECT_EQ(std::string(usb.entry(2)->node), "sdf");
    EXPECT_EQ(render(usb.getLogicalIdByName("usb1", &id)),
              "USBDDAPI::getLogicalIdByName: \"USB Device Name Not Found - usb1\"");
}

TEST_F(UsbTest, AttributesOfTheDiskAndOfAKeyboard) {
    USBDDAPI usb("USB_drv");
    EXPECT_EQ(data(usb, 2, USB_DATA_DEVICE_NODE), "/dev/sdf");
    EXPECT_EQ(data(usb, 2, USB_DATA_SERIAL), "4C530001230817116082");
    EXPECT_EQ(data(usb, 2, USB_DATA_MANUFACTURER), "SanDisk");
    EXPECT_EQ(data(usb, 2, USB_DATA_SIZE), "15264.00");  // 31260672 sectors
    EXPECT_EQ(data(usb, 2, USB_DATA_VERSION), " 2.00");
    EXPECT_EQ(data(usb, 2, USB_DATA_SPEED), "480");
    EXPECT_EQ(data(usb, 2, USB_DATA_LOGICAL_BLOCK_SIZE), "512");
    EXPECT_EQ(data(usb, 2, USB_DATA_SG_NODE), "/dev/sg5");
    EXPECT_EQ(data(usb, 2, USB_DATA_NONE), "<none>");
    EXPECT_EQ(data(usb, 0, USB_DATA_DEVICE_NODE), "None");
    EXPECT_EQ(data(usb, 0, USB_DATA_SIZE), "None");
    EXPECT_EQ(data(usb, 0, USB_DATA_MANUFACTURER), "Dell");
    EXPECT_EQ(data(usb, 0, static_cast<USB_DATA_ELEMENT>(10)),
              "USBDDAPI::getDataByID: \"USB Data Element Not Found - element 10\"");
    EXPECT_EQ(render(usb.getUSBDeviceNode(7, nullptr)), "USBDDAPI::getUSBDeviceNode: \"USB Device Name Not Found - id 7\"");
}

TEST_F(UsbTest, NothingAttached) {
    std::filesystem::remove_all(board.hostPath("/sys/bus/usb/drivers"));
    USBDDAPI usb("USB_drv");
    std::list<std::string> names;
    ASSERT_EQ(render(usb.getUSBDevicesList(&names)), "");
    EXPECT_EQ(names, (std::list<std::string>{"Not Attach Any USB Storage Device"}));
}

TEST_F(UsbTest, ReadTenLayout) {
    USBDDAPI usb("USB_drv");
    const int fd = quarn::platform().open("/dev/sdf", O_RDWR);
    ASSERT_GE(fd, 0);
    std::vector<unsigned char> buffer(65536);
    // LBA 0x12345678 lies beyond the 16 GB stick: the CDB is sent as laid out, the disk refuses it.
    EXPECT_EQ(render(usb.PREAD(fd, buffer.data(), 0x12345678, 65536)),
              "USBDDAPI::PREAD: \"LBA 305419896\" -> USBDDAPI::SCSIRead: \"status 0x02 sense 5/21/00\" -> "
              "USBDriverFail to parse error code!!");
    const uint8_t expected[10] = {0x28, 0, 0x12, 0x34, 0x56, 0x78, 0, 0, 0x80, 0};
    EXPECT_EQ(0, memcmp(disk().lastCdb(), expected, 10));
    ASSERT_EQ(render(usb.PWRITE(fd, buffer.data(), 8, 1024)), "");
    EXPECT_EQ(disk().lastCdb()[0], 0x2A);
    EXPECT_EQ(disk().lastCdb()[5], 8);
    EXPECT_EQ(disk().lastCdb()[8], 2);
    unsigned char bad[16] = {0xA0};  // group 5 is not one the layer knows
    EXPECT_EQ(render(usb.SCSIRead(fd, bad, buffer.data(), 512)), "USBDDAPI::seekWrite: \"NULL pointer\"");
    quarn::platform().close(fd);
}

TEST_F(UsbTest, ReadWriteTestWritesTheRangeAndReportsSpeed) {
    USBDAPI usb("USBDAPI");
    std::list<std::string> out;
    ASSERT_EQ(render(usb.readwriteTest(2, &out, 2048, 1 << 20, 65536)), "");
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out.front().rfind("Spend time: ", 0), 0u);
    EXPECT_EQ(out.back().rfind("Speed: ", 0), 0u);
    EXPECT_EQ(disk().commandCount(), 32u);  // 16 writes and 16 reads of 64 KiB
    EXPECT_EQ(usb.getProgress(), 100u);
    out.clear();
    ASSERT_EQ(render(usb.readPerformanceTest(2, &out, 0, 4 << 20, 131072)), "");
    // 32 reads of 128 KiB, 250 us + 3.745 ms each, and a microsecond per clock reading.
    EXPECT_EQ(out.front(), "Spend time: 0.127838 s");
    EXPECT_EQ(out.back(), "Speed: 31.29 M/s");
}

TEST_F(UsbTest, RangeIsCheckedBeforeTheDeviceIsOpened) {
    USBDAPI usb("USBDAPI");
    std::list<std::string> out;
    const uint64_t beyond = 15264ull << 20;
    EXPECT_EQ(render(usb.writePerformanceTest(2, &out, 1, beyond, 65536)),
              "USBDAPI::writePerformanceTest -> USBDAPI::writePerformanceTestSetup: \"out of range - 16005464064 "
              "bytes at LBA 1, device 15264 MiB\"");
    EXPECT_EQ(disk().commandCount(), 0u);
    const std::string uneven = render(usb.readPerformanceTest(2, &out, 0, 1000, 512));
    EXPECT_NE(uneven.find("total 1000 is not a multiple of 512"), std::string::npos) << uneven;
}

TEST_F(UsbTest, MediaErrorEndsTheReadTest) {
    disk().addUnreadableBlock(300);
    USBDAPI usb("USBDAPI");
    std::list<std::string> out;
    EXPECT_EQ(render(usb.readPerformanceTest(2, &out, 0, 1 << 20, 65536)),
              "USBDAPI::readPerformanceTest -> USBDAPI::readPerformanceTestExecute -> USBDDAPI::PREAD: \"LBA 256\" -> "
              "USBDDAPI::SCSIRead: \"status 0x02 sense 3/11/00\" -> USBDriverFail to parse error code!!");
    EXPECT_TRUE(out.empty());
    EXPECT_EQ(usb.getProgress(), 12u);  // two of sixteen commands done
}

}  // namespace
