// Diagnostic layer of the SATA ports: wraps device-layer failures in its own function
// rows and runs the throughput tests over the drive's SG node.
#include "dapi/sata/SATADAPI.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include "api/StringUtil.h"
#include "api/platform/Platform.h"
#include "ddapi/scsi/SCSISenseAnalyzer.h"

namespace {
constexpr ERRORCODE kIOCTL = 0xC8040800;
constexpr ERRORCODE kGenerateSATAList = 0xC8040C00;
constexpr ERRORCODE kGetLogicalIDByName = 0xC8041800;
constexpr ERRORCODE kGetDataByID = 0xC8041C00;
constexpr ERRORCODE kGetSMARTInfoByID = 0xC8042000;
constexpr ERRORCODE kGetErrorRegisterByID = 0xC8042400;
constexpr ERRORCODE kGetDataByName = 0xC8042800;
constexpr ERRORCODE kIdentifyCommandTest = 0xC8042C00;
constexpr ERRORCODE kReadPerformanceTest = 0xC8043000;
constexpr ERRORCODE kWritePerformanceTest = 0xC8043400;
constexpr ERRORCODE kReadWriteTest = 0xC8043800;

constexpr ERRORCODE kCompareFail = 0x02;
constexpr ERRORCODE kOpenNodeFail = 0x03;
constexpr ERRORCODE kCloseNodeFail = 0x04;
constexpr ERRORCODE kAllocateFail = 0x23A;  // common row "allocate memory fail"

constexpr ERRORCODE kDeviceSenseRow = 0x13;  // device layer "SG_IO ioctl sense error"

constexpr unsigned int kBlock = 512;
constexpr unsigned int kWritePattern = 0xAAAA5555u;
constexpr unsigned int kReadWritePattern = 0x5555AAAAu;
}  // namespace

SATADAPI::SATADAPI(const char* name) : BaseClassDAPI(name), m_device(nullptr), m_analyzer(nullptr), m_commands(0) {}

SATADAPI::~SATADAPI() {
    delete m_device;
    delete m_analyzer;
}

SATADDAPI* SATADAPI::device() {
    if (!m_device) m_device = new (std::nothrow) SATADDAPI("SATA");
    return m_device;
}

SCSISenseAnalyzer* SATADAPI::getSenseAnalyzer() {
    if (!m_analyzer) m_analyzer = new (std::nothrow) SCSISenseAnalyzer("SATA Sense Analyzer");
    return m_analyzer;
}

ErrorMsg* SATADAPI::forward(ERRORCODE function, ErrorMsg* cause) {
    return cause ? returnErrorMsg(function, nullptr, cause) : nullptr;
}

ErrorMsg* SATADAPI::generateSATAList() {
    if (!device()) return returnErrorMsg(kGenerateSATAList | kAllocateFail, nullptr, nullptr);
    return forward(kGenerateSATAList, m_device->generateSATAList());
}

ErrorMsg* SATADAPI::IOCTL(unsigned int id, SATAIOCTLOperation op) {
    if (!device()) return returnErrorMsg(kIOCTL | kAllocateFail, nullptr, nullptr);
    return forward(kIOCTL, m_device->IOCTL(id, op));
}

ErrorMsg* SATADAPI::getLogicalIdByName(std::string name, unsigned int* id) {
    if (!device()) return returnErrorMsg(kGetLogicalIDByName | kAllocateFail, nullptr, nullptr);
    return forward(kGetLogicalIDByName, m_device->getLogicalIdByName(name, id));
}

ErrorMsg* SATADAPI::getDataByID(unsigned int id, SATADataElement element, std::string* out) {
    if (!device()) return returnErrorMsg(kGetDataByID | kAllocateFail, nullptr, nullptr);
    return forward(kGetDataByID, m_device->getDataByID(id, element, out));
}

ErrorMsg* SATADAPI::getDataByName(std::string name, SATADataElement element, std::string* out) {
    if (!device()) return returnErrorMsg(kGetDataByName | kAllocateFail, nullptr, nullptr);
    return forward(kGetDataByName, m_device->getDataByName(name, element, out));
}

ErrorMsg* SATADAPI::getErrorRegisterByID(unsigned int id, SATAErrorElement element, std::string* out) {
    if (!device()) return returnErrorMsg(kGetErrorRegisterByID | kAllocateFail, nullptr, nullptr);
    return forward(kGetErrorRegisterByID, m_device->getErrorRegisterByID(id, element, out));
}

ErrorMsg* SATADAPI::getSMARTInfoByID(unsigned int id, unsigned int first, unsigned int last, std::string* out) {
    if (!device()) return returnErrorMsg(kGetSMARTInfoByID | kAllocateFail, nullptr, nullptr);
    return forward(kGetSMARTInfoByID, m_device->getSMARTInfoByID(id, first, last, out));
}

ErrorMsg* SATADAPI::identifyCommandTest(unsigned int id) {
    if (!device()) return returnErrorMsg(kIdentifyCommandTest | kAllocateFail, nullptr, nullptr);
    return forward(kIdentifyCommandTest, m_device->identifyCommandTest(id));
}

ErrorMsg* SATADAPI::readBySCSI(unsigned int, unsigned int, unsigned int) { return nullptr; }
ErrorMsg* SATADAPI::writeBySCSI(unsigned int, unsigned int, unsigned int) { return nullptr; }

ErrorMsg* SATADAPI::readPerformanceTest(unsigned int id, unsigned int startIndex, unsigned int sizeMB) {
    return runTest(TestKind::Read, id, startIndex, sizeMB);
}

ErrorMsg* SATADAPI::writePerformanceTest(unsigned int id, unsigned int startIndex, unsigned int sizeMB) {
    return runTest(TestKind::Write, id, startIndex, sizeMB);
}

ErrorMsg* SATADAPI::readwriteTest(unsigned int id, unsigned int startIndex, unsigned int sizeMB) {
    return runTest(TestKind::ReadWrite, id, startIndex, sizeMB);
}

// The condition a failed command met goes into the analyzer's log of that port.
void SATADAPI::recordSense(unsigned int id) {
    SCSISenseAnalyzer* analyzer = getSenseAnalyzer();
    if (!analyzer || !m_device) return;
    unsigned char sense[SCSISenseAnalyzer::kSenseBufferLength];
    m_device->getFixedSense(sense, sizeof(sense));
    if (ErrorMsg* e = analyzer->setSenseDataByID(id, sense)) deleteErrorMsg(e);
}

// Each transfer is timed on the monotonic clock (the interval timer's job: it measures
// only the transfers, not the compare or the bookkeeping between them).
ErrorMsg* SATADAPI::runTest(TestKind kind, unsigned int id, unsigned int startIndex, unsigned int sizeMB) {
    const ERRORCODE code = kind == TestKind::Read    ? kReadPerformanceTest
                           : kind == TestKind::Write ? kWritePerformanceTest
                                                     : kReadWriteTest;
    m_commands = 0;
    if (!device()) return returnErrorMsg(code | kAllocateFail, nullptr, nullptr);
    if (ErrorMsg* e = m_device->generateSATAList()) return returnErrorMsg(code, nullptr, e);
    std::string sgNode;
    if (ErrorMsg* e = m_device->getDataByID(id, SATA_DATA_SG_NODE, &sgNode)) return returnErrorMsg(code, nullptr, e);
    unsigned int capacityMB = 0;
    if (ErrorMsg* e = m_device->readCapacity16(id, &capacityMB)) return returnErrorMsg(code, nullptr, e);

    std::vector<unsigned int> buffer(kBlock / 4, 0);
    std::vector<unsigned int> readBack;
    if (kind == TestKind::Write) buffer.assign(kBlock / 4, kWritePattern);
    if (kind == TestKind::ReadWrite) {
        buffer.assign(kBlock / 4, kReadWritePattern);
        readBack.assign(kBlock / 4, 0);
    }

    quarn::Platform& p = quarn::platform();
    const int fd = p.open(sgNode, O_RDWR | O_NONBLOCK | O_SYNC);
    if (fd < 0)
        return returnErrorMsg(code | kOpenNodeFail,
                              formatMessage("\"%.30s\": %s", sgNode.c_str(), quarn::systemErrorText(errno).c_str()),
                              nullptr);

    // The wrap point keeps the walk inside the low part of the drive.
    const unsigned long long wrap = static_cast<unsigned long long>(capacityMB & 0xFFF) * 2048;
    const unsigned long long total = static_cast<unsigned long long>(sizeMB) << 20;
    unsigned long long counted = 0;
    unsigned long long elapsedNs = 0;
    unsigned int index = startIndex;
    initProgress(sizeMB);

    ErrorMsg* failure = nullptr;
    while (counted < total) {
        ERRORCODE cause = 0;
        const uint64_t before = p.monotonicNanoseconds();
        if (kind == TestKind::Read) {
            cause = m_device->PREAD(fd, buffer.data(), kBlock, index);
            ++m_commands;
        } else if (kind == TestKind::Write) {
            cause = m_device->PWRITE(fd, buffer.data(), kBlock, index);
            ++m_commands;
        } else {
            cause = m_device->PWRITE(fd, buffer.data(), kBlock, startIndex);
            ++m_commands;
            if (cause == 0) {
                cause = m_device->PREAD(fd, readBack.data(), kBlock, startIndex);
                ++m_commands;
            }
        }
        elapsedNs += p.monotonicNanoseconds() - before;
        if (cause != 0) {
            if ((cause & 0xFF) == kDeviceSenseRow) recordSense(id);
            const unsigned int at = kind == TestKind::ReadWrite ? startIndex : index;
            failure = returnErrorMsg(code, formatMessage("block group %u", at),
                                     new ErrorMsg(cause, formatMessage("LBA %u", at)));
            break;
        }
        if (kind == TestKind::ReadWrite && memcmp(buffer.data(), readBack.data(), kBlock) != 0) {
            failure = returnErrorMsg(code | kCompareFail, formatMessage("block group %u", startIndex), nullptr);
            break;
        }
        if (kind != TestKind::ReadWrite) {
            ++index;
            if (index >= wrap && wrap > startIndex) index = startIndex;
        }
        counted += kBlock;
        if (counted % (1u << 20) == 0) updateProgress(1);
    }

    if (!failure) {
        const double seconds = elapsedNs / 1e9;
        const double megabytes = static_cast<double>(counted) / (1u << 20);
        char text[128];
        snprintf(text, sizeof(text), "Spend time : %.2f s\nSpeed      : %.2f MB/s\n", seconds,
                 seconds > 0 ? megabytes / seconds : 0.0);
        m_result = text;
    }
    if (p.close(fd) != 0 && !failure)
        failure = returnErrorMsg(code | kCloseNodeFail, quarn::systemErrorText(errno).c_str(), nullptr);
    return failure;
}
