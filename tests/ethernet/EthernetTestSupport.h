// Shared fixture of the Ethernet tests: the virtual board installed as the platform.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "tests/lib/Render.h"
#include "vboard/Board.h"

namespace quarn::test {

class EthernetTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override { quarn::installPlatform(nullptr); }
    vboard::NicPort& port(const std::string& name) { return board.ethernet->port(name); }
    std::string sysfs(const std::string& path) {
        std::string text;
        if (quarn::readTextFile(path, &text) != 0) return "unreadable";
        return text.substr(0, text.find('\n'));
    }

    vboard::Board board;
};

}  // namespace quarn::test
