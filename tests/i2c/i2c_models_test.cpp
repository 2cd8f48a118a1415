// The simulated I2C hardware as the kernel's i2c-dev interface presents it, and the
// IOCTL device-node class.
#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <cerrno>
#include <cstring>

#include "ddapi/i2c/I2CBus.h"
#include "ddapi/i2c/IOCTL.h"
#include "tests/i2c/I2cTestSupport.h"

namespace {

class I2cModelTest : public i2ctest::BoardTest {
protected:
    int openBus(int n) { return quarn::platform().open("/dev/i2c-" + std::to_string(n), O_RDWR); }
    I2CBus bus{"I2C_BUS", "smbus0", 0, 100, "ctl0"};
};

TEST_F(I2cModelTest, SlaveAddressFunctionalityAndClaimedAddresses) {
    quarn::Platform& p = quarn::platform();
    const int fd = openBus(0);
    ASSERT_GE(fd, 0);
    unsigned long funcs = 0;
    EXPECT_EQ(p.ioctl(fd, I2C_FUNCS, &funcs), 0);
    EXPECT_TRUE(funcs & I2C_FUNC_I2C);
    EXPECT_TRUE(funcs & I2C_FUNC_SMBUS_READ_BLOCK_DATA);
    EXPECT_EQ(quarn::ioctlValue(p, fd, I2C_SLAVE, 0x80), -1);
    EXPECT_EQ(errno, EINVAL);
    i2c().adapter[0]->claimAddress(0x4C);
    EXPECT_EQ(quarn::ioctlValue(p, fd, I2C_SLAVE, 0x4C), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(quarn::ioctlValue(p, fd, I2C_SLAVE_FORCE, 0x4C), 0);
    EXPECT_EQ(bus.I2C_smbus_read_byte_data(fd, 0xFE), 0x4D);
    p.close(fd);
}

TEST_F(I2cModelTest, SmbusRequestsAreCheckedAsI2cDevChecksThem) {
    quarn::Platform& p = quarn::platform();
    const int fd = openBus(0);
    ASSERT_EQ(bus.I2C_set_slave_address(fd, 0x98), 0);
    union i2c_smbus_data data;
    memset(&data, 0, sizeof(data));
    struct i2c_smbus_ioctl_data args = {I2C_SMBUS_READ, 0, 99, &data};
    EXPECT_EQ(p.ioctl(fd, I2C_SMBUS, &args), -1);
    EXPECT_EQ(errno, EINVAL);
    args = {I2C_SMBUS_READ, 0, I2C_SMBUS_BYTE_DATA, nullptr};
    EXPECT_EQ(p.ioctl(fd, I2C_SMBUS, &args), -1);
    EXPECT_EQ(errno, EINVAL);
    data.block[0] = 33;
    args = {I2C_SMBUS_WRITE, 0x20, I2C_SMBUS_BLOCK_DATA, &data};
    EXPECT_EQ(p.ioctl(fd, I2C_SMBUS, &args), -1);
    EXPECT_EQ(errno, EINVAL);
    // Quick command: only the address phase.
    args = {I2C_SMBUS_WRITE, 0, I2C_SMBUS_QUICK, nullptr};
    EXPECT_EQ(p.ioctl(fd, I2C_SMBUS, &args), 0);
    ASSERT_EQ(bus.I2C_set_slave_address(fd, 0x96), 0);
    EXPECT_EQ(p.ioctl(fd, I2C_SMBUS, &args), -1);
    EXPECT_EQ(errno, ENXIO);
    p.close(fd);
}

TEST_F(I2cModelTest, SwitchConnectsOnlySelectedChannelsAndCascades) {
    const int fd = openBus(0);
    ASSERT_EQ(bus.I2C_set_slave_address(fd, 0xb0), 0);
    EXPECT_EQ(bus.I2C_smbus_read_byte_data(fd, 0x98), -1) << "supplies are behind closed channels";
    EXPECT_EQ(errno, ENXIO);
    ASSERT_EQ(bus.I2C_set_slave_address(fd, 0xe0), 0);
    ASSERT_EQ(bus.I2C_smbus_write_byte(fd, 0x02), 0);
    EXPECT_EQ(bus.I2C_smbus_read_byte(fd), 0x02);
    ASSERT_EQ(bus.I2C_set_slave_address(fd, 0xb0), 0);
    unsigned char block[34] = {0};
    EXPECT_EQ(bus.I2c_smbus_read_i2c_block_data(fd, 0x9e, block), 32);
    // MFR_SERIAL: a 3-byte field header, then the zero-padded text.
    EXPECT_EQ(std::string(reinterpret_cast<char*>(block) + 4, 10), "DPS1A2B3C5");
    // mux1 answers only while mux0 channel 3 is connected.
    ASSERT_EQ(bus.I2C_set_slave_address(fd, 0xe4), 0);
    EXPECT_EQ(bus.I2C_smbus_write_byte(fd, 0x01), -1);
    ASSERT_EQ(bus.I2C_set_slave_address(fd, 0xe0), 0);
    ASSERT_EQ(bus.I2C_smbus_write_byte(fd, 0x08), 0);
    ASSERT_EQ(bus.I2C_set_slave_address(fd, 0xe4), 0);
    EXPECT_EQ(bus.I2C_smbus_write_byte(fd, 0x02), 0);
    ASSERT_EQ(bus.I2C_set_slave_address(fd, 0x9c), 0);
    EXPECT_EQ(bus.I2C_smbus_read_byte_data(fd, 0x01), 39);
    quarn::platform().close(fd);
}

TEST_F(I2cModelTest, VpdEepromPageWriteWrapsInsideItsPage) {
    const int fd = openBus(2);
    unsigned char piece[2 + 8] = {0x00, 0x1C, 1, 2, 3, 4, 5, 6, 7, 8};
    ASSERT_EQ(bus.I2C_access(fd, 0, 0xa8, sizeof(piece), piece), 1);
    const auto& mem = i2c().vpd->bytes();
    EXPECT_EQ(mem[0x1C], 1);
    EXPECT_EQ(mem[0x1F], 4);
    EXPECT_EQ(mem[0x00], 5) << "the fifth byte wraps to the page start";
    EXPECT_EQ(mem[0x20], 0xFF);
    quarn::platform().close(fd);
}

TEST_F(I2cModelTest, VpdEepromIgnoresItsAddressDuringTheWriteCycle) {
    i2c().vpd->setWriteCycle(&board.clock(), 5000000);
    const int fd = openBus(2);
    unsigned char piece[3] = {0x00, 0x10, 0x42};
    ASSERT_EQ(bus.I2C_access(fd, 0, 0xa8, 3, piece), 1);
    EXPECT_EQ(bus.I2C_access(fd, 0, 0xa8, 3, piece), -1);
    EXPECT_EQ(errno, ENXIO);
    board.clock().advanceNs(5000000);
    EXPECT_EQ(bus.I2C_access(fd, 0, 0xa8, 3, piece), 1);
    quarn::platform().close(fd);
}

TEST_F(I2cModelTest, Ddr3SpdImageHasValidCrcAndWriteProtectRefusesData) {
    auto image = quarn::vboard::makeDdr3RdimmSpd(7);
    ASSERT_EQ(image.size(), 256u);
    EXPECT_EQ(image[2], 0x0B);
    EXPECT_EQ(image[126] | (image[127] << 8), quarn::vboard::spdCrc16(image.data(), 117));
    auto spd = std::make_shared<quarn::vboard::RegisterFileModel>(256, 16);
    spd->load(image);
    spd->setWriteProtected(true);
    i2c().adapter[2]->segment().attach(0x52, spd);
    const int fd = openBus(2);
    ASSERT_EQ(bus.I2C_set_slave_address(fd, 0xa4), 0);
    EXPECT_EQ(bus.I2C_smbus_read_byte_data(fd, 2), 0x0B);
    EXPECT_EQ(bus.I2C_smbus_write_byte_data(fd, 2, 0x0C), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(spd->bytes()[2], 0x0B);
    quarn::platform().close(fd);
}

TEST_F(I2cModelTest, RdwrLimitsOfTheKernel) {
    const int fd = openBus(2);
    std::vector<unsigned char> big(8193);
    struct i2c_msg msg = {0x54, I2C_M_RD, 8193, big.data()};
    struct i2c_rdwr_ioctl_data args = {&msg, 1};
    EXPECT_EQ(quarn::platform().ioctl(fd, I2C_RDWR, &args), -1);
    EXPECT_EQ(errno, EINVAL);
    args.nmsgs = 43;
    EXPECT_EQ(quarn::platform().ioctl(fd, I2C_RDWR, &args), -1);
    EXPECT_EQ(errno, EINVAL);
    quarn::platform().close(fd);
}

TEST_F(I2cModelTest, IoctlNodeClass) {
    {
        IOCTL node("/dev/i2c-1");
        int fd = -1;
        EXPECT_EQ(node.getFileHandle(&fd), 0u);
        EXPECT_GT(fd, 0);
        EXPECT_EQ(node.allocateIOCTLArgument(1), 0xC000021Bu);
        EXPECT_EQ(node.setIOCTLOperationArgument(1, nullptr), 0xC000021Bu);
        EXPECT_EQ(node.executeIOCTL(1), 0xC000021Bu);
        EXPECT_EQ(node.executeIOCTL(1, nullptr), 0xC000021Bu);
        EXPECT_EQ(node.getControllerID(), 0xFF);
        EXPECT_EQ(node.getPHYNumber(), 0xFF);
        EXPECT_EQ(node.closeFileHandle(), 0u);
        EXPECT_EQ(node.getFileHandle(&fd), 0u);
        EXPECT_EQ(fd, 0);
        EXPECT_EQ(node.getFileHandle("/dev/i2c-2", &fd), 0u);
        EXPECT_GT(fd, 0);
    }
    IOCTL missing("/dev/absent");
    int fd = -1;
    missing.getFileHandle(&fd);
    EXPECT_EQ(fd, 0);
    EXPECT_EQ(missing.setFileHandle("/dev/absent"), 0xC000021Cu);
    board.device("/dev/i2c-0")->faults().openErrno = EACCES;
    EXPECT_EQ(missing.getFileHandle("/dev/i2c-0", &fd), 0xC000021Cu);
}

}  // namespace
