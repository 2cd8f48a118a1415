// Error records, chain ownership, the base classes and the string helpers.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "api/BaseClass.h"
#include "api/ErrorText.h"
#include "api/StringUtil.h"
#include "api/platform/Platform.h"
#include "vboard/VirtualBoard.h"

namespace {

// Exposes the message-buffer formatter the way a device class uses it.
class Probe : public BaseClassDAPI {
public:
    Probe() : BaseClassDAPI("probe") {}
    const char* format(int v) {
        return formatMessage("value %d and a long tail that does not fit in seventy-two bytes %d",
                             v, v);
    }
    ErrorMsg* head() const { return m_errorList; }
};

std::vector<unsigned> codes(ErrorMsg* chain) {
    std::vector<unsigned> out;
    for (ErrorMsg* r = chain; r; r = r->getNextErrorMsg()) out.push_back(r->getErrorCode());
    return out;
}

TEST(ErrorMsgChain, LinksAndUnlinks) {
    ErrorMsg* a = new ErrorMsg(1, static_cast<const char*>(nullptr));
    EXPECT_TRUE(a->isListHead());
    EXPECT_EQ(a->getPreviousErrorMsg(), a);
    EXPECT_EQ(a->getDetailMessage(), "");

    ErrorMsg* b = new ErrorMsg(2, std::string("two"));
    ErrorMsg* c = new ErrorMsg(3, "three");
    b->appendToList(c);  // b heads b-c
    a->appendToList(b);  // the whole b-c chain joins behind a
    a->appendToList(nullptr);
    EXPECT_EQ(codes(a), (std::vector<unsigned>{1, 2, 3}));
    EXPECT_FALSE(b->isListHead());
    EXPECT_EQ(c->getPreviousErrorMsg(), b);

    delete b;  // a middle record: neighbours are joined
    EXPECT_EQ(codes(a), (std::vector<unsigned>{1, 3}));
    EXPECT_EQ(c->getPreviousErrorMsg(), a);

    delete a;  // the head: the next record becomes a head
    EXPECT_TRUE(c->isListHead());
    EXPECT_EQ(c->getPreviousErrorMsg(), c);
    deleteErrorMsg(c);
    deleteErrorMsg(nullptr);
}

TEST(ErrorMsgChain, DeleteFromTheMiddleKeepsTheFront) {
    ErrorMsg* a = new ErrorMsg(1, "a");
    a->appendToList(new ErrorMsg(2, "b"));
    a->appendToList(new ErrorMsg(3, "c"));
    deleteErrorMsg(a->getNextErrorMsg());
    EXPECT_EQ(codes(a), (std::vector<unsigned>{1}));
    EXPECT_EQ(a->getNextErrorMsg(), nullptr);
    deleteErrorMsg(a);
}

TEST(BaseClassAPI, NameIsCutAtSixtyFourCharacters) {
    std::string name(70, 'x');
    BaseClassAPI object(name.c_str());
    EXPECT_EQ(strlen(object.getClassName()), 64u);
    EXPECT_EQ(std::string(object.getClassName()), name.substr(0, 64));
    BaseClassAPI unnamed(nullptr);
    EXPECT_STREQ(unnamed.getClassName(), "");
}

TEST(BaseClassAPI, ReturnErrorMsgWrapsAndCodeZeroFreesTheLowerChain) {
    BaseClassAPI object("o");
    ErrorMsg* lower = object.returnErrorMsg(0xCA081801, nullptr, nullptr);
    ErrorMsg* chain = object.returnErrorMsg(0xCA040C00, nullptr, lower);
    EXPECT_EQ(codes(chain), (std::vector<unsigned>{0xCA040C00, 0xCA081801}));
    EXPECT_EQ(object.getErrorMsg(), nullptr);  // the own list is not touched
    // Code 0 frees what it was given (a leak here would fail the sanitizer build).
    EXPECT_EQ(object.returnErrorMsg(0, "ignored", chain), nullptr);
}

TEST(BaseClassAPI, AddErrorMsgAppendsOrWraps) {
    Probe object;
    object.addErrorMsg(0, "nothing");
    EXPECT_EQ(object.head(), nullptr);
    object.addErrorMsg(0, "nothing", new ErrorMsg(9, "freed"));
    EXPECT_EQ(object.head(), nullptr);

    object.addErrorMsg(0xCA041401, "first");
    object.addErrorMsg(0xCA041400, nullptr, new ErrorMsg(0xCA081408, "lower"));
    // Appended at the tail with the lower chain behind it.
    EXPECT_EQ(codes(object.head()), (std::vector<unsigned>{0xCA041401, 0xCA041400, 0xCA081408}));

    // Passing the own list as lower wraps it under the new record.
    object.addErrorMsg(0xCA040000, "wrap", object.head());
    EXPECT_EQ(codes(object.head()),
              (std::vector<unsigned>{0xCA040000, 0xCA041401, 0xCA041400, 0xCA081408}));
    EXPECT_TRUE(object.head()->isListHead());

    ErrorMsg* copy = object.getErrorMsg();
    EXPECT_EQ(codes(copy), (std::vector<unsigned>{0xCA040000, 0xCA041401, 0xCA041400, 0xCA081408}));
    EXPECT_EQ(copy->getNextErrorMsg()->getDetailMessage(), "first");
    EXPECT_EQ(object.head(), nullptr);
    EXPECT_EQ(object.getErrorMsg(), nullptr);  // the second call finds nothing
    std::string text;
    getErrorMessage(copy, &text);
    EXPECT_EQ(text,
              "RTCDAPI: \"wrap\" -> RTCDAPI::rtcAccuracyTest: \"unexpected test result - first\" -> "
              "RTCDAPI::rtcAccuracyTest -> RTCDDAPI::readRTCTimerStatus: \"read rtc dev fail - lower\"");
}

TEST(BaseClassAPI, AddErrorMsgOnAnEmptyListMakesTheHead) {
    Probe object;
    object.addErrorMsg(0xCA041400, nullptr, new ErrorMsg(0xCA081001, "x"));
    EXPECT_EQ(codes(object.head()), (std::vector<unsigned>{0xCA041400, 0xCA081001}));
    object.clearErrorMsg();
    EXPECT_EQ(object.head(), nullptr);
}

TEST(BaseClassAPI, MessageBufferFormattingIsBounded) {
    Probe object;
    const char* text = object.format(12345);
    EXPECT_EQ(strlen(text), 71u);
    EXPECT_EQ(std::string(text).substr(0, 12), "value 12345 ");
}

TEST(BaseClassDAPI, ProgressIsTruncatedPercent) {
    BaseClassDAPI test("t");
    EXPECT_EQ(test.getProgress(), 100u);  // no test running
    test.initProgress(0);
    EXPECT_EQ(test.getProgress(), 100u);
    test.initProgress(3);
    EXPECT_EQ(test.getProgress(), 0u);
    test.updateProgress(1);
    EXPECT_EQ(test.getProgress(), 33u);
    test.updateProgress(2);
    EXPECT_EQ(test.getProgress(), 100u);
    test.initProgress(64ULL << 30);  // a 64 GiB memory test counted in bytes
    test.updateProgress(16ULL << 30);
    EXPECT_EQ(test.getProgress(), 25u);
}

TEST(BaseClassDDAPI, DefaultLedOperationsSucceedAndChangeNothing) {
    BaseClassDDAPI device("d");
    std::list<std::string> names{"keep"};
    std::string status = "same";
    EXPECT_EQ(device.getLEDList(&names), nullptr);
    EXPECT_EQ(device.getLEDStatus("x", &status), nullptr);
    EXPECT_EQ(device.setLEDStatus("x", "on"), nullptr);
    EXPECT_EQ(names.size(), 1u);
    EXPECT_EQ(status, "same");
}

TEST(StringHelpers, Numbers) {
    EXPECT_EQ(Int2Str(-5), "-5");
    EXPECT_EQ(Int2Str(0), "0");
    EXPECT_EQ(Int2HexStr(0x1F, 4), "001f");
    EXPECT_EQ(Int2HexStr(0xABCDE, 2), "abcde");
    EXPECT_EQ(Int2HexStr(0, 0), "0");
    EXPECT_EQ(UINT64ToHexStr(255), "0x00000000000000ff");
    EXPECT_EQ(UINT64ToHexStr(~0ULL), "0xffffffffffffffff");
    EXPECT_EQ(BCDToStr(0x12), "12");
    EXPECT_EQ(BCDToStr(0x59), "59");
}

TEST(StringHelpers, TrimsWorkInPlace) {
    char allC[] = "xxxx";
    EXPECT_STREQ(trimRightChar(allC, 'x'), "");
    char empty[] = "";
    EXPECT_STREQ(trimRightChar(empty, 'x'), "");
    char right[] = "ab  ";
    EXPECT_STREQ(trimRightChar(right, ' '), "ab");

    char left[] = "  ab ";
    char* same = trimLeftChar(left, ' ');
    EXPECT_EQ(same, left);
    EXPECT_STREQ(left, "ab ");
    char onlyC[] = "---";
    EXPECT_STREQ(trimLeftChar(onlyC, '-'), "");
}

TEST(StringHelpers, CaseConversionUsesCLocaleRules) {
    char c = 'q';
    EXPECT_EQ(ConvertCharToUpperCase(&c), 'Q');
    EXPECT_EQ(c, 'Q');
    EXPECT_EQ(ConvertCharToLowerCase(&c), 'q');
    char text[] = "Mixed Case 1-\xe9";
    ConvertStringToUpperCase(text);
    EXPECT_STREQ(text, "MIXED CASE 1-\xe9");
    ConvertStringLowerCase(text);
    EXPECT_STREQ(text, "mixed case 1-\xe9");
}

TEST(StringHelpers, ArchitectureFromTheKernelRelease) {
    quarn::vboard::VirtualBoard board;
    quarn::installPlatform(&board);
    board.setKernelRelease("4.19.0-veltrax-amd64");
    EXPECT_EQ(getArch(), 0);
    board.setKernelRelease("4.9-arm64");
    EXPECT_EQ(getArch(), 1);
    board.setKernelRelease("3.0ppc64");
    EXPECT_EQ(getArch(), 2);
    board.setKernelRelease("4.19.0-armv8");  // "arm" past the seventh character
    EXPECT_EQ(getArch(), 0);
    quarn::installPlatform(nullptr);
}

}  // namespace

TEST(StringHelpers, SplitLinesKeepsEmptyLinesAndCutsLongOnes) {
    using V = std::vector<std::string>;
    EXPECT_EQ(quarn::splitLines(""), V{});
    EXPECT_EQ(quarn::splitLines("\n"), V{""});
    EXPECT_EQ(quarn::splitLines("a\n\nb"), (V{"a", "", "b"}));  // last line without a feed
    EXPECT_EQ(quarn::splitLines("a\nb\n"), (V{"a", "b"}));      // no line after the last feed
    // A line longer than the buffer is cut, and its tail is not taken for a line.
    EXPECT_EQ(quarn::splitLines("abcdef\ngh\n", 3), (V{"abc", "gh"}));
    EXPECT_EQ(quarn::splitLines("abc\n", 0), V{""});
}
