// Error-code rendering: the tables, the index, one record, whole chains.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "api/ErrorText.h"

namespace {

std::string render(ERRORCODE code, const char* detail = nullptr) {
    ErrorMsg record(code, detail);
    std::string out;
    getErrorMsgText(&record, &out);
    return out;
}

const ErrorCodeTextTable* slotFor(uint32_t key) {
    for (const auto& slot : ErrorCodeTextTableCollect)
        if (slot.key == key) return &slot;
    return nullptr;
}

TEST(ErrorTables, IndexHasSixtyDistinctSlotsWithTheDeclaredCounts) {
    std::set<uint32_t> keys;
    for (const auto& slot : ErrorCodeTextTableCollect) keys.insert(slot.key);
    EXPECT_EQ(keys.size(), 60u);

    // Every table's array size is the count its slot gives, slot by slot in order.
    int slot = 0;
#define QUARN_ERROR_TABLE(name, n)                                                     \
    EXPECT_EQ(ErrorCodeTextTableCollect[slot].count, static_cast<int32_t>(name.size())) \
        << #name;                                                                      \
    EXPECT_EQ(ErrorCodeTextTableCollect[slot].count, n) << #name;                      \
    if (n > 0) {                                                                       \
        EXPECT_EQ(ErrorCodeTextTableCollect[slot].table, name.data()) << #name;         \
    }                                                                                  \
    ++slot;
#include "api/ErrorTableList.h"
#undef QUARN_ERROR_TABLE
    EXPECT_EQ(slot, 60);

    EXPECT_EQ(ErrorCodeTextTableCollect[0].key, 0x3F000000u);
    EXPECT_EQ(ErrorCodeTextTableCollect[1].key, 0x000C0000u);
    EXPECT_EQ(ErrorCodeTextTableCollect[2].key, 0xC0000200u);
}

TEST(ErrorTables, IndexCountsMatchTheModuleLayerTable) {
    struct Expect {
        uint32_t key;
        int count;
    } expected[] = {
        {0xC1040000, 13}, {0xC1080000, 4},  {0xC10C0000, 1},  {0xC2040000, 32}, {0xC2080000, 24},
        {0xC20C0000, 8},  {0xC3040000, 31}, {0xC3080000, 50}, {0xC30C0000, 6},  {0xC4040000, 24},
        {0xC4080000, 40}, {0xC40C0000, 0},  {0xC5040000, 33}, {0xC5080000, 50}, {0xC50C0000, 1},
        {0xC6040000, 4},  {0xC6080000, 21}, {0xC60C0000, 1},  {0xC7040000, 38}, {0xC7080000, 21},
        {0xC70C0000, 1},  {0xC8040000, 18}, {0xC8080000, 39}, {0xC80C0000, 0},  {0xC9040000, 44},
        {0xC9080000, 44}, {0xCA040000, 8},  {0xCA080000, 16}, {0xCB080000, 34}, {0xCC040000, 7},
        {0xCC080000, 17}, {0xCD040000, 6},  {0xCD080000, 26}, {0xCE040000, 4},  {0xCE080000, 1},
        {0xCE0C0000, 0},  {0xCF040000, 6},  {0xCF080000, 29}, {0xCF0C0000, 0},  {0xD0040000, 10},
        {0xD0080000, 24}, {0xD00C0000, 0},  {0xD1080000, 13}, {0xD2040000, 6},  {0xD2080000, 9},
        {0xD20C0000, 0},  {0xD3040000, 2},  {0xD3080000, 2},  {0xD4040000, 8},  {0xD4080000, 15},
        {0xD5040000, 7},  {0xD5080000, 14}, {0xD6040000, 7},  {0xD6080000, 10}, {0xD7040000, 37},
        {0xD7080000, 50}, {0xD8080000, 5},
    };
    ASSERT_EQ(sizeof(expected) / sizeof(expected[0]), 57u);
    for (const Expect& e : expected) {
        const ErrorCodeTextTable* slot = slotFor(e.key);
        ASSERT_NE(slot, nullptr) << std::hex << e.key;
        EXPECT_EQ(slot->count, e.count) << std::hex << e.key;
    }
    EXPECT_EQ(slotFor(0xCB040000), nullptr);  // SCSI has no diagnostic layer
    EXPECT_EQ(slotFor(0xCA0C0000), nullptr);
}

TEST(ErrorTables, TextsAreTerminatedAndShortEnough) {
    for (const auto& slot : ErrorCodeTextTableCollect) {
        for (int32_t i = 0; i < slot.count; ++i) {
            const ErrorCodeText& e = slot.table[i];
            EXPECT_LT(strnlen(e.text, sizeof(e.text)), sizeof(e.text)) << std::hex << e.code;
            EXPECT_GT(strlen(e.text), 0u) << std::hex << e.code;
        }
    }
}

// Every function row (key | k<<10) and error row (key | n) of every module table
// renders, with its own text unless an earlier row holds the same code. Rows stored
// with both fields set (the Storage defect-list rows) or with neither are neither kind:
// they render by the same rules, which the last test below pins down.
TEST(ErrorTables, EveryFunctionAndErrorRowRendersWithoutTheFallback) {
    int rows = 0;
    for (int s = 3; s < kErrorCodeTextTableSlots; ++s) {
        const ErrorCodeTextTable& slot = ErrorCodeTextTableCollect[s];
        std::set<uint32_t> seen;
        for (int32_t i = 0; i < slot.count; ++i) {
            const ErrorCodeText& e = slot.table[i];
            const bool hasFunction = (e.code & 0x3FC00u) != 0, hasNumber = (e.code & 0x1FFu) != 0;
            if (hasFunction == hasNumber) continue;
            const std::string text = render(e.code);
            EXPECT_EQ(text.find("Fail to parse"), std::string::npos)
                << std::hex << e.code << " -> " << text;
            ++rows;
            const bool own = (e.code & 0xFF0C0000u) == slot.key;
            if (!own || !seen.insert(e.code).second) continue;
            if (hasNumber) {
                EXPECT_EQ(text.substr(text.size() - strlen(e.text) - 1), e.text + std::string("\""));
            } else {
                EXPECT_EQ(text.substr(text.size() - strlen(e.text) - 2), "::" + std::string(e.text));
            }
        }
    }
    EXPECT_GT(rows, 900);
}

TEST(ErrorTables, RowsStoredOutsideTheRowForms) {
    // Function 17 with error 1: the error is searched as key | 1, which the table lacks.
    EXPECT_EQ(render(0xC4044401), "StorageDAPI::getPGListByIDFail to parse error code!!");
    // Neither field: module and layer only.
    EXPECT_EQ(render(0xCC040000), "UARTDAPI");
    // Stored with the Memory module: rendered through the Memory table.
    EXPECT_EQ(render(0xC2081400), "MemoryDDAPI::writeMemory");
}

TEST(ErrorTables, CommonAndIoctlTables) {
    EXPECT_EQ(render(0xC0000201), "Fail to parse error code!!");  // no module
    EXPECT_EQ(render(0xCA080201), "RTCDDAPI: \"Illegal request\"");
    EXPECT_EQ(render(0xCA08023C), "RTCDDAPI: \"register is write-only\"");
    for (uint32_t gap : {0x211u, 0x21Bu, 0x21Cu, 0x220u, 0x221u, 0x22Fu})
        EXPECT_EQ(render(0xCA080000 | gap), "RTCDDAPIFail to parse error code!!") << std::hex << gap;
    EXPECT_STREQ(IOCTLErrorCodeText[2].text, "IOCTL set controller ID  failed");
    EXPECT_EQ(render(0xC0000220), "Fail to parse error code!!");
}

TEST(ErrorRendering, TheDocumentedForms) {
    EXPECT_EQ(render(0xCA080E05, "rate isn't support"),
              "RTCDDAPI::setRTCTimerRate: \"Bad parameter 1 - rate isn't support\"");
    EXPECT_EQ(render(0xCA040C02, ""), "RTCDAPI::setDate: \"value out of range\"");
    EXPECT_EQ(render(0xCA041400), "RTCDAPI::rtcAccuracyTest");
    EXPECT_EQ(render(0xCA041400, "d"), "RTCDAPI::rtcAccuracyTest: \"d\"");
    EXPECT_EQ(render(0xCA080001), "RTCDDAPI: \"RTC device open fail\"");
    EXPECT_EQ(render(0xCA080001, "x"), "RTCDDAPI: \"RTC device open fail - x\"");
    EXPECT_EQ(render(0xCA080000, "only"), "RTCDDAPI: \"only\"");
    EXPECT_EQ(render(0xCA080000), "RTCDDAPI");
    EXPECT_EQ(render(0xD9080000), "Fail to parse error code!!");  // module 0x19
    EXPECT_EQ(render(0xCA000000), "RTCFail to parse error code!!");  // layer 0
    EXPECT_EQ(render(0), "Fail to parse error code!!");
    // A missing function row stops after the layer; the detail is not written.
    EXPECT_EQ(render(0xCA08FC01, "lost"), "RTCDDAPIFail to parse error code!!");
    // A missing error row keeps the function text.
    EXPECT_EQ(render(0xCA080C1F, "lost"), "RTCDDAPI::setRTCTimerRateFail to parse error code!!");
    // The marker is not part of module or layer lookups, but is needed for common errors.
    EXPECT_EQ(render(0x0A080C00), "RTCDDAPIFail to parse error code!!");
}

TEST(ErrorRendering, ParseErrorTextAppendsOnlyWhenFound) {
    std::string out = "x";
    parseErrorText(0x0A000000, 0x3F000000, &out);
    EXPECT_EQ(out, "xRTC");
    parseErrorText(0x0A000000, 0x12345678, &out);  // no such slot
    parseErrorText(0xCA08FFFF, 0xCA080000, &out);  // no such entry
    parseErrorText(0xC4080000, 0xC40C0000, &out);  // empty table
    EXPECT_EQ(out, "xRTC");
    // A code listed twice: the first text wins.
    std::string dup;
    parseErrorText(0xC9082C00, 0xC9080000, &dup);
    EXPECT_EQ(dup, "fail to send eeprom command");
    parseErrorTextFail(&dup);
    EXPECT_EQ(dup, "fail to send eeprom commandFail to parse error code!!");
}

ErrorMsg* chainOf(std::initializer_list<uint32_t> codes) {
    ErrorMsg* head = nullptr;
    for (uint32_t c : codes) {
        ErrorMsg* r = new ErrorMsg(c, static_cast<const char*>(nullptr));
        if (head)
            head->appendToList(r);
        else
            head = r;
    }
    return head;
}

TEST(ErrorRendering, ChainsUseOneSeparatorBetweenRecordsAndAreFreed) {
    std::string out = "> ";
    getErrorMessage(chainOf({0xCA040C00, 0xCA081800, 0xCA081801}), &out);
    EXPECT_EQ(out, "> RTCDAPI::setDate -> RTCDDAPI::setDate -> RTCDDAPI::setDate: \"RTC device open fail\"");

    // Starting from a record that is not a head: a leading separator, and only the
    // records from there on are freed.
    ErrorMsg* head = chainOf({0xCA040C00, 0xCA081801});
    ErrorMsg* second = head->getNextErrorMsg();
    std::string tail;
    getErrorMessage(second, &tail);
    EXPECT_EQ(tail, " -> RTCDDAPI::setDate: \"RTC device open fail\"");
    EXPECT_EQ(head->getNextErrorMsg(), nullptr);
    delete head;

    std::string unchanged = "keep";
    getErrorMessage(nullptr, &unchanged);
    EXPECT_EQ(unchanged, "keep");
}

TEST(ErrorRendering, LastMessageIsTheInnermostQuotedText) {
    std::string out = "old";
    getLastErrorMessage(chainOf({0xCA040C00, 0xCA081801}), &out);
    EXPECT_EQ(out, "RTC device open fail");

    ErrorMsg* withDetail = chainOf({0xCA040000});
    withDetail->appendToList(new ErrorMsg(0xCA080E05, "rate isn't support"));
    getLastErrorMessage(withDetail, &out);
    EXPECT_EQ(out, "Bad parameter 1 - rate isn't support");

    getLastErrorMessage(chainOf({0xCA040C00}), &out);  // no quote at all
    EXPECT_EQ(out, "RTCDAPI::setDate");

    getLastErrorMessage(nullptr, &out);
    EXPECT_EQ(out, "");

    // Text after the last quote is the last piece read.
    getLastErrorMessage(chainOf({0xCA040C02, 0xD9000000}), &out);
    EXPECT_EQ(out, " -> Fail to parse error code!!");

    // An empty piece between adjacent quotes counts as a piece.
    getLastErrorMessage(new ErrorMsg(0xCA040000, "\""), &out);
    EXPECT_EQ(out, "");
}

}  // namespace
