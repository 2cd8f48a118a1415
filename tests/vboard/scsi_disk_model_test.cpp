// The SAS disk model on /dev/sg0, driven over SG_IO as sg3_utils and the sd driver drive a disk.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <scsi/sg.h>

#include <cstring>
#include <string>
#include <vector>

#include "api/platform/Platform.h"
#include "vboard/Board.h"

namespace {

using quarn::vboard::Board;

struct Reply {
    int rc = 0;
    int err = 0;
    sg_io_hdr_t io{};
    std::vector<uint8_t> sense;
};

class ScsiDiskModelTest : public ::testing::Test {
protected:
    void SetUp() override {
        quarn::installPlatform(&board);
        fd = board.open("/dev/sg0", O_RDWR);
        ASSERT_GE(fd, 0);
    }
    void TearDown() override {
        board.close(fd);
        quarn::installPlatform(nullptr);
    }

    Reply run(std::vector<uint8_t> cdb, int direction, uint8_t* data, unsigned length, int on = -1,
              unsigned char senseMax = 64) {
        Reply r;
        r.sense.assign(senseMax, 0xEE);
        r.io.interface_id = 'S';
        r.io.cmd_len = static_cast<unsigned char>(cdb.size());
        r.io.cmdp = cdb.data();
        r.io.dxfer_direction = direction;
        r.io.dxferp = data;
        r.io.dxfer_len = length;
        r.io.sbp = r.sense.data();
        r.io.mx_sb_len = senseMax;
        r.io.timeout = 20000;
        errno = 0;
        r.rc = board.ioctl(on < 0 ? fd : on, SG_IO, &r.io);
        r.err = errno;
        r.sense.resize(r.io.sb_len_wr);
        return r;
    }
    Reply dataIn(std::vector<uint8_t> cdb, std::vector<uint8_t>& buf) {
        return run(std::move(cdb), SG_DXFER_FROM_DEV, buf.data(), static_cast<unsigned>(buf.size()));
    }
    Reply noData(std::vector<uint8_t> cdb) { return run(std::move(cdb), SG_DXFER_NONE, nullptr, 0); }

    static std::vector<uint8_t> cdb16(uint8_t op, uint64_t lba, uint32_t blocks) {
        std::vector<uint8_t> c(16, 0);
        c[0] = op;
        for (int i = 0; i < 8; ++i) c[2 + i] = static_cast<uint8_t>(lba >> (56 - 8 * i));
        for (int i = 0; i < 4; ++i) c[10 + i] = static_cast<uint8_t>(blocks >> (24 - 8 * i));
        return c;
    }
    static std::vector<uint8_t> cdb10(uint8_t op, uint32_t lba, uint16_t blocks) {
        return {op, 0, static_cast<uint8_t>(lba >> 24), static_cast<uint8_t>(lba >> 16), static_cast<uint8_t>(lba >> 8),
                static_cast<uint8_t>(lba), 0, static_cast<uint8_t>(blocks >> 8), static_cast<uint8_t>(blocks), 0};
    }
    static uint64_t be(const uint8_t* p, int n) {
        uint64_t v = 0;
        for (int i = 0; i < n; ++i) v = v << 8 | p[i];
        return v;
    }
    // Key/ASC/ASCQ from fixed or descriptor sense.
    static std::string kcq(const std::vector<uint8_t>& s) {
        if (s.size() < 4) return "short";
        char text[16];
        const bool descriptor = (s[0] & 0x7F) >= 0x72;
        if (!descriptor && s.size() < 14) return "short";
        snprintf(text, sizeof(text), "%X/%02X/%02X", descriptor ? s[1] & 0xF : s[2] & 0xF, descriptor ? s[2] : s[12],
                 descriptor ? s[3] : s[13]);
        return text;
    }
    static void expectGood(const Reply& r) {
        EXPECT_EQ(r.rc, 0);
        EXPECT_EQ(r.io.status, 0);
        EXPECT_EQ(r.io.masked_status, 0);
        EXPECT_EQ(r.io.host_status, 0);
        EXPECT_EQ(r.io.driver_status, 0);
        EXPECT_EQ(r.io.sb_len_wr, 0);
        EXPECT_EQ(r.io.info & SG_INFO_OK_MASK, SG_INFO_OK);
    }
    static void expectCheck(const Reply& r, const std::string& senseKcq) {
        EXPECT_EQ(r.rc, 0);  // the ioctl itself succeeds: the command failed on the device
        EXPECT_EQ(r.io.status, 0x02);
        EXPECT_EQ(r.io.masked_status, 0x01);  // CHECK_CONDITION as the sg driver masks it
        EXPECT_EQ(r.io.host_status, 0);
        EXPECT_EQ(r.io.driver_status, 0x08);  // DRIVER_SENSE
        EXPECT_EQ(r.io.info & SG_INFO_OK_MASK, SG_INFO_CHECK);
        EXPECT_EQ(kcq(r.sense), senseKcq);
    }
    // Sets the control mode page's D_SENSE bit through MODE SENSE(10)/MODE SELECT(10).
    void setDescriptorSense(bool on) {
        std::vector<uint8_t> buf(64, 0);
        Reply r = dataIn({0x5A, 0x08, 0x0A, 0, 0, 0, 0, 0, 64, 0}, buf);  // DBD, current control page
        ASSERT_EQ(r.io.status, 0);
        const size_t length = 8 + 12;
        ASSERT_EQ(buf[8], 0x0A);
        buf[0] = buf[1] = 0;  // mode data length is reserved in MODE SELECT
        buf[10] = static_cast<uint8_t>(on ? buf[10] | 0x04 : buf[10] & ~0x04);
        r = run({0x55, 0x10, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(length), 0}, SG_DXFER_TO_DEV, buf.data(),
                static_cast<unsigned>(length));
        ASSERT_EQ(r.io.status, 0) << kcq(r.sense);
        ASSERT_EQ(r.io.resid, 0);
        ASSERT_EQ(board.scsiDisk->descriptorSense(), on);
    }

    Board board;
    int fd = -1;
};

TEST_F(ScsiDiskModelTest, SgIoHeaderIsValidatedLikeTheSgDriver) {
    std::vector<uint8_t> buf(96);
    Reply r = run({0x00, 0, 0, 0, 0, 0}, SG_DXFER_NONE, nullptr, 0);
    expectGood(r);
    EXPECT_EQ(r.io.resid, 0);

    // Not the sg v3 interface.
    r.io = {};
    uint8_t tur[6] = {0};
    r.io.interface_id = 'Q';
    r.io.cmdp = tur;
    r.io.cmd_len = 6;
    errno = 0;
    EXPECT_EQ(board.ioctl(fd, SG_IO, &r.io), -1);
    EXPECT_EQ(errno, ENOSYS);

    std::vector<uint8_t> longCdb(17, 0);
    r = run(longCdb, SG_DXFER_NONE, nullptr, 0);
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.err, EMSGSIZE);

    r = run({0x12, 0, 0, 0, 96, 0}, 7, buf.data(), 96);  // no such direction
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.err, EINVAL);

    r = run({0x12, 0, 0, 0, 96, 0}, SG_DXFER_FROM_DEV, nullptr, 96);  // length without a buffer
    EXPECT_EQ(r.rc, -1);
    EXPECT_NE(r.err, 0);

    // A read-only descriptor passes the kernel's safe commands only.
    const int ro = board.open("/dev/sg0", O_RDONLY);
    ASSERT_GE(ro, 0);
    r = run({0x12, 0, 0, 0, 96, 0}, SG_DXFER_FROM_DEV, buf.data(), 96, ro);
    expectGood(r);
    std::vector<uint8_t> block(512, 0x11);
    r = run(cdb10(0x2A, 0, 1), SG_DXFER_TO_DEV, block.data(), 512, ro);
    EXPECT_EQ(r.rc, -1);
    EXPECT_EQ(r.err, EPERM);
    EXPECT_EQ(board.scsiDisk->storedBlocks(), 0u);
    board.close(ro);

    int version = 0;
    EXPECT_EQ(board.ioctl(fd, SG_GET_VERSION_NUM, &version), 0);
    EXPECT_GE(version, 30000);  // sg v3
}

TEST_F(ScsiDiskModelTest, SenseBufferIsTruncatedToMxSbLen) {
    Reply r = run({0x42, 0, 0, 0, 0, 0, 0, 0, 0, 0}, SG_DXFER_NONE, nullptr, 0, -1, 8);
    EXPECT_EQ(r.io.status, 0x02);
    EXPECT_EQ(r.io.sb_len_wr, 8);
    ASSERT_EQ(r.sense.size(), 8u);
    EXPECT_EQ(r.sense[0], 0x70);
    EXPECT_EQ(r.sense[2], 0x05);
    EXPECT_EQ(r.sense[7], 10);  // additional length still says 18 bytes in all

    r = run({0x42, 0, 0, 0, 0, 0, 0, 0, 0, 0}, SG_DXFER_NONE, nullptr, 0, -1, 0);
    EXPECT_EQ(r.io.status, 0x02);
    EXPECT_EQ(r.io.sb_len_wr, 0);
}

TEST_F(ScsiDiskModelTest, StandardInquiryFollowsSpc4) {
    std::vector<uint8_t> buf(255, 0xCC);
    Reply r = dataIn({0x12, 0, 0, 0, 255, 0}, buf);
    expectGood(r);
    EXPECT_EQ(r.io.resid, 255 - 96);  // the disk has 96 bytes to give
    EXPECT_EQ(buf[0], 0x00);         // connected direct-access block device
    EXPECT_EQ(buf[2], 0x06);         // SPC-4
    EXPECT_EQ(buf[3] & 0x0F, 2);     // response data format
    EXPECT_EQ(buf[4], 96 - 5);       // additional length
    EXPECT_EQ(std::string(reinterpret_cast<char*>(&buf[8]), 8), "SEAGATE ");
    EXPECT_EQ(std::string(reinterpret_cast<char*>(&buf[16]), 16), "ST4000NM0025    ");
    EXPECT_EQ(std::string(reinterpret_cast<char*>(&buf[32]), 4), "E002");
    EXPECT_EQ(be(&buf[60], 2), 0x0460u);  // SPC-4 version descriptor
    EXPECT_EQ(buf[96], 0xCC);             // nothing past the reply

    // The allocation length bounds the transfer; the rest of the buffer is residue.
    std::vector<uint8_t> small(96, 0);
    r = dataIn({0x12, 0, 0, 0, 36, 0}, small);
    expectGood(r);
    EXPECT_EQ(r.io.resid, 96 - 36);
    EXPECT_EQ(small[36], 0);

    // A page code without EVPD, and CMDDT, are invalid fields in the CDB.
    r = dataIn({0x12, 0, 0x80, 0, 255, 0}, buf);
    expectCheck(r, "5/24/00");
    r = dataIn({0x12, 0x02, 0, 0, 255, 0}, buf);
    expectCheck(r, "5/24/00");
}

TEST_F(ScsiDiskModelTest, VitalProductDataPagesFollowSpc4) {
    std::vector<uint8_t> buf(255, 0);
    Reply r = dataIn({0x12, 0x01, 0x00, 0, 255, 0}, buf);
    expectGood(r);
    EXPECT_EQ(buf[1], 0x00);
    const size_t n = be(&buf[2], 2);
    ASSERT_EQ(static_cast<int>(n), 255 - r.io.resid - 4);
    const std::vector<uint8_t> pages(buf.begin() + 4, buf.begin() + 4 + n);
    EXPECT_EQ(pages, (std::vector<uint8_t>{0x00, 0x80, 0x83, 0xB1}));  // ascending

    r = dataIn({0x12, 0x01, 0x80, 0, 255, 0}, buf);
    expectGood(r);
    EXPECT_EQ(buf[1], 0x80);
    ASSERT_EQ(be(&buf[2], 2), 20u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(&buf[4]), 20), "ZC11K4VQ0000C8284FQ1");

    r = dataIn({0x12, 0x01, 0x83, 0, 255, 0}, buf);
    expectGood(r);
    EXPECT_EQ(buf[1], 0x83);
    const size_t total = be(&buf[2], 2);
    EXPECT_EQ(static_cast<int>(total), 255 - r.io.resid - 4);
    // Walk the designation descriptors: each is 4 bytes of header plus its length.
    struct Seen {
        int association, type;
        uint64_t value;
    };
    std::vector<Seen> seen;
    for (size_t at = 4; at + 4 <= 4 + total;) {
        const uint8_t* d = &buf[at];
        const size_t len = d[3];
        ASSERT_LE(at + 4 + len, 4 + total);
        if ((d[0] & 0x0F) == 1) seen.push_back({(d[1] >> 4) & 3, d[1] & 0x0F, be(d + 4, static_cast<int>(len))});
        if ((d[1] >> 4 & 3) != 0) {
            EXPECT_TRUE(d[1] & 0x80);        // PIV: the protocol identifier is valid
            EXPECT_EQ(d[0] >> 4, 6);          // SAS
        }
        at += 4 + len;
    }
    ASSERT_EQ(seen.size(), 4u);
    EXPECT_EQ(seen[0].association, 0);  // logical unit: NAA 5
    EXPECT_EQ(seen[0].type, 3);
    EXPECT_EQ(seen[0].value, 0x5000C500A1B2C3D4ull);
    EXPECT_EQ(seen[0].value >> 60, 5u);
    EXPECT_EQ(seen[1].association, 1);  // target port: its SAS address
    EXPECT_EQ(seen[1].type, 3);
    EXPECT_EQ(seen[1].value, 0x5000C500A1B2C3D5ull);
    EXPECT_EQ(seen[2].association, 1);  // relative target port 1
    EXPECT_EQ(seen[2].type, 4);
    EXPECT_EQ(seen[2].value, 1u);
    EXPECT_EQ(seen[3].association, 2);  // target device name
    EXPECT_EQ(seen[3].type, 3);

    r = dataIn({0x12, 0x01, 0xC7, 0, 255, 0}, buf);  // no such page
    expectCheck(r, "5/24/00");
}

TEST_F(ScsiDiskModelTest, ReadCapacityTenSaturatesOnALargeDiskAndSixteenCarriesTheSize) {
    std::vector<uint8_t> cap(8, 0);
    Reply r = dataIn({0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0}, cap);
    expectGood(r);
    EXPECT_EQ(be(&cap[0], 4), 0xFFFFFFFFu);  // too large: use READ CAPACITY(16)
    EXPECT_EQ(be(&cap[4], 4), 512u);

    std::vector<uint8_t> cap16(32, 0xCC);
    r = dataIn({0x9E, 0x10, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 32, 0, 0}, cap16);
    expectGood(r);
    EXPECT_EQ(be(&cap16[0], 8), 7814037168ull - 1);
    EXPECT_EQ(be(&cap16[8], 4), 512u);
    EXPECT_EQ(r.io.resid, 0);

    // SERVICE ACTION IN(16) with another service action is not READ CAPACITY.
    r = dataIn({0x9E, 0x11, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 32, 0, 0}, cap16);
    expectCheck(r, "5/24/00");

    // A disk below 2 TiB reports its last LBA in the 10-byte form.
    quarn::vboard::ScsiDiskConfig smallDisk;
    smallDisk.blocks = 2048;
    auto disk = quarn::vboard::installScsiDisk(board, 5, "sdx", smallDisk);
    const int small = board.open("/dev/sg5", O_RDWR);
    ASSERT_GE(small, 0);
    r = run({0x25, 0, 0, 0, 0, 0, 0, 0, 0, 0}, SG_DXFER_FROM_DEV, cap.data(), 8, small);
    expectGood(r);
    EXPECT_EQ(be(&cap[0], 4), 2047u);
    board.close(small);
}

TEST_F(ScsiDiskModelTest, WritesAndReadsRoundTripOnTheSparseMedium) {
    const uint64_t last = 7814037168ull - 1;
    std::vector<uint8_t> out(1024);
    for (size_t i = 0; i < out.size(); ++i) out[i] = static_cast<uint8_t>(i * 7 + 3);
    Reply r = run(cdb16(0x8A, last - 1, 2), SG_DXFER_TO_DEV, out.data(), 1024);
    expectGood(r);
    EXPECT_EQ(r.io.resid, 0);  // the disk took the whole data-out buffer
    EXPECT_EQ(board.scsiDisk->storedBlocks(), 2u);

    std::vector<uint8_t> in(1024, 0xCC);
    r = dataIn(cdb16(0x88, last - 1, 2), in);
    expectGood(r);
    EXPECT_EQ(r.io.resid, 0);
    EXPECT_EQ(in, out);

    // 10-byte forms on the low end; never-written blocks read as zeros.
    r = run(cdb10(0x2A, 100, 1), SG_DXFER_TO_DEV, out.data(), 1024);
    expectGood(r);
    EXPECT_EQ(r.io.resid, 512);  // one block asked for: the second half stays behind
    std::vector<uint8_t> two(1024, 0xCC);
    r = dataIn(cdb10(0x28, 100, 2), two);
    expectGood(r);
    EXPECT_TRUE(std::equal(out.begin(), out.begin() + 512, two.begin()));
    EXPECT_TRUE(std::all_of(two.begin() + 512, two.end(), [](uint8_t b) { return b == 0; }));

    // Writing zeros returns the block to the unwritten state.
    std::vector<uint8_t> zeros(512, 0);
    r = run(cdb10(0x2A, 100, 1), SG_DXFER_TO_DEV, zeros.data(), 512);
    expectGood(r);
    EXPECT_EQ(board.scsiDisk->storedBlocks(), 2u);

    // A transfer length of zero moves nothing: the whole buffer is residue.
    r = dataIn(cdb10(0x28, 0, 0), two);
    expectGood(r);
    EXPECT_EQ(r.io.resid, 1024);

    // VERIFY(10) with BYTCHK 1 compares the medium with the data-out buffer.
    std::vector<uint8_t> verify = cdb10(0x2F, 7, 1);
    verify[1] = 0x02;
    std::vector<uint8_t> expected(512, 0);
    expected[3] = 0x81;
    expectGood(run(cdb10(0x2A, 7, 1), SG_DXFER_TO_DEV, expected.data(), 512));
    r = run(verify, SG_DXFER_TO_DEV, expected.data(), 512);
    expectGood(r);
    EXPECT_EQ(r.io.resid, 0);
    expected[300] = 0x01;
    r = run(verify, SG_DXFER_TO_DEV, expected.data(), 512);
    expectCheck(r, "E/1D/00");
    EXPECT_EQ(r.sense[0], 0xF0);
    EXPECT_EQ(be(&r.sense[3], 4), 300u);  // offset of the first differing byte
}

TEST_F(ScsiDiskModelTest, AccessBeyondTheLastBlockIsAnLbaOutOfRange) {
    const uint64_t blocks = 7814037168ull;
    std::vector<uint8_t> buf(1024, 0);
    Reply r = dataIn(cdb16(0x88, blocks, 1), buf);
    expectCheck(r, "5/21/00");
    r = dataIn(cdb16(0x88, blocks - 1, 2), buf);  // starts inside, runs off the end
    expectCheck(r, "5/21/00");
    r = run(cdb16(0x8A, ~0ull, 2), SG_DXFER_TO_DEV, buf.data(), 1024);  // would wrap around
    expectCheck(r, "5/21/00");
    EXPECT_EQ(board.scsiDisk->storedBlocks(), 0u);

    quarn::vboard::ScsiDiskConfig smallDisk;
    smallDisk.blocks = 2048;
    quarn::vboard::installScsiDisk(board, 5, "sdx", smallDisk);
    const int small = board.open("/dev/sg5", O_RDWR);
    ASSERT_GE(small, 0);
    r = run(cdb10(0x28, 2047, 1), SG_DXFER_FROM_DEV, buf.data(), 512, small);
    expectGood(r);
    r = run(cdb10(0x28, 2047, 2), SG_DXFER_FROM_DEV, buf.data(), 1024, small);
    expectCheck(r, "5/21/00");
    board.close(small);
}

TEST_F(ScsiDiskModelTest, UnsupportedOpcodeIsAnInvalidCommandOperationCode) {
    std::vector<uint8_t> buf(512, 0);
    Reply r = run({0x42, 0, 0, 0, 0, 0, 0, 0, 2, 0}, SG_DXFER_FROM_DEV, buf.data(), 512);  // UNMAP
    expectCheck(r, "5/20/00");
    EXPECT_EQ(r.io.resid, 512);  // nothing transferred
    ASSERT_EQ(r.sense.size(), 18u);
    EXPECT_EQ(r.sense[0], 0x70);  // current error, fixed format, no VALID information
    EXPECT_EQ(r.sense[7], 10);

    // A CDB shorter than its group's length is an invalid field.
    r = run({0x28, 0, 0, 0, 0, 0}, SG_DXFER_FROM_DEV, buf.data(), 512);
    expectCheck(r, "5/24/00");
}

TEST_F(ScsiDiskModelTest, SenseFormatFollowsTheDSenseBit) {
    board.scsiDisk->addUnreadableBlock(0x1234);
    std::vector<uint8_t> buf(4096, 0);
    Reply r = dataIn(cdb10(0x28, 0x1230, 8), buf);
    expectCheck(r, "3/11/00");
    ASSERT_EQ(r.sense.size(), 18u);
    EXPECT_EQ(r.sense[0], 0xF0);                  // VALID: the information field holds the LBA
    EXPECT_EQ(be(&r.sense[3], 4), 0x1234u);

    // Above 32 bits the fixed format cannot carry the LBA: VALID stays clear.
    board.scsiDisk->addUnreadableBlock(0x100000000ull);
    r = dataIn(cdb16(0x88, 0x100000000ull, 1), buf);
    expectCheck(r, "3/11/00");
    EXPECT_EQ(r.sense[0], 0x70);

    setDescriptorSense(true);
    r = dataIn(cdb16(0x88, 0x100000000ull, 1), buf);
    expectCheck(r, "3/11/00");
    ASSERT_EQ(r.sense.size(), 8u + 12u);
    EXPECT_EQ(r.sense[0], 0x72);
    EXPECT_EQ(r.sense[7], 12);    // additional sense length: one information descriptor
    EXPECT_EQ(r.sense[8], 0x00);  // information descriptor
    EXPECT_EQ(r.sense[9], 0x0A);
    EXPECT_EQ(r.sense[10], 0x80);  // VALID
    EXPECT_EQ(be(&r.sense[12], 8), 0x100000000ull);

    // Without information the descriptor format is the 8-byte header only.
    r = noData({0x42, 0, 0, 0, 0, 0, 0, 0, 0, 0});
    expectCheck(r, "5/20/00");
    ASSERT_EQ(r.sense.size(), 8u);
    EXPECT_EQ(r.sense[7], 0);

    // REQUEST SENSE's DESC bit picks the format of its own data.
    std::vector<uint8_t> rs(252, 0);
    r = dataIn({0x03, 0x01, 0, 0, 252, 0}, rs);
    expectGood(r);
    EXPECT_EQ(rs[0], 0x72);
    r = dataIn({0x03, 0x00, 0, 0, 252, 0}, rs);
    expectGood(r);
    EXPECT_EQ(rs[0], 0x70);
    EXPECT_EQ(r.io.resid, 252 - 18);

    // Writing the block reallocates it: the read succeeds and the grown list has it.
    std::vector<uint8_t> block(512, 0xA5);
    r = run(cdb10(0x2A, 0x1234, 1), SG_DXFER_TO_DEV, block.data(), 512);
    expectGood(r);
    r = dataIn(cdb10(0x28, 0x1234, 1), buf);
    expectGood(r);
    EXPECT_EQ(buf[0], 0xA5);
    setDescriptorSense(false);
}

TEST_F(ScsiDiskModelTest, InjectedSenseIsReportedTheGivenNumberOfTimes) {
    std::vector<uint8_t> buf(512, 0xCC);
    board.scsiDisk->injectSense(0x28, 0x04, 0x44, 0x00, 2);  // HARDWARE ERROR, internal target failure
    expectCheck(dataIn(cdb10(0x28, 0, 1), buf), "4/44/00");
    expectCheck(dataIn(cdb10(0x28, 0, 1), buf), "4/44/00");
    expectGood(dataIn(cdb10(0x28, 0, 1), buf));
    // Only that opcode is affected.
    board.scsiDisk->injectSense(0x88, 0x03, 0x11, 0x00);
    expectGood(dataIn(cdb10(0x28, 0, 1), buf));
    expectCheck(dataIn(cdb16(0x88, 0, 1), buf), "3/11/00");

    // A recovered error is reported after the data went across.
    std::vector<uint8_t> out(512, 0x3C);
    expectGood(run(cdb10(0x2A, 9, 1), SG_DXFER_TO_DEV, out.data(), 512));
    board.scsiDisk->injectSense(0x28, 0x01, 0x18, 0x00);
    std::fill(buf.begin(), buf.end(), 0);
    Reply r = dataIn(cdb10(0x28, 9, 1), buf);
    expectCheck(r, "1/18/00");
    EXPECT_EQ(r.io.resid, 0);
    EXPECT_EQ(buf, out);

    // The read error counter page counts it as corrected with delay.
    std::vector<uint8_t> log(512, 0);
    r = dataIn({0x4D, 0, 0x40 | 0x03, 0, 0, 0, 0, 0x02, 0x00, 0}, log);
    expectGood(r);
    EXPECT_EQ(log[0], 0x03);
    // Parameter 0001h (corrected with possible delays) is the second 12-byte parameter.
    EXPECT_EQ(be(&log[4 + 12], 2), 1u);
    EXPECT_EQ(be(&log[4 + 12 + 4], 8), 1u);
}

TEST_F(ScsiDiskModelTest, UnitAttentionIsReportedOnceAndNotToInquiry) {
    board.scsiDisk->raiseUnitAttention(0x29, 0x00);  // power on, reset
    std::vector<uint8_t> buf(96, 0);
    expectGood(dataIn({0x12, 0, 0, 0, 96, 0}, buf));
    std::vector<uint8_t> luns(16, 0);
    expectGood(dataIn({0xA0, 0, 0, 0, 0, 0, 0, 0, 0, 16, 0, 0}, luns));
    EXPECT_EQ(be(&luns[0], 4), 8u);  // one LUN

    expectCheck(noData({0x00, 0, 0, 0, 0, 0}), "6/29/00");
    expectGood(noData({0x00, 0, 0, 0, 0, 0}));

    // REQUEST SENSE hands the pending condition over as its data and clears it.
    board.scsiDisk->raiseUnitAttention(0x2A, 0x01);  // mode parameters changed
    std::vector<uint8_t> rs(18, 0);
    Reply r = dataIn({0x03, 0, 0, 0, 18, 0}, rs);
    expectGood(r);
    EXPECT_EQ(kcq(rs), "6/2A/01");
    expectGood(noData({0x00, 0, 0, 0, 0, 0}));

    // A stopped disk refuses media access with NOT READY until START STOP UNIT.
    expectGood(noData({0x1B, 0, 0, 0, 0x00, 0}));
    expectCheck(noData({0x00, 0, 0, 0, 0, 0}), "2/04/02");
    expectGood(dataIn({0x12, 0, 0, 0, 96, 0}, buf));
    expectGood(noData({0x1B, 0, 0, 0, 0x01, 0}));
    expectGood(noData({0x00, 0, 0, 0, 0, 0}));
}

}  // namespace
