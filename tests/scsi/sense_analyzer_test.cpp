// Sense data translation, tallies and their report, sense texts, designator decoding.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "api/ErrorText.h"
#include "ddapi/scsi/SCSIFactory.h"
#include "ddapi/scsi/SCSISenseAnalyzer.h"
#include "tests/lib/Render.h"

namespace {

using quarn::test::render;
// A 96-byte buffer as the command layer keeps it.
struct Sense {
    unsigned char b[SCSISenseAnalyzer::kSenseBufferLength] = {0};
    static Sense fixed(unsigned key, unsigned asc, unsigned ascq) {
        Sense s;
        s.b[0] = 0x70;
        s.b[2] = static_cast<unsigned char>(key);
        s.b[7] = 10;
        s.b[12] = static_cast<unsigned char>(asc);
        s.b[13] = static_cast<unsigned char>(ascq);
        return s;
    }
    static Sense descriptor(unsigned key, unsigned asc, unsigned ascq, unsigned char code = 0x72) {
        Sense s;
        s.b[0] = code;
        s.b[1] = static_cast<unsigned char>(key);
        s.b[2] = static_cast<unsigned char>(asc);
        s.b[3] = static_cast<unsigned char>(ascq);
        return s;
    }
};

TEST(SenseTranslation, FixedFormatNeedsFourteenBytesForTheCodes) {
    SCSISenseAnalyzer a("Sense Analyzer");
    Sense s = Sense::fixed(5, 0x24, 0);
    EXPECT_EQ(a.translateSenseDataToErrorCode(s.b, 13), 0xcb080004u);
    EXPECT_EQ(a.translateSenseDataToErrorCode(s.b, 18), 0xcb080003u);
    s = Sense::fixed(5, 0x20, 0);
    EXPECT_EQ(a.translateSenseDataToErrorCode(s.b, 18), 0xcb080002u);
    EXPECT_EQ(a.translateSenseDataToErrorCode(s.b, 8), 0xcb080004u);
}

TEST(SenseTranslation, DescriptorFormatIgnoresLength) {
    SCSISenseAnalyzer a("Sense Analyzer");
    Sense s = Sense::descriptor(2, 0x04, 0x01);
    EXPECT_EQ(a.translateSenseDataToErrorCode(s.b, 0), 0xcb080007u);
    EXPECT_EQ(a.translateSenseDataToErrorCode(s.b, 96), 0xcb080007u);
    s = Sense::descriptor(2, 0x3A, 0x00, 0x7F);  // 0x7F still reads as descriptor format
    EXPECT_EQ(a.translateSenseDataToErrorCode(s.b, 4), 0xcb080006u);
    s = Sense::descriptor(2, 0x3A, 0x00, 0x6F);  // below 0x70: no sense data
    EXPECT_EQ(a.translateSenseDataToErrorCode(s.b, 96), 0u);
    s = Sense::descriptor(2, 0x04, 0x02, 0xF3);  // bit 7 is masked off
    EXPECT_EQ(a.translateSenseDataToErrorCode(s.b, 96), 0xcb080001u);
}

TEST(SenseTranslation, EveryKeyMapsAsTheTableSays) {
    SCSISenseAnalyzer a("Sense Analyzer");
    const ERRORCODE full[16] = {0,          0,          0xcb080001, 0xcb080009, 0xcb080009, 0xcb080004,
                                0xcb080008, 0xcb08000a, 0xcb08000a, 0xcb08000a, 0xcb08000a, 0xcb08000b,
                                0xcb08000a, 0xcb08000a, 0xcb08000a, 0xcb08000a};
    const ERRORCODE keyOnly[16] = {0,          0,          0xcb080001, 0xcb080009, 0xcb080009, 0xcb080004,
                                   0xcb080008, 0xcb08000a, 0xcb08000a, 0xcb08000a, 0xcb08000a, 0xcb08000b,
                                   0xcb08000a, 0xcb08000a, 0xcb08000a, 0xcb08000a};
    for (unsigned key = 0; key < 16; ++key) {
        Sense s = Sense::fixed(key, 0x44, 0x00);
        EXPECT_EQ(a.translateSenseDataToErrorCode(s.b, 18), full[key]) << "key " << key;
        EXPECT_EQ(a.translateSenseDataToErrorCode(s.b, 10), keyOnly[key]) << "key " << key;
        Sense d = Sense::descriptor(key, 0x44, 0x00);
        EXPECT_EQ(a.translateSenseDataToErrorCode(d.b, 8), full[key]) << "key " << key;
    }
}

TEST(SenseParsing, ReadsFixedFormatAndLeavesOutputsForAnAllZeroBuffer) {
    SCSISenseAnalyzer a("Sense Analyzer");
    unsigned key = 9, asc = 9, ascq = 9;
    Sense zero;
    EXPECT_EQ(a.parseSenseData(zero.b, &key, &asc, &ascq), 0u);
    EXPECT_EQ(key, 9u);
    EXPECT_EQ(asc, 9u);
    EXPECT_EQ(ascq, 9u);
    Sense s = Sense::fixed(0xF3, 0x11, 0x04);  // flags in the key byte are masked
    s.b[0] = 0x12;                              // the response code is not examined
    EXPECT_EQ(a.parseSenseData(s.b, &key, &asc, &ascq), 0u);
    EXPECT_EQ(key, 3u);
    EXPECT_EQ(asc, 0x11u);
    EXPECT_EQ(ascq, 0x04u);
}

TEST(SenseTally, CountsRepeatsAndListsSortedWithTexts) {
    SCSISenseAnalyzer a("SCSISenseAnalyzer");
    Sense ua = Sense::fixed(6, 0x29, 0x00);
    Sense medium = Sense::fixed(3, 0x11, 0x00);
    EXPECT_EQ(a.setSenseDataByID(7, ua.b), nullptr);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(a.setSenseDataByID(7, medium.b), nullptr);
    Sense none = Sense::fixed(0, 0x00, 0x00);
    EXPECT_EQ(a.setSenseDataByID(7, none.b), nullptr);  // key 0 records nothing

    EXPECT_EQ(render(a.listSenseDataByID(7, false)),
              "StorageDDAPI: \"SG_IO ioctl sense error\"");
    const std::string dashes(92, '-');
    EXPECT_EQ(a.senseReport,
              "\nCategory\tKey\tASC\tASCQ\tError_Condition\t\tCount\n" + dashes + "\n" +
                  "Medium Error\t3\t11\t0\tMedium Error - unrecovered read error\t\t3\n"
                  "Unit Attention\t6\t29\t0\tUnit Attention - POR or device reset occurred\t\t1\n\n");
    EXPECT_EQ(render(a.listSenseDataByID(7, true)), "StorageDDAPI: \"SG_IO ioctl sense error\"");
    EXPECT_EQ(a.senseReport, "3110:3, 6290:1, ");
}

TEST(SenseTally, UnknownDriveListsNoDataAndCannotBeCleared) {
    SCSISenseAnalyzer a("SCSISenseAnalyzer");
    EXPECT_EQ(a.listSenseDataByID(3, false), nullptr);
    EXPECT_EQ(a.senseReport, "\nCategory\tKey\tASC\tASCQ\tError_Condition\t\tCount\n" + std::string(92, '-') +
                                 "\nNoAnyErrorSenseData\n\n");
    EXPECT_EQ(a.listSenseDataByID(3, true), nullptr);
    EXPECT_EQ(a.senseReport, "NoAnyErrorSenseData\t");
    EXPECT_EQ(render(a.clearSenseDataByID(3)),
              "StorageDDAPI::getLogicalIDByName: \"drive 3 has no sense log\"");

    Sense s = Sense::fixed(4, 0x44, 0x00);
    a.setSenseDataByID(3, s.b);
    EXPECT_EQ(a.clearSenseDataByID(3), nullptr);
    EXPECT_EQ(a.listSenseDataByID(3, true), nullptr);  // the record stays, empty
    EXPECT_EQ(a.senseReport, "NoAnyErrorSenseData\t");
    EXPECT_EQ(a.clearSenseDataByID(3), nullptr);
}

TEST(SenseTexts, DefaultsCommonPairsVendorCodesAndTriples) {
    SCSISenseAnalyzer a("Sense Analyzer");
    struct Case {
        unsigned key, asc, ascq;
        const char* category;
        const char* condition;
    } cases[] = {
        {8, 0x08, 0x01, "Other", "LUN communication timeout"},
        {1, 0x90, 0x00, "Soft Error", "Vendor specific"},
        {2, 0x04, 0x85, "Not Ready", "Vendor specific"},
        {4, 0x5C, 0x02, "Hardware Error", "spindles not synchronised"},
        {0, 0x3F, 0x01, "NO Sense", "N/A"},
        {0xB, 0x3F, 0x0F, "Aborted Command", "Aborted Command - echo buffer overwritten"},
        {0xE, 0x1D, 0x00, "Other", "Miscompare - during verify byte check operation"},
        {7, 0x27, 0x00, "Write Protect", "Write Protect - command not allowed"},
        {9, 0x27, 0x00, "Other", "write protected"},
        {2, 0x04, 0x00, "Not Ready", "Not Ready - Cause not reportable."},
        {1, 0x5D, 0x00, "Soft Error", "PFA threshold reached"},
        {3, 0x40, 0x02, "Medium Error", "DRAM parity error"},
        {15, 0x00, 0x00, "Other", "N/A"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(a.categoryOf(c.key), c.category);
        EXPECT_EQ(a.errorConditionOf(c.key, c.asc, c.ascq), c.condition)
            << std::hex << c.key << "/" << c.asc << "/" << c.ascq;
    }
}

TEST(SenseTexts, PassThroughReportPrintsKeyNameAndCodes) {
    unsigned char sense[32] = {0x70, 0, 0x03, 0, 0, 0, 0, 10, 0, 0, 0, 0, 0x11, 0x04};
    testing::internal::CaptureStdout();
    EXPECT_EQ(SCSISenseAnalyzer::printPassThroughSense(sense, sizeof(sense)), 3u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Status: CC\nSK:     Medium Error\nSKV:    03\nASC:    11\nASCQ:   04\n");
    unsigned char clean[32] = {0};
    testing::internal::CaptureStdout();
    EXPECT_EQ(SCSISenseAnalyzer::printPassThroughSense(clean, sizeof(clean)), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(InformationalExceptions, TextsAndFallbacks) {
    SCSIFactory f("SCSIFactory");
    EXPECT_STREQ(f.scsiGetInformationExceptionString(0x5D, 0x04), "FAILURE PREDICTION THRESHOLD EXCEEDED: ascq=0x4");
    EXPECT_STREQ(f.scsiGetInformationExceptionString(0x5D, 0x6D), "FAILURE PREDICTION THRESHOLD EXCEEDED: ascq=0x6d");
    EXPECT_STREQ(f.scsiGetInformationExceptionString(0x5D, 0x1D), "FAILURE PREDICTION THRESHOLD EXCEEDED: ascq=0x1d");
    EXPECT_STREQ(f.scsiGetInformationExceptionString(0x5D, 0xFF), "FAILURE PREDICTION THRESHOLD EXCEEDED (FALSE)");
    EXPECT_STREQ(f.scsiGetInformationExceptionString(0x5D, 0x2B), "CONTROLLER IMPENDING FAILURE SPIN-UP RETRY COUNT");
    EXPECT_STREQ(f.scsiGetInformationExceptionString(0x5D, 0x6C),
                 "FIRMWARE IMPENDING FAILURE DRIVE CALIBRATION RETRY COUNT");
    EXPECT_STREQ(f.scsiGetInformationExceptionString(0x5D, 0x03), "SPARE AREA EXHAUSTION PREDICTION THRESHOLD EXCEEDED");
    EXPECT_STREQ(f.scsiGetInformationExceptionString(0x0B, 0x01), "WARNING - SPECIFIED TEMPERATURE EXCEEDED");
    EXPECT_STREQ(f.scsiGetInformationExceptionString(0x0B, 0x07), "WARNING: ascq=0x7");
    EXPECT_EQ(f.scsiGetInformationExceptionString(0x04, 0x00), nullptr);
}

// Designator list helpers: header bytes then body.
void designator(std::vector<unsigned char>& page, unsigned char b0, unsigned char b1,
                std::vector<unsigned char> body) {
    page.insert(page.end(), {b0, b1, 0, static_cast<unsigned char>(body.size())});
    page.insert(page.end(), body.begin(), body.end());
}

std::string decode(SCSIFactory& f, const std::vector<unsigned char>& page, int* rc, int* transport = nullptr,
                   int outLength = 128) {
    char out[128];
    memset(out, 'x', sizeof(out));
    *rc = f.scsiDecodeLUDevID(page.data(), static_cast<int>(page.size()), out, outLength, transport);
    return std::string(out, strnlen(out, sizeof(out)));
}

TEST(Designators, NaaNameStringAndEui64) {
    SCSIFactory f("SCSIFactory");
    int rc;
    std::vector<unsigned char> page;
    designator(page, 0x01, 0x03, {0x50, 0x00, 0xC5, 0x00, 0xA1, 0xB2, 0xC3, 0xD4});
    EXPECT_EQ(decode(f, page, &rc), "0x5000c500a1b2c3d4");
    EXPECT_EQ(rc, 0);

    std::vector<unsigned char> bad;
    designator(bad, 0x01, 0x03, {0x60, 1, 2, 3, 4, 5, 6, 7});
    EXPECT_EQ(decode(f, bad, &rc), "error: NAA 6 length");
    EXPECT_EQ(rc, -1);

    std::vector<unsigned char> named;
    designator(named, 0x03, 0x08, {'n', 'a', 'a', '.', '5', '0', 0, 0});
    designator(named, 0x01, 0x03, {0x50, 0x00, 0xC5, 0x00, 0xA1, 0xB2, 0xC3, 0xD4});
    EXPECT_EQ(decode(f, named, &rc), "0x5000c500a1b2c3d4");
    EXPECT_EQ(rc, 0);

    std::vector<unsigned char> onlyName;
    designator(onlyName, 0x03, 0x08, {'n', 'a', 'a', '.', '5', '0', 0, 0});
    EXPECT_EQ(decode(f, onlyName, &rc), "naa.50");

    std::vector<unsigned char> eui;
    designator(eui, 0x01, 0x02, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11});
    EXPECT_EQ(decode(f, eui, &rc), "error: EUI-64 length");

    std::vector<unsigned char> wrongSet;
    designator(wrongSet, 0x02, 0x03, {0x50, 0, 0, 0, 0, 0, 0, 0});
    EXPECT_EQ(decode(f, wrongSet, &rc), "error: NAA bad code_set");
}

TEST(Designators, TransportFromTargetPortAndMalformedPages) {
    SCSIFactory f("SCSIFactory");
    int rc;
    int transport = 99;
    std::vector<unsigned char> page;
    designator(page, 0x61, 0x93, {0x50, 0x00, 0xC5, 0x00, 0xA1, 0xB2, 0xC3, 0xD5});  // SAS target port, PIV
    designator(page, 0x01, 0x03, {0x50, 0x00, 0xC5, 0x00, 0xA1, 0xB2, 0xC3, 0xD4});
    EXPECT_EQ(decode(f, page, &rc, &transport), "0x5000c500a1b2c3d4");
    EXPECT_EQ(transport, 6);

    std::vector<unsigned char> cut(page.begin(), page.begin() + 14);  // second header cut short
    EXPECT_EQ(decode(f, cut, &rc, &transport), "error: bad structure");
    EXPECT_EQ(rc, -1);

    std::vector<unsigned char> overrun(page.begin(), page.begin() + 12);
    overrun.insert(overrun.end(), {0x01, 0x03, 0x00, 0x08});
    overrun[3] = 8;
    EXPECT_EQ(decode(f, overrun, &rc), "error: designator length");
    EXPECT_EQ(rc, -1);

    EXPECT_EQ(decode(f, page, &rc, &transport, 31), "");  // too small a buffer
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(transport, -1);

    int offset = -1;
    EXPECT_EQ(f.scsiVPDDevIDIter(page.data(), 0, &offset, -1, -1, -1), -1);
    offset = -1;
    EXPECT_EQ(f.scsiVPDDevIDIter(page.data(), 3, &offset, -1, -1, -1), -2);
    offset = -1;
    EXPECT_EQ(f.scsiVPDDevIDIter(page.data(), static_cast<int>(page.size()), &offset, 0, 3, 1), 0);
    EXPECT_EQ(offset, 12);
    EXPECT_EQ(f.scsiVPDDevIDIter(page.data(), static_cast<int>(page.size()), &offset, 0, 3, 1), -1);
}

TEST(Identification, TrimsBlanksAndStopsAtNul) {
    SCSIFactory f("SCSIFactory");
    unsigned char out[65];
    f.scsiFormatIDtoString("  ST4000NM0025  ", 16, out);
    EXPECT_STREQ(reinterpret_cast<char*>(out), "ST4000NM0025");
    f.scsiFormatIDtoString("        ", 8, out);
    EXPECT_STREQ(reinterpret_cast<char*>(out), "");
    f.scsiFormatIDtoString("SEAGATE\0garbage", 15, out);
    EXPECT_STREQ(reinterpret_cast<char*>(out), "SEAGATE");
    const std::string longText(100, 'A');
    f.scsiFormatIDtoString(longText.c_str(), 100, out);
    EXPECT_EQ(strlen(reinterpret_cast<char*>(out)), 64u);
}

}  // namespace
