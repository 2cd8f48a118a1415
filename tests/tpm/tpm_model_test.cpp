// The virtual board's /dev/tpm0 as the kernel's TPM character device behaves.
#include <gtest/gtest.h>

#include <fcntl.h>

#include <cerrno>
#include <vector>

#include "vboard/Board.h"

namespace {

using Bytes = std::vector<uint8_t>;
const Bytes kSelfTest = {0x80, 0x01, 0x00, 0x00, 0x00, 0x0B, 0x00, 0x00, 0x01, 0x43, 0x00};

class TpmNode : public ::testing::Test {
protected:
    quarn::vboard::Board board;
};

TEST_F(TpmNode, OneOpenerAtATime) {
    const int fd = board.open("/dev/tpm0", O_RDWR);
    ASSERT_GE(fd, 0);
    errno = 0;
    EXPECT_EQ(board.open("/dev/tpm0", O_RDWR), -1);
    EXPECT_EQ(errno, EBUSY);
    board.close(fd);
    const int again = board.open("/dev/tpm0", O_RDWR);
    EXPECT_GE(again, 0);
    board.close(again);
}

TEST_F(TpmNode, WritesAreCheckedAgainstTheHeaderAndTheBuffer) {
    const int fd = board.open("/dev/tpm0", O_RDWR);
    ASSERT_GE(fd, 0);
    errno = 0;
    EXPECT_EQ(board.write(fd, kSelfTest.data(), 10), -1) << "shorter than the header's size";
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(board.write(fd, kSelfTest.data(), 5), -1);
    EXPECT_EQ(errno, EINVAL);
    Bytes big(4097, 0);
    EXPECT_EQ(board.write(fd, big.data(), big.size()), -1);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(board.tpm->commandCount(), 0u);

    // Bytes past the header's size are not part of the command.
    Bytes padded = kSelfTest;
    padded.push_back(0xEE);
    EXPECT_EQ(board.write(fd, padded.data(), padded.size()), 12);
    EXPECT_EQ(board.write(fd, kSelfTest.data(), kSelfTest.size()), -1) << "response not read yet";
    EXPECT_EQ(errno, EBUSY);
    // The response can be read in parts.
    uint8_t part[4];
    EXPECT_EQ(board.read(fd, part, 4), 4);
    EXPECT_EQ(Bytes(part, part + 4), Bytes({0x80, 0x01, 0x00, 0x00}));
    uint8_t rest[64];
    EXPECT_EQ(board.read(fd, rest, sizeof(rest)), 6);
    EXPECT_EQ(Bytes(rest, rest + 6), Bytes({0x00, 0x0A, 0x00, 0x00, 0x00, 0x00}));
    EXPECT_EQ(board.read(fd, rest, sizeof(rest)), 0) << "nothing pending";
    EXPECT_EQ(board.tpm->commandCount(), 1u);
    board.close(fd);
}

TEST_F(TpmNode, TwoBoardsEachHaveATpmOfTheirOwn) {
    // Two boards in one process: each TPM answers from its own engine state.
    quarn::vboard::Board other;
    other.tpm->setSkipStartup(true);
    auto run = [](quarn::vboard::Board& b) {
        const int fd = b.open("/dev/tpm0", O_RDWR);
        b.write(fd, kSelfTest.data(), kSelfTest.size());
        uint8_t r[16] = {0};
        const ssize_t n = b.read(fd, r, sizeof(r));
        b.close(fd);
        return Bytes(r, r + (n > 0 ? n : 0));
    };
    EXPECT_EQ(run(board)[9], 0x00);
    EXPECT_EQ(run(other)[8], 0x01) << "TPM_RC_INITIALIZE from the TPM without Startup";
    EXPECT_EQ(run(board)[9], 0x00);
}

}  // namespace
