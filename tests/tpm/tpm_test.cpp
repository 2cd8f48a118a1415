// The TPM module against the virtual board's TPM 2.0 (libtpms behind /dev/tpm0).
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "api/platform/Platform.h"
#include "dapi/tpm/TPMDAPI.h"
#include "ddapi/tpm/TPMDDAPI.h"
#include "tests/lib/Render.h"
#include "vboard/Board.h"

namespace {

using quarn::test::render;
using Bytes = std::vector<uint8_t>;

const Bytes kSelfTestPassed = {0x80, 0x01, 0x00, 0x00, 0x00, 0x0A, 0x00, 0x00, 0x00, 0x00};

class TpmTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override { quarn::installPlatform(nullptr); }

    _TPM_CMD_INPUT selfTest(uint8_t full) {
        _TPM_CMD_INPUT in{};
        in.tag = 0x8001;
        in.commandSize = 11;
        in.commandCode = 0x143;
        in.parameters[0] = full;
        return in;
    }
    _TPM_CMD_INPUT getCapability(uint32_t cap, uint32_t property, uint32_t count) {
        _TPM_CMD_INPUT in{};
        in.tag = 0x8001;
        in.commandSize = 22;
        in.commandCode = 0x17A;
        in.parameters[0] = cap;
        in.parameters[1] = property;
        in.parameters[2] = count;
        return in;
    }

    // Sends a command file written on the board; the response, or the rendered chain.
    std::string sendFile(const std::string& text, Bytes* response = nullptr, unsigned int room = 4096) {
        board.writeFile("/tmp/cmd.txt", text);
        return send("/tmp/cmd.txt", response, room);
    }
    std::string send(const std::string& path, Bytes* response, unsigned int room = 4096) {
        Bytes buf(room);
        unsigned int got = 12345;
        std::string r = render(tpm.sendCommandManually(path.c_str(), buf.data(), room, &got));
        if (response && r.empty()) *response = Bytes(buf.begin(), buf.begin() + got);
        return r;
    }

    quarn::vboard::Board board;
    TPMDAPI tpm{"TPMDAPI"};
};

TEST_F(TpmTest, CommandBuffersAreBuiltBigEndianFromTheStructure) {
    TPMDDAPI dev("TPMDDAPI");
    unsigned int size = 7;
    dev.getCmdSize(getCapability(6, 0x105, 3), &size);
    EXPECT_EQ(size, 22u);
    dev.getCmdSize(selfTest(1), &size);
    EXPECT_EQ(size, 11u);
    _TPM_CMD_INPUT other = selfTest(1);
    other.commandCode = 0x144;
    dev.getCmdSize(other, &size);
    EXPECT_EQ(size, 11u) << "an unknown code leaves the size alone";

    unsigned char buf[22] = {0};
    dev.createCmdList(getCapability(0x00000006, 0x00000105, 0x01020304), buf);
    const Bytes caps = {0x80, 0x01, 0x00, 0x00, 0x00, 0x16, 0x00, 0x00, 0x01, 0x7A, 0x00,
                        0x00, 0x00, 0x06, 0x00, 0x00, 0x01, 0x05, 0x01, 0x02, 0x03, 0x04};
    EXPECT_EQ(Bytes(buf, buf + 22), caps);
    // The size field is copied, not computed; fullTest is the first byte of the word.
    _TPM_CMD_INPUT st = selfTest(0);
    st.commandSize = 0xDEADBEEF;
    st.parameters[0] = 0x00000201;
    dev.createCmdList(st, buf);
    EXPECT_EQ(Bytes(buf, buf + 11), Bytes({0x80, 0x01, 0xDE, 0xAD, 0xBE, 0xEF, 0x00, 0x00, 0x01, 0x43, 0x01}));
    unsigned char word[4];
    dev.converDWordToBytes(0xA1B2C3D4, word);
    EXPECT_EQ(Bytes(word, word + 4), Bytes({0xA1, 0xB2, 0xC3, 0xD4}));
}

TEST_F(TpmTest, SelfTestPassesOnTheTpm) {
    unsigned char rsp[64];
    unsigned int got = 0;
    ASSERT_EQ(render(tpm.commandInterface(selfTest(1), rsp, sizeof(rsp), &got)), "");
    EXPECT_EQ(Bytes(rsp, rsp + got), kSelfTestPassed);
}

TEST_F(TpmTest, GetCapabilityAnswersFromLibtpms) {
    // TPM_CAP_TPM_PROPERTIES, TPM_PT_MANUFACTURER (0x105), one property.
    unsigned char rsp[256];
    unsigned int got = 0;
    ASSERT_EQ(render(tpm.commandInterface(getCapability(6, 0x105, 1), rsp, sizeof(rsp), &got)), "");
    ASSERT_EQ(got, 27u);
    // header, moreData, capability, count 1, property 0x105 = "IBM\0"
    const Bytes expected = {0x80, 0x01, 0x00, 0x00, 0x00, 0x1B, 0x00, 0x00, 0x00, 0x00, 0x01,
                            0x00, 0x00, 0x00, 0x06, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x01,
                            0x05, 'I', 'B', 'M', 0x00};
    EXPECT_EQ(Bytes(rsp, rsp + got), expected);
}

TEST_F(TpmTest, TpmWithoutStartupAnswersInitialize) {
    board.tpm->setSkipStartup(true);
    unsigned char rsp[64];
    unsigned int got = 0;
    ASSERT_EQ(render(tpm.commandInterface(selfTest(0), rsp, sizeof(rsp), &got)), "");
    EXPECT_EQ(Bytes(rsp, rsp + got), Bytes({0x80, 0x01, 0x00, 0x00, 0x00, 0x0A, 0x00, 0x00, 0x01, 0x00}));
}

TEST_F(TpmTest, ResponseLargerThanTheBufferIsCutAtItsLength) {
    unsigned char rsp[6];
    unsigned int got = 0;
    ASSERT_EQ(render(tpm.commandInterface(getCapability(6, 0x100, 8), rsp, sizeof(rsp), &got)), "");
    EXPECT_EQ(got, 6u);
    EXPECT_EQ(Bytes(rsp, rsp + 2), Bytes({0x80, 0x01}));
    // The next command opens the device afresh and is answered in full.
    unsigned char full[64];
    ASSERT_EQ(render(tpm.commandInterface(selfTest(1), full, sizeof(full), &got)), "");
    EXPECT_EQ(Bytes(full, full + got), kSelfTestPassed);
}

TEST_F(TpmTest, UnknownCommandCodeIsRefusedUnsent) {
    _TPM_CMD_INPUT in = selfTest(0);
    in.commandCode = 0x17B;
    unsigned char rsp[64];
    unsigned int got = 0;
    EXPECT_EQ(render(tpm.commandInterface(in, rsp, sizeof(rsp), &got)),
              "TPMDAPI::commandInterface: \"command code 0x17B is not supported\"");
    EXPECT_EQ(board.tpm->commandCount(), 0u);
}

TEST_F(TpmTest, DeviceFailuresAreChainedUnderTheDiagnosticRow) {
    unsigned char rsp[64];
    unsigned int got = 0;
    board.tpm->faults().writeErrno = EIO;
    EXPECT_EQ(render(tpm.commandInterface(selfTest(0), rsp, sizeof(rsp), &got)),
              "TPMDAPI::commandInterface -> TPMDDAPI::commandInterface: \"Send command fail\"");
    board.tpm->faults().writeErrno = 0;
    board.tpm->faults().readErrno = EIO;
    EXPECT_EQ(render(tpm.commandInterface(selfTest(0), rsp, sizeof(rsp), &got)),
              "TPMDAPI::commandInterface -> TPMDDAPI::commandInterface: \"Get response fail\"");
    board.tpm->faults().readErrno = 0;
    board.removeDevice("/dev/tpm0");
    EXPECT_EQ(render(tpm.commandInterface(selfTest(0), rsp, sizeof(rsp), &got)),
              "TPMDAPI::commandInterface -> TPMDDAPI::commandInterface: \"Can't open device\"");
}

TEST_F(TpmTest, DisplayDeviceReportsPresenceOnly) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(render(tpm.displayDevice()), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "TPM0\n");
    board.removeDevice("/dev/tpm0");
    testing::internal::CaptureStdout();
    EXPECT_EQ(render(tpm.displayDevice()), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "No device be detected.\n");
}

TEST_F(TpmTest, CommandFileIsSentAsWritten) {
    Bytes rsp;
    ASSERT_EQ(sendFile("80 01\n00 00 00 0b\n00 00 01 43\n00\n", &rsp), "");
    EXPECT_EQ(rsp, kSelfTestPassed);
    // Any character separates the pairs; a long line is read in 21-character pieces.
    ASSERT_EQ(sendFile("80x01\n00-00-00-16\n00 00 01 7a 00 00 00 06 00 00 01 05 00 00 00 01\n", &rsp), "");
    ASSERT_EQ(rsp.size(), 27u);
    EXPECT_EQ(Bytes(rsp.end() - 4, rsp.end()), Bytes({'I', 'B', 'M', 0x00}));
    // Upper case, no newline at the end, a blank line before it.
    ASSERT_EQ(sendFile("80 01\n00 00 00 0B\n\n00 00 01 43 01", &rsp), "");
    EXPECT_EQ(rsp, kSelfTestPassed);
}

TEST_F(TpmTest, TagLineMustBeExactlyOnePairSpaceAndNewline) {
    const std::string tail = "00 00 00 0b\n00 00 01 43\n00\n";
    EXPECT_EQ(sendFile("80 01 \n" + tail),
              "TPMDAPI::sendCommandManually -> TPMDDAPI::sendCommandManually: \"incorrect command length\"");
    EXPECT_EQ(sendFile("80 01"),
              "TPMDAPI::sendCommandManually -> TPMDDAPI::sendCommandManually: \"incorrect command length\"");
    EXPECT_EQ(sendFile("8001\n" + tail),
              "TPMDAPI::sendCommandManually -> TPMDDAPI::sendCommandManually: \"incorrect command length\"");
    EXPECT_EQ(sendFile(""),
              "TPMDAPI::sendCommandManually -> TPMDDAPI::sendCommandManually: \"incorrect command length\"");
    EXPECT_EQ(board.tpm->commandCount(), 0u);
}

TEST_F(TpmTest, MalformedCommandFilesSendNothing) {
    const std::string head = "TPMDAPI::sendCommandManually -> TPMDDAPI::sendCommandManually: ";
    EXPECT_EQ(sendFile("80 01\n00 00 00 0b\n00 00 0g 43\n00\n"),
              head + "\"line 3 column 7: not a hexadecimal byte\"");
    // Odd spacing puts a space inside a pair.
    EXPECT_EQ(sendFile("80 01\n00 00 00 0b\n00 00  01 43\n00\n"),
              head + "\"line 3 column 7: not a hexadecimal byte\"");
    EXPECT_EQ(sendFile("80 01\n00 00 00 0b\n00 00 01 43\n0\n"),
              head + "\"line 4 column 1: not a hexadecimal byte\"");
    EXPECT_EQ(sendFile("80 01\n00 00 00 0b\n00 00 01 43\n0"),
              head + "\"line 4 column 1: incomplete hexadecimal byte\"");
    EXPECT_EQ(sendFile("80 01\n00 00 00 0b\n00 00 01 43\n00 00\n"),
              head + "\"command holds more than its declared 11 bytes\"");
    EXPECT_EQ(sendFile("80 01\n00 00 00 0b\n00 00 01 43\n"),
              head + "\"command holds 10 bytes, fewer than its declared 11\"");
    EXPECT_EQ(sendFile("80 01\n"), head + "\"command ends before its size line\"");
    EXPECT_EQ(sendFile("80 01\n00 00 0b\n"), head + "\"incorrect command length\"");
    EXPECT_EQ(sendFile("80 01\n00 00 00 02\n"),
              head + "\"declared command length 2 is out of range 10-4096\"");
    EXPECT_EQ(sendFile("80 01\n00 01 00 00\n"),
              head + "\"declared command length 65536 is out of range 10-4096\"");
    EXPECT_EQ(sendFile(std::string(70000, '0')), head + "\"command file longer than 65536 characters\"");
    EXPECT_EQ(board.tpm->commandCount(), 0u);
}

TEST_F(TpmTest, CommandFileBehindAPlantedLinkIsNotRead) {
    board.writeFile("/root/selftest.txt", "80 01\n00 00 00 0b\n00 00 01 43\n00\n");
    board.makeSymlink("/root/selftest.txt", "/tmp/cmd.txt");
    Bytes rsp;
    EXPECT_EQ(send("/tmp/cmd.txt", &rsp),
              "TPMDAPI::sendCommandManually -> TPMDDAPI::sendCommandManually: \"fail to open file\"");
    EXPECT_EQ(send("/tmp/missing.txt", &rsp),
              "TPMDAPI::sendCommandManually -> TPMDDAPI::sendCommandManually: \"fail to open file\"");
    EXPECT_EQ(board.tpm->commandCount(), 0u);
    EXPECT_EQ(send("/root/selftest.txt", &rsp), "");
    EXPECT_EQ(rsp, kSelfTestPassed);
}

TEST_F(TpmTest, CommandMissingItsParameterIsAnsweredByTheTpm) {
    // A SelfTest without its fullTest byte is sent as written; judging it is the TPM's job.
    Bytes rsp;
    EXPECT_EQ(sendFile("80 01\n00 00 00 0a\n00 00 01 43\n", &rsp), "");
    ASSERT_EQ(rsp.size(), 10u);
    EXPECT_NE(Bytes(rsp.begin() + 6, rsp.end()), Bytes({0, 0, 0, 0}));
    EXPECT_EQ(board.tpm->commandCount(), 1u);
}

}  // namespace
