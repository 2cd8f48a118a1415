// The board's PCI configuration spaces through sysfs config files and configuration
// mechanism #1, checked against the PCI Local Bus 3.0 register semantics.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cstring>
#include <string>

#include "api/platform/Platform.h"
#include "vboard/Board.h"

namespace {

using quarn::vboard::Board;

class PciConfigModelTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override {
        for (auto& [path, fd] : fds) board.close(fd);
        quarn::installPlatform(nullptr);
    }
    int config(const std::string& address) {
        auto it = fds.find(address);
        if (it != fds.end()) return it->second;
        const int fd = board.open("/sys/bus/pci/devices/" + address + "/config", O_RDWR);
        EXPECT_GE(fd, 0) << address;
        fds[address] = fd;
        return fd;
    }
    uint32_t read(const std::string& address, off_t offset, int width) {
        uint32_t v = 0;
        EXPECT_EQ(board.pread(config(address), &v, width, offset), width);
        return v;
    }
    void write(const std::string& address, off_t offset, uint32_t value, int width) {
        EXPECT_EQ(board.pwrite(config(address), &value, width, offset), width);
    }
    // Sizes a BAR as the kernel does: save, write all ones, read back, restore.
    uint32_t probe(const std::string& address, off_t offset) {
        const uint32_t saved = read(address, offset, 4);
        write(address, offset, 0xFFFFFFFFu, 4);
        const uint32_t sized = read(address, offset, 4);
        write(address, offset, saved, 4);
        EXPECT_EQ(read(address, offset, 4), saved);
        return sized;
    }
    static uint32_t cf8(unsigned bus, unsigned dev, unsigned fn, unsigned reg, bool enable = true) {
        return (enable ? 0x80000000u : 0) | bus << 16 | dev << 11 | fn << 8 | (reg & 0xFC);
    }

    Board board;
    std::map<std::string, int> fds;
};

TEST_F(PciConfigModelTest, IdentificationRegistersAreReadOnly) {
    const std::string ahci = "0000:00:1f.2";
    EXPECT_EQ(read(ahci, 0, 4), 0x8C028086u);
    EXPECT_EQ(read(ahci, 8, 4) >> 8, 0x010601u);  // SATA, AHCI 1.0
    write(ahci, 0, 0xFFFFFFFFu, 4);
    write(ahci, 8, 0, 4);
    write(ahci, 0x0E, 0x7F, 1);  // header type
    EXPECT_EQ(read(ahci, 0, 4), 0x8C028086u);
    EXPECT_EQ(read(ahci, 8, 4) >> 8, 0x010601u);
    EXPECT_EQ(read(ahci, 0x0E, 1), 0x00u);

    // Command: only the implemented enables are writable.
    write(ahci, 4, 0xFFFF, 2);
    EXPECT_EQ(read(ahci, 4, 2), 0x0547u);
    write(ahci, 4, 0x0006, 2);
    EXPECT_EQ(read(ahci, 4, 2), 0x0006u);

    // Interrupt line is scratch for software; interrupt pin is not.
    write(ahci, 0x3C, 0xA5, 1);
    write(ahci, 0x3D, 0x04, 1);
    EXPECT_EQ(read(ahci, 0x3C, 1), 0xA5u);
    EXPECT_EQ(read(ahci, 0x3D, 1), 0x00u);

    // A read-only descriptor cannot write.
    const int ro = board.open("/sys/bus/pci/devices/" + ahci + "/config", O_RDONLY);
    ASSERT_GE(ro, 0);
    uint16_t command = 0;
    EXPECT_EQ(board.pwrite(ro, &command, 2, 4), -1);
    EXPECT_EQ(errno, EBADF);
    board.close(ro);
    EXPECT_EQ(read(ahci, 4, 2), 0x0006u);

    // Reads are bounded by the 256-byte space of a PCI function.
    uint8_t tail[8];
    EXPECT_EQ(board.pread(config(ahci), tail, sizeof(tail), 252), 4);
    EXPECT_EQ(board.pread(config(ahci), tail, sizeof(tail), 256), 0);
}

TEST_F(PciConfigModelTest, StatusErrorBitsAreWriteOneToClear) {
    const std::string ahci = "0000:00:1f.2";
    auto f = board.pci->function(ahci);
    ASSERT_TRUE(f);
    EXPECT_EQ(read(ahci, 6, 2), 0x0010u);  // capability list
    f->raise(0x06, 0x2000 | 0x0100, 2);    // received master abort, master data parity error
    EXPECT_EQ(read(ahci, 6, 2), 0x2110u);
    write(ahci, 6, 0x0000, 2);  // zeros leave everything
    EXPECT_EQ(read(ahci, 6, 2), 0x2110u);
    write(ahci, 6, 0x2000, 2);
    EXPECT_EQ(read(ahci, 6, 2), 0x0110u);
    write(ahci, 6, 0xFFFF, 2);  // the capability bit is read-only, not cleared
    EXPECT_EQ(read(ahci, 6, 2), 0x0010u);

    // A bridge's secondary status is W1C too; its bus numbers are writable.
    const std::string root = "0000:00:01.0";
    board.pci->function(root)->raise(0x1E, 0x4000, 2);  // received system error
    write(root, 0x1E, 0x4000, 2);
    EXPECT_EQ(read(root, 0x1E, 2) & 0x4000, 0u);
    const uint32_t buses = read(root, 0x18, 4);
    EXPECT_EQ(buses & 0xFFFFFF, 0x070100u);
    write(root, 0x18, 0x00090900, 4);
    EXPECT_EQ(read(root, 0x18, 4) & 0xFFFFFF, 0x090900u);
    write(root, 0x18, buses, 4);
}

TEST_F(PciConfigModelTest, AllOnesProbeSizesEveryKindOfBar) {
    const std::string ahci = "0000:00:1f.2";
    EXPECT_EQ(read(ahci, 0x24, 4), 0xFBF02000u);
    EXPECT_EQ(probe(ahci, 0x24), 0xFFFFF800u);  // 32-bit memory, 2 KB, non-prefetchable
    EXPECT_EQ(~(probe(ahci, 0x24) & ~0xFu) + 1, 0x800u);

    EXPECT_EQ(read(ahci, 0x20, 4), 0xF061u);
    const uint32_t io = probe(ahci, 0x20);  // I/O, 32 ports
    EXPECT_EQ(io & 0x3, 0x1u);
    EXPECT_EQ(~(io & ~0x3u) + 1, 0x20u);

    // 64-bit prefetchable memory: the upper dword is all address bits.
    const std::string ntb = "0000:00:03.0";
    EXPECT_EQ(read(ntb, 0x10, 4), 0xFC00000Cu);
    EXPECT_EQ(read(ntb, 0x14, 4), 0u);
    EXPECT_EQ(probe(ntb, 0x10), 0xFFFF000Cu);
    EXPECT_EQ(probe(ntb, 0x14), 0xFFFFFFFFu);
    // Moving it above 4 GiB keeps both halves.
    write(ntb, 0x14, 0x00000002, 4);
    write(ntb, 0x10, 0x00010000, 4);
    EXPECT_EQ(read(ntb, 0x10, 4), 0x0001000Cu);
    EXPECT_EQ(read(ntb, 0x14, 4), 0x2u);

    // An unimplemented BAR reads back zero after the probe.
    EXPECT_EQ(probe(ahci, 0x10), 0u);
}

TEST_F(PciConfigModelTest, ConfigurationMechanismOneOnPortsCf8AndCfc) {
    ASSERT_EQ(board.ioperm(0xCF8, 8, 1), 0);
    board.outl(cf8(0, 0x1F, 2, 0), 0xCF8);
    EXPECT_EQ(board.inl(0xCF8), cf8(0, 0x1F, 2, 0));  // the address latch reads back
    EXPECT_EQ(board.inl(0xCFC), 0x8C028086u);
    // Byte and word accesses pick their lanes within the dword.
    EXPECT_EQ(board.inb(0xCFC), 0x86u);
    EXPECT_EQ(board.inb(0xCFD), 0x80u);
    EXPECT_EQ(board.inb(0xCFE), 0x02u);
    EXPECT_EQ(board.inw(0xCFE), 0x8C02u);
    board.outl(cf8(0, 0x1F, 2, 0x0B), 0xCF8);  // the low two bits of the register are ignored
    EXPECT_EQ(board.inb(0xCFF), 0x01u);      // base class at 0x0B
    EXPECT_EQ(board.inl(0xCFC) >> 8, 0x010601u);

    // Writes through the ports reach the same space as sysfs.
    board.outl(cf8(0, 0x1F, 2, 0x04), 0xCF8);
    board.outw(0x0002, 0xCFC);
    EXPECT_EQ(read("0000:00:1f.2", 4, 2), 0x0002u);
    board.outb(0x44, 0xCFC + 0);  // byte lane 0 of the command register only
    EXPECT_EQ(read("0000:00:1f.2", 4, 2), 0x0044u & 0x0547u);
    board.pci->function("0000:00:1f.2")->raise(0x06, 0x2000, 2);
    EXPECT_EQ(read("0000:00:1f.2", 6, 2), 0x2010u);
    board.outw(0x2000, 0xCFE);  // status half of the dword: W1C
    EXPECT_EQ(read("0000:00:1f.2", 6, 2), 0x0010u);

    // Without the enable bit the data port is not a configuration cycle.
    board.outl(cf8(0, 0x1F, 2, 0, false), 0xCF8);
    EXPECT_EQ(board.inl(0xCFC), 0xFFFFFFFFu);
    board.outw(0x0000, 0xCFC);
    EXPECT_EQ(read("0000:00:1f.2", 4, 2), 0x0044u & 0x0547u);

    // An absent function: master abort, all ones at every width.
    board.outl(cf8(0, 0x1F, 5, 0), 0xCF8);
    EXPECT_EQ(board.inl(0xCFC), 0xFFFFFFFFu);
    EXPECT_EQ(board.inw(0xCFE), 0xFFFFu);
    EXPECT_EQ(board.inb(0xCFD), 0xFFu);
    board.outl(cf8(0x20, 0, 0, 0), 0xCF8);
    EXPECT_EQ(board.inl(0xCFC), 0xFFFFFFFFu);

    // Behind the switch: the SAS3008 on bus 3.
    board.outl(cf8(3, 0, 0, 0), 0xCF8);
    EXPECT_EQ(board.inl(0xCFC), 0x00971000u);
    EXPECT_EQ(board.portViolations(), 0u);
}

TEST_F(PciConfigModelTest, TheHiddenThermalFunctionIsReachedOnlyThroughThePorts) {
    struct stat st;
    EXPECT_EQ(board.stat("/sys/bus/pci/devices/0000:00:1f.6", &st), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(board.open("/sys/bus/pci/devices/0000:00:1f.6/config", O_RDONLY), -1);

    ASSERT_EQ(board.ioperm(0xCF8, 8, 1), 0);
    board.outl(cf8(0, 0x1F, 6, 0), 0xCF8);
    EXPECT_EQ(board.inl(0xCFC), 0x8C248086u);
    board.outl(cf8(0, 0x1F, 6, 0x10), 0xCF8);
    EXPECT_EQ(board.inl(0xCFC), 0xFBA02004u);  // 64-bit memory BAR
    // It sizes through the ports like any other.
    board.outl(0xFFFFFFFFu, 0xCFC);
    EXPECT_EQ(board.inl(0xCFC), 0xFFFFF004u);
    board.outl(0xFBA02004u, 0xCFC);
    EXPECT_EQ(board.inl(0xCFC), 0xFBA02004u);

    // Without port permission a real process would die; the board counts the access.
    board.ioperm(0xCF8, 8, 0);
    EXPECT_EQ(board.inl(0xCFC), 0xFFFFFFFFu);
    EXPECT_GT(board.portViolations(), 0u);
}

}  // namespace
