// The AHCI controller's ABAR registers through /dev/mem and the SATA disks' ATA PASS-THROUGH(16),
// checked against the AHCI 1.3.1, ATA8-ACS and SAT-3 layouts.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/mman.h>

#include <string>
#include <vector>

#include "api/platform/Platform.h"
#include "vboard/Board.h"

namespace {

using quarn::vboard::AhciControllerModel;
using quarn::vboard::Board;

constexpr uint64_t kAbar = 0xFBF02000;
constexpr uint32_t kPort = AhciControllerModel::kPortBase, kStride = AhciControllerModel::kPortStride;
constexpr uint32_t kPxSig = 0x24, kPxSsts = 0x28, kPxSerr = 0x30, kPxCmd = 0x18, kPxClb = 0x00;

class SataAhciModelTest : public ::testing::Test {
protected:
    void SetUp() override {
        quarn::installPlatform(&board);
        memFd = board.open("/dev/mem", O_RDWR);
        ASSERT_GE(memFd, 0);
        void* map = board.mmap(0x1000, PROT_READ | PROT_WRITE, MAP_SHARED, memFd, static_cast<off_t>(kAbar));
        ASSERT_NE(map, MAP_FAILED);
        regs = static_cast<volatile uint32_t*>(map);
    }
    void TearDown() override {
        if (regs) board.munmap(const_cast<uint32_t*>(regs), 0x1000);
        board.close(memFd);
        quarn::installPlatform(nullptr);
    }
    uint32_t reg(uint32_t offset) const { return regs[offset / 4]; }
    void setReg(uint32_t offset, uint32_t value) { regs[offset / 4] = value; }
    static uint32_t port(unsigned n, uint32_t offset) { return kPort + n * kStride + offset; }

    // ATA PASS-THROUGH(16) on /dev/sgN; returns the sg header, data and sense.
    struct Ata {
        int rc;
        sg_io_hdr_t io;
        std::vector<uint8_t> data, sense;
    };
    Ata ata(const std::string& node, uint8_t protocol, uint8_t flags, uint8_t feature, uint8_t count, uint8_t lbaMid,
            uint8_t lbaHigh, uint8_t command, unsigned length) {
        const int fd = board.open(node, O_RDONLY);
        EXPECT_GE(fd, 0);
        uint8_t cdb[16] = {0x85, static_cast<uint8_t>(protocol << 1), flags, 0, feature, 0, count, 0, 0, 0,
                           lbaMid, 0, lbaHigh, 0, command, 0};
        Ata a{};
        a.data.assign(length, 0xCC);
        a.sense.assign(64, 0);
        a.io.interface_id = 'S';
        a.io.cmd_len = 16;
        a.io.cmdp = cdb;
        a.io.dxfer_direction = length ? SG_DXFER_FROM_DEV : SG_DXFER_NONE;
        a.io.dxfer_len = length;
        a.io.dxferp = length ? a.data.data() : nullptr;
        a.io.sbp = a.sense.data();
        a.io.mx_sb_len = 64;
        a.rc = board.ioctl(fd, SG_IO, &a.io);
        a.sense.resize(a.io.sb_len_wr);
        board.close(fd);
        return a;
    }
    // 512-byte data-in: PIO data-in, T_DIR, BYT_BLOK, T_LENGTH in the count field.
    Ata dataIn512(const std::string& node, uint8_t feature, uint8_t lbaMid, uint8_t lbaHigh, uint8_t command) {
        return ata(node, 4, 0x0E, feature, 1, lbaMid, lbaHigh, command, 512);
    }
    static uint8_t sum(const std::vector<uint8_t>& d) {
        uint8_t s = 0;
        for (uint8_t b : d) s = static_cast<uint8_t>(s + b);
        return s;
    }
    static std::string ataString(const std::vector<uint8_t>& d, unsigned word, unsigned words) {
        std::string s;
        for (unsigned i = 0; i < words; ++i) {
            s += static_cast<char>(d[2 * (word + i) + 1]);
            s += static_cast<char>(d[2 * (word + i)]);
        }
        return s;
    }

    Board board;
    int memFd = -1;
    volatile uint32_t* regs = nullptr;
};

TEST_F(SataAhciModelTest, GenericHostControlRegistersDescribeASixPortGen3Hba) {
    const uint32_t cap = reg(0x00);
    EXPECT_EQ(cap & 0x1F, 5u);                 // NP: six ports, zero-based
    EXPECT_EQ((cap >> 8) & 0x1F, 31u);         // NCS: 32 command slots
    EXPECT_EQ((cap >> 20) & 0xF, 3u);          // ISS: Gen3
    EXPECT_TRUE(cap & (1u << 18));             // SAM: AHCI only
    EXPECT_TRUE(cap & (1u << 31));             // S64A
    EXPECT_TRUE(reg(0x04) & 0x80000000u);      // GHC.AE
    EXPECT_EQ(reg(0x0C), 0x3Fu);               // PI
    EXPECT_EQ(reg(0x10), 0x00010301u);         // VS: 1.3.1

    // CAP, PI and VS are read-only.
    setReg(0x00, 0);
    setReg(0x0C, 0x1);
    setReg(0x10, 0xFFFFFFFF);
    EXPECT_EQ(reg(0x00), cap);
    EXPECT_EQ(reg(0x0C), 0x3Fu);
    EXPECT_EQ(reg(0x10), 0x00010301u);
    // GHC.AE cannot be cleared while CAP.SAM is set; IE is writable.
    setReg(0x04, 0x2);
    EXPECT_EQ(reg(0x04), 0x80000002u);
    setReg(0x04, 0);
    EXPECT_EQ(reg(0x04), 0x80000000u);

    // Byte access within a register sees the same bytes as the dword.
    const volatile uint8_t* bytes = reinterpret_cast<const volatile uint8_t*>(regs);
    EXPECT_EQ(bytes[0x11], 0x03);
    EXPECT_EQ(bytes[0x12], 0x01);
    // Past the 2 KB BAR the page reads as zero.
    EXPECT_EQ(reg(0x800), 0u);
}

TEST_F(SataAhciModelTest, PortRegistersReportTheLinkOfAttachedDrives) {
    // Drives on ports 0 and 2: DET 3, Gen3, IPM active, the ATA signature.
    for (unsigned n : {0u, 2u}) {
        const uint32_t ssts = reg(port(n, kPxSsts));
        EXPECT_EQ(ssts & 0xF, 3u) << n;
        EXPECT_EQ((ssts >> 4) & 0xF, 3u) << n;
        EXPECT_EQ((ssts >> 8) & 0xF, 1u) << n;
        EXPECT_EQ(reg(port(n, kPxSig)), 0x00000101u) << n;
    }
    EXPECT_EQ(reg(port(1, kPxSsts)), 0u);
    EXPECT_EQ(reg(port(1, kPxSig)), 0xFFFFFFFFu);

    // SSTS and SIG are read-only.
    setReg(port(0, kPxSsts), 0);
    setReg(port(0, kPxSig), 0);
    EXPECT_EQ(reg(port(0, kPxSsts)), 0x133u);
    EXPECT_EQ(reg(port(0, kPxSig)), 0x101u);

    // PxCLB keeps its 1 KB alignment; PxCMD.ST and FRE are mirrored by CR and FR.
    setReg(port(0, kPxClb), 0x12345FFF);
    EXPECT_EQ(reg(port(0, kPxClb)), 0x12345C00u);
    setReg(port(0, kPxCmd), 0x11);
    EXPECT_EQ(reg(port(0, kPxCmd)) & 0xC011, 0xC011u);
    setReg(port(0, kPxCmd), 0);
    EXPECT_EQ(reg(port(0, kPxCmd)) & 0xC011, 0u);

    // COMRESET through PxSCTL.DET: the link drops, and returns when DET goes back to 0.
    setReg(port(0, 0x2C), 0x1);
    EXPECT_EQ(reg(port(0, kPxSsts)) & 0xF, 0u);
    setReg(port(0, 0x2C), 0x0);
    EXPECT_EQ(reg(port(0, kPxSsts)) & 0xF, 3u);
}

TEST_F(SataAhciModelTest, SErrorBitsAreWriteOneToClear) {
    board.ahci->raiseSError(2, 0x00010001u | 0x00400000u);  // DIAG.N, ERR.I, DIAG.H
    board.ahci->raiseSError(2, 0x80000000u);                // not defined: dropped
    EXPECT_EQ(reg(port(2, kPxSerr)), 0x00410001u);
    setReg(port(2, kPxSerr), 0);  // writing zeros clears nothing
    EXPECT_EQ(reg(port(2, kPxSerr)), 0x00410001u);
    setReg(port(2, kPxSerr), 0x00000001u);
    EXPECT_EQ(reg(port(2, kPxSerr)), 0x00410000u);
    setReg(port(2, kPxSerr), 0xFFFFFFFFu);
    EXPECT_EQ(reg(port(2, kPxSerr)), 0u);
    EXPECT_EQ(board.ahci->sError(2), 0u);
}

TEST_F(SataAhciModelTest, IdentifyDeviceCarriesTheIntegrityWord) {
    Ata a = dataIn512("/dev/sg1", 0, 0, 0, 0xEC);
    ASSERT_EQ(a.rc, 0);
    EXPECT_EQ(a.io.status, 0);
    EXPECT_EQ(a.io.resid, 0);
    EXPECT_EQ(a.data[510], 0xA5);  // signature
    EXPECT_EQ(sum(a.data), 0);     // checksum: all 512 bytes sum to zero
    EXPECT_EQ(ataString(a.data, 27, 20), "WDC WD10EFRX-68FYTN0                    ");
    EXPECT_EQ(ataString(a.data, 10, 10).substr(0, 15), "WD-WCC4J5HX2KPD");
    EXPECT_EQ(ataString(a.data, 23, 4), "82.00A82");
    uint64_t lba48 = 0;
    for (int w = 3; w >= 0; --w) lba48 = lba48 << 16 | (a.data[200 + 2 * w] | a.data[201 + 2 * w] << 8);
    EXPECT_EQ(lba48, 1953525168ull);
    EXPECT_TRUE(a.data[83 * 2 + 1] & 0x04);  // word 83 bit 10: 48-bit addresses
    EXPECT_TRUE(a.data[82 * 2] & 0x01);      // word 82 bit 0: SMART supported

    // The second disk answers with its own identity, still checksummed.
    Ata b = dataIn512("/dev/sg2", 0, 0, 0, 0xEC);
    ASSERT_EQ(b.rc, 0);
    EXPECT_EQ(sum(b.data), 0);
    EXPECT_EQ(ataString(b.data, 27, 20).substr(0, 19), "ST2000NM0055-1V4104");

    // The transfer fields must agree with the sg request: no data buffer is an invalid field.
    Ata bad = ata("/dev/sg1", 4, 0x0E, 0, 1, 0, 0, 0xEC, 0);
    ASSERT_EQ(bad.rc, 0);
    EXPECT_EQ(bad.io.status, 0x02);
    ASSERT_GE(bad.sense.size(), 4u);
    EXPECT_EQ(bad.sense[1], 0x05);
    EXPECT_EQ(bad.sense[2], 0x24);
}

TEST_F(SataAhciModelTest, SmartReadDataAndThresholdsAreChecksummed) {
    board.sataDisk0->setDriveTemperature(41);
    Ata a = dataIn512("/dev/sg1", 0xD0, 0x4F, 0xC2, 0xB0);
    ASSERT_EQ(a.rc, 0);
    EXPECT_EQ(a.io.status, 0);
    EXPECT_EQ(sum(a.data), 0);
    EXPECT_EQ(a.data[0] | a.data[1] << 8, 0x0010);  // data structure revision
    bool found = false;
    for (int i = 0; i < 30; ++i) {
        const uint8_t* p = &a.data[2 + 12 * i];
        if (p[0] != 194) continue;
        found = true;
        EXPECT_EQ(p[5], 41);         // raw: degrees Celsius
        EXPECT_EQ(p[3], 150 - 41);  // normalised value
    }
    EXPECT_TRUE(found);

    Ata t = dataIn512("/dev/sg1", 0xD1, 0x4F, 0xC2, 0xB0);
    ASSERT_EQ(t.rc, 0);
    EXPECT_EQ(sum(t.data), 0);
    EXPECT_EQ(t.data[2], 1);   // attribute 1 first
    EXPECT_EQ(t.data[3], 51);  // its threshold

    // SMART without the 4Fh/C2h key is aborted by the drive.
    Ata keyless = dataIn512("/dev/sg1", 0xD0, 0, 0, 0xB0);
    ASSERT_EQ(keyless.rc, 0);
    EXPECT_EQ(keyless.io.status, 0x02);
    ASSERT_EQ(keyless.sense.size(), 8u + 14u);
    EXPECT_EQ(keyless.sense[1], 0x0B);   // ABORTED COMMAND
    EXPECT_EQ(keyless.sense[8], 0x09);   // ATA Status Return descriptor
    EXPECT_EQ(keyless.sense[11], 0x04);  // error: ABRT
    EXPECT_EQ(keyless.sense[21], 0x51);  // status: DRDY DSC ERR
}

TEST_F(SataAhciModelTest, ReturnStatusReportsAThresholdExceededInTheLbaRegisters) {
    // Non-data, CK_COND: the registers come back in the ATA Status Return descriptor.
    auto returnStatus = [&]() { return ata("/dev/sg1", 3, 0x20, 0xDA, 0, 0x4F, 0xC2, 0xB0, 0); };
    Ata ok = returnStatus();
    ASSERT_EQ(ok.rc, 0);
    ASSERT_EQ(ok.sense.size(), 8u + 14u);
    EXPECT_EQ(ok.sense[0], 0x72);
    EXPECT_EQ(ok.sense[1], 0x01);  // RECOVERED ERROR
    EXPECT_EQ(ok.sense[2], 0x00);  // ATA PASS THROUGH INFORMATION AVAILABLE
    EXPECT_EQ(ok.sense[3], 0x1D);
    EXPECT_EQ(ok.sense[8], 0x09);
    EXPECT_EQ(ok.sense[9], 0x0C);
    EXPECT_EQ(ok.sense[17], 0x4F);  // LBA mid
    EXPECT_EQ(ok.sense[19], 0xC2);  // LBA high
    EXPECT_EQ(ok.sense[21], 0x50);  // DRDY DSC

    // An advisory attribute at its threshold does not count; a pre-failure one does.
    board.sataDisk0->setAttribute(194, 1, 1, 60);  // threshold 0: never exceeded
    Ata still = returnStatus();
    EXPECT_EQ(still.sense[17], 0x4F);
    board.sataDisk0->setAttribute(5, 140, 140, 2000);  // reallocated sectors at threshold 140
    Ata failing = returnStatus();
    ASSERT_EQ(failing.sense.size(), 8u + 14u);
    EXPECT_EQ(failing.sense[17], 0xF4);
    EXPECT_EQ(failing.sense[19], 0x2C);
    // The other disk is unaffected.
    Ata other = ata("/dev/sg2", 3, 0x20, 0xDA, 0, 0x4F, 0xC2, 0xB0, 0);
    EXPECT_EQ(other.sense[17], 0x4F);

    // With SMART disabled only SMART ENABLE OPERATIONS is accepted.
    Ata off = ata("/dev/sg1", 3, 0x20, 0xD9, 0, 0x4F, 0xC2, 0xB0, 0);
    EXPECT_EQ(off.sense[1], 0x01);
    Ata refused = returnStatus();
    EXPECT_EQ(refused.sense[1], 0x0B);
    Ata on = ata("/dev/sg1", 3, 0x20, 0xD8, 0, 0x4F, 0xC2, 0xB0, 0);
    EXPECT_EQ(on.sense[1], 0x01);
    EXPECT_EQ(returnStatus().sense[17], 0xF4);
    EXPECT_EQ(board.sataDisk0->ataCommandCount(0xB0), 7u);
}

}  // namespace
