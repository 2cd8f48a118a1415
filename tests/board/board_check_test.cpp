// The whole-board check on the simulated board: it passes as shipped, and each fault a
// model offers fails the run at the check that judges that part, naming the part.
#include <gtest/gtest.h>

#include <asm/mce.h>
#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "api/platform/Platform.h"
#include "cli/BoardCheck.h"
#include "vboard/Board.h"

namespace {

using quarn::cli::CheckResult;

class BoardCheckTest : public ::testing::Test {
protected:
    void SetUp() override { quarn::installPlatform(&board); }
    void TearDown() override { quarn::installPlatform(nullptr); }

    std::vector<CheckResult> run(bool quick = true) {
        return quarn::cli::runBoardChecks(quarn::cli::boardChecks(quick), true, nullptr);
    }
    // The failed checks as "name part: error" lines.
    static std::vector<std::string> failures(const std::vector<CheckResult>& results) {
        std::vector<std::string> out;
        for (const CheckResult& r : results)
            if (r.status == "fail") out.push_back(r.name + " " + r.part + ": " + r.error);
        return out;
    }
    static std::string joined(const std::vector<std::string>& lines) {
        std::string s;
        for (const std::string& l : lines) s += l + "\n";
        return s;
    }

    quarn::vboard::Board board;
};

TEST_F(BoardCheckTest, TheShippedBoardPasses) {
    std::vector<CheckResult> results = run();
    EXPECT_EQ(failures(results), std::vector<std::string>());
    // Every kind of the board is judged, and checks over several parts give one line each.
    std::vector<std::string> kinds;
    size_t smart = 0;
    for (const CheckResult& r : results) {
        if (kinds.empty() || kinds.back() != r.kind) kinds.push_back(r.kind);
        if (r.name == "sata.smart") ++smart;
        for (const quarn::cli::Measurement& m : r.measurements) EXPECT_TRUE(m.within()) << r.name << " " << m.name;
    }
    EXPECT_EQ(kinds, (std::vector<std::string>{"rtc", "memory", "pci", "cpu", "i2c", "sata", "uart", "tpm", "sas", "expander",
                                                "nvme", "storage", "eth", "temp", "psu", "bbu"}));
    EXPECT_EQ(smart, 2u);  // the two SATA drives
}

// Every named fault of the board fails the run at the checks of its own kind, and the
// first failure names the part and the cause.
TEST_F(BoardCheckTest, EachFaultFailsTheCheckOfItsPart) {
    const std::vector<std::pair<std::string, std::string>> expected = {
        {"rtc-busy", "rtc.clock rtc0: RTCDAPI::showDateTime -> RTCDDAPI::showDateTime: \"RTC device open fail\""},
        {"memory-stuck-bit",
         "memory.pattern-test 0x200000000-0x200400000: MemoryDAPI::patternTest -> MemoryDAPI::verifyMemoryBlock: "
         "\"test pattern compare fail - failed address is 0x0000000200001238\""},
        {"ecc-errors", "memory.ecc dimm2: dimm2: 3 corrected errors"},
        {"pci-parity", "pci.switch-errors SW0: 0000:02:02.0: DetectedParityError"},
        {"machine-check", "cpu.mce : machine checks logged: "},
        {"sata-link", "sata.port-errors SATA0-Port2: SError 0x00000002"},
        {"sata-hot", "sata.smart SATA0-Port0: drive temperature 71.0 C above 60 C"},
        {"uart3-loop", "uart.loopback-test uart3: UARTDAPI::doInternalLoopbackTest -> UARTDDAPI::doInternalLoopbackTest: "
                       "\"compare data fail\""},
    };
    ASSERT_EQ(expected.size(), quarn::vboard::Board::faultList().size()) << "a fault without its case here";
    for (const auto& c : expected) {
        quarn::vboard::Board faulty;
        ASSERT_TRUE(faulty.injectFault(c.first)) << c.first;
        quarn::installPlatform(&faulty);
        std::vector<std::string> failed = failures(run());
        quarn::installPlatform(&board);
        ASSERT_FALSE(failed.empty()) << c.first;
        const std::string kind = c.second.substr(0, c.second.find('.') + 1);
        for (const std::string& f : failed) EXPECT_EQ(f.compare(0, kind.size(), kind), 0) << c.first << "\n" << joined(failed);
        EXPECT_EQ(failed[0].compare(0, c.second.size(), c.second), 0) << c.first << ": " << failed[0];
    }
    EXPECT_FALSE(board.injectFault("no-such-fault"));
}

// The OCP lines keep the artifact order and the verdicts of the run.
TEST_F(BoardCheckTest, OcpLinesFollowTheRun) {
    std::vector<CheckResult> results(2);
    results[0].kind = "sata";
    results[0].name = "sata.smart";
    results[0].part = "SATA0-Port0";
    results[0].measurements.push_back({"drive temperature", 71, "C", true, 60, false, 0});
    results[0].fail("drive temperature 71.0 C above 60 C");
    results[1].kind = "rtc";
    results[1].name = "rtc.clock";
    results[1].status = "skip";
    results[1].error = "no clock";
    const std::string lines = quarn::cli::ocpLines(results, "quarn board check", "dut", "T0", "T1");
    std::vector<std::string> rows;
    for (size_t at = 0, nl; (nl = lines.find('\n', at)) != std::string::npos; at = nl + 1)
        rows.push_back(lines.substr(at, nl - at));
    ASSERT_EQ(rows.size(), 2u + 4u + 3u + 1u);
    EXPECT_EQ(rows[0], R"({"schemaVersion":{"major":2,"minor":0},"sequenceNumber":0,"timestamp":"T0"})");
    EXPECT_NE(rows[1].find(R"("hardwareInfos":[{"hardwareInfoId":"sata:SATA0-Port0","name":"SATA0-Port0","partType":"sata"}])"),
              std::string::npos) << rows[1];
    EXPECT_EQ(rows[3], R"({"testStepArtifact":{"testStepId":"0","measurement":{"name":"drive temperature","value":71,"unit":"C",)"
                       R"("validators":[{"type":"LESS_THAN_OR_EQUAL","value":60}],"hardwareInfoId":"sata:SATA0-Port0"}},)"
                       R"("sequenceNumber":3,"timestamp":"T1"})");
    EXPECT_NE(rows[4].find(R"("diagnosis":{"verdict":"sata.smart-fail","type":"FAIL","message":"drive temperature 71.0 C above 60 C")"),
              std::string::npos) << rows[4];
    EXPECT_NE(rows[7].find(R"("type":"UNKNOWN")"), std::string::npos) << rows[7];
    EXPECT_NE(rows[8].find(R"("testStepEnd":{"status":"SKIP"})"), std::string::npos) << rows[8];
    EXPECT_EQ(rows[9], R"({"testRunArtifact":{"testRunEnd":{"status":"COMPLETE","result":"FAIL"}},"sequenceNumber":9,"timestamp":"T1"})");
}

}  // namespace
