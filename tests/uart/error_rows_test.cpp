// The serial-port and TPM codes the two modules raise, rendered one record at a time.
#include <gtest/gtest.h>

#include <string>

#include "api/ErrorText.h"

namespace {

std::string render(ERRORCODE code, const char* detail = nullptr) {
    ErrorMsg record(code, detail);
    std::string out;
    getErrorMsgText(&record, &out);
    return out;
}

TEST(UartTpmErrorRows, UartCodesRenderWithTheirFunctionAndError) {
    EXPECT_EQ(render(0xCC081E15), "UARTDDAPI::scanUarts: \"Fail to open file node\"");
    EXPECT_EQ(render(0xCC082215, "/dev/ttyS9"), "UARTDDAPI::getDevice: \"Fail to open file node - /dev/ttyS9\"");
    EXPECT_EQ(render(0xCC08222E), "UARTDDAPI::getDevice: \"No device is found\"");
    EXPECT_EQ(render(0xCC082004), "UARTDDAPI::getDevice: \"fail to get serial infomation through ioctl\"");
    EXPECT_EQ(render(0xCC082E2E), "UARTDDAPI::searchUART: \"No device is found\"");
    EXPECT_EQ(render(0xCC080401), "UARTDDAPI::testScratchPad: \"function is not supported\"");
    EXPECT_EQ(render(0xCC080C01), "UARTDDAPI::doInternalLoopbackTest: \"function is not supported\"");
    EXPECT_EQ(render(0xCC080E38), "UARTDDAPI::doInternalLoopbackTest: \"Time out\"");
    EXPECT_EQ(render(0xCC082400), "UARTDDAPI::readRegister");
    EXPECT_EQ(render(0xCC082800), "UARTDDAPI::writeRegister");
    EXPECT_EQ(render(0xCC041400), "UARTDAPI::getUartList");
    EXPECT_EQ(render(0xCC04122E), "UARTDAPI::getUartInfoByName: \"No device is found\"");
    EXPECT_EQ(render(0xCC040800), "UARTDAPI::testScratchPad");
    EXPECT_EQ(render(0xCC040C00), "UARTDAPI::doInternalLoopbackTest");
}

TEST(UartTpmErrorRows, TpmRowsCarryTheirWordsInTheDetail) {
    EXPECT_EQ(render(0xD3080400, "Send command fail"), "TPMDDAPI::commandInterface: \"Send command fail\"");
    EXPECT_EQ(render(0xD3080800, "fail to open file"), "TPMDDAPI::sendCommandManually: \"fail to open file\"");
    EXPECT_EQ(render(0xD3040400), "TPMDAPI::commandInterface");
    EXPECT_EQ(render(0xD3040800), "TPMDAPI::sendCommandManually");
}

}  // namespace
