// Shared fixture of the I2C tests: a fresh board installed as the platform.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "vboard/Board.h"

namespace i2ctest {

inline std::string render(ErrorMsg* chain) {
    std::string text;
    getErrorMessage(chain, &text);
    return text;
}

class BoardTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override { quarn::installPlatform(nullptr); }

    void setProfile(const std::string& text) { board.writeFile("/etc/quarn/I2C_profile.ini", text); }
    quarn::vboard::I2cBoard& i2c() { return *board.i2c; }

    quarn::vboard::Board board;
};

}  // namespace i2ctest
