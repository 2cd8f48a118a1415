// The storage tests over the board's drive list.
#include "dapi/storage/StorageDAPI.h"

#include <fcntl.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include "api/StringUtil.h"
#include "api/platform/Platform.h"
#include "dapi/nvme/NVMeDAPI.h"
#include "ddapi/scsi/SCSIFactory.h"
#include "ddapi/scsi/SCSISenseAnalyzer.h"

namespace {
constexpr ERRORCODE kCreateFail = 0xC404060F;
constexpr ERRORCODE kIOCTL = 0xC4040800;
constexpr ERRORCODE kGenerateList = 0xC4040C00;
constexpr ERRORCODE kGetLogicalIDByName = 0xC4041800;
constexpr ERRORCODE kGetDataByID = 0xC4041C00;
constexpr ERRORCODE kGetSMARTInfoByID = 0xC4042000;
constexpr ERRORCODE kGetDataByName = 0xC4042800;
constexpr ERRORCODE kReadTest = 0xC4043000;
constexpr ERRORCODE kWriteTest = 0xC4043400;
constexpr ERRORCODE kReadWriteTest = 0xC4043800;
constexpr ERRORCODE kSetSectorCount = 0xC4043C00;
constexpr ERRORCODE kWriteZero = 0xC4044000;
constexpr ERRORCODE kPGList = 0xC4044400;

constexpr ERRORCODE kWrongNodeName = 0x01;
constexpr ERRORCODE kCompareFail = 0x02;
constexpr ERRORCODE kOpenFail = 0x03;
constexpr ERRORCODE kCloseFail = 0x04;
constexpr ERRORCODE kUnknownType = 0x05;
constexpr ERRORCODE kDumpWrongType = 0x06;
constexpr ERRORCODE kNoSmart = 0x07;
constexpr ERRORCODE kOutOfRange = 0x219;
constexpr ERRORCODE kAllocateFail = 0x23A;
// The throughput tests' own error rows (the high bits of the read-write test's row).
constexpr ERRORCODE kTestRows = 0xC4047400;
constexpr ERRORCODE kReadWriteRows = 0xC4047C00;

constexpr unsigned int kWritePattern = 0x5555AAAAu;
constexpr unsigned int kReadWritePattern = 0xAAAA5555u;

std::string fixed2(double v) {
    char text[48];
    snprintf(text, sizeof(text), "%.2f", v);
    return text;
}
}  // namespace

StorageDAPI::StorageDAPI(const char* name)
    : BaseClassDAPI(name),
      m_device(new (std::nothrow) StorageDDAPIOperation("StorageDDAPIOperation")),
      m_factory(new (std::nothrow) SCSIFactory("SCSIFactory")),
      m_analyzer(new (std::nothrow) SCSISenseAnalyzer("SCSISenseAnalyzer")),
      m_nvme(new (std::nothrow) NVMeDAPI("NVMeDAPI")),
      m_sectors(2048),
      m_commands(0),
      m_seconds(0) {
    if (!m_device || !m_factory || !m_analyzer || !m_nvme) {
        addErrorMsg(kCreateFail, "Create storage DDAPI fail");
        return;
    }
    if (ErrorMsg* e = m_device->getErrorMsg()) addErrorMsg(kCreateFail, "Create storage DDAPI fail", e);
    // The NVMe layer's own notes (a controller without a namespace) are not failures here.
    if (ErrorMsg* e = m_nvme->getErrorMsg()) deleteErrorMsg(e);
}

StorageDAPI::~StorageDAPI() {
    delete m_nvme;
    delete m_analyzer;
    delete m_factory;
    delete m_device;
}

ErrorMsg* StorageDAPI::generateStorageList() {
    if (!m_device) return returnErrorMsg(kGenerateList | kAllocateFail, nullptr, nullptr);
    if (ErrorMsg* e = m_device->generateStorageList()) return returnErrorMsg(kGenerateList, nullptr, e);
    return nullptr;
}

ErrorMsg* StorageDAPI::IOCTL(unsigned int id, StorageIOCTLOperation op) {
    if (!m_device) return returnErrorMsg(kIOCTL | kAllocateFail, nullptr, nullptr);
    if (ErrorMsg* e = m_device->IOCTL(id, op)) return returnErrorMsg(kIOCTL, nullptr, e);
    return nullptr;
}

ErrorMsg* StorageDAPI::getLogicalIdByName(std::string name, unsigned int* id) {
    if (!m_device) return returnErrorMsg(kGetLogicalIDByName | kAllocateFail, nullptr, nullptr);
    if (ErrorMsg* e = m_device->getLogicalIdByName(name, id)) return returnErrorMsg(kGetLogicalIDByName, nullptr, e);
    return nullptr;
}

ErrorMsg* StorageDAPI::getDataByID(unsigned int id, StorageDataElement element, std::string* out) {
    if (!m_device) return returnErrorMsg(kGetDataByID | kAllocateFail, nullptr, nullptr);
    if (ErrorMsg* e = m_device->getDataByID(id, element, out)) return returnErrorMsg(kGetDataByID, nullptr, e);
    return nullptr;
}

ErrorMsg* StorageDAPI::getDataByName(std::string name, StorageDataElement element, std::string* out) {
    if (!m_device) return returnErrorMsg(kGetDataByName | kAllocateFail, nullptr, nullptr);
    if (ErrorMsg* e = m_device->getDataByName(name, element, out)) return returnErrorMsg(kGetDataByName, nullptr, e);
    return nullptr;
}

ErrorMsg* StorageDAPI::setSectorCountPerRDWRAccess(unsigned int id) {
    if (!m_device) return returnErrorMsg(kSetSectorCount | kAllocateFail, nullptr, nullptr);
    unsigned int type = 0;
    if (ErrorMsg* e = m_device->getControllerTypeByID(id, &type)) return returnErrorMsg(kSetSectorCount, nullptr, e);
    switch (type) {
        case STORAGE_TYPE_USB:
            m_sectors = 128;
            return nullptr;
        case STORAGE_TYPE_SAS:
        case 1:
        case STORAGE_TYPE_NVME:
            m_sectors = 2048;
            return nullptr;
        default:
            return returnErrorMsg(kReadWriteRows | kUnknownType, formatMessage("type %u", type), nullptr);
    }
}

ErrorMsg* StorageDAPI::geometry(ERRORCODE code, unsigned int id, std::string* node, unsigned long long* capacityMB,
                                unsigned int* blockSize) {
    std::string capacity, block;
    ErrorMsg* e = m_device->getDataByID(id, STORAGE_DATA_SG_NODE, node);
    if (!e) e = m_device->getDataByID(id, STORAGE_DATA_CAPACITY, &capacity);
    if (!e) e = m_device->getDataByID(id, STORAGE_DATA_LOGICAL_BLOCK_SIZE, &block);
    if (e) return returnErrorMsg(code, nullptr, e);
    *capacityMB = strtoull(capacity.c_str(), nullptr, 10);
    *blockSize = static_cast<unsigned int>(strtoul(block.c_str(), nullptr, 10));
    if (node->empty()) return returnErrorMsg(code | kWrongNodeName, "no SG device node", nullptr);
    if (*blockSize == 0 || *blockSize % 512 != 0)
        return returnErrorMsg(code | kOutOfRange, formatMessage("block size %u", *blockSize), nullptr);
    return nullptr;
}

// The sense of the transfer just made goes into the drive's log.
ErrorMsg* StorageDAPI::recordSense(unsigned int id) {
    return m_analyzer->setSenseDataByID(id, m_factory->getCurrentSenseBuffer());
}

// The analyzer's listing ends every result; conditions met make the test fail.
ErrorMsg* StorageDAPI::finish(ERRORCODE code, unsigned int id, bool compact) {
    ErrorMsg* listing = m_analyzer->listSenseDataByID(id, compact);
    m_result += m_analyzer->senseReport;
    return listing ? returnErrorMsg(code, nullptr, listing) : nullptr;
}

ErrorMsg* StorageDAPI::readPerformanceTest(unsigned int id, unsigned long long startLBA, unsigned int sizeMB,
                                           bool compact) {
    return throughput(Kind::Read, id, startLBA, sizeMB, compact);
}

ErrorMsg* StorageDAPI::writePerformanceTest(unsigned int id, unsigned long long startLBA, unsigned int sizeMB,
                                            bool compact) {
    return throughput(Kind::Write, id, startLBA, sizeMB, compact);
}

ErrorMsg* StorageDAPI::readwriteTest(unsigned int id, unsigned long long startLBA, unsigned int sizeMB, bool compact) {
    return throughput(Kind::ReadWrite, id, startLBA, sizeMB, compact);
}

// Each command is timed on its own (the clock is read before and after it), so the
// compare and the bookkeeping between commands are not part of the speed.
ErrorMsg* StorageDAPI::throughput(Kind kind, unsigned int id, unsigned long long startLBA, unsigned int sizeMB,
                                  bool compact) {
    const ERRORCODE code = kind == Kind::Read ? kReadTest : kind == Kind::Write ? kWriteTest : kReadWriteTest;
    const ERRORCODE rows = kind == Kind::ReadWrite ? kReadWriteRows : kTestRows;
    m_result.clear();
    m_commands = 0;
    m_seconds = 0;
    if (!m_device || !m_factory || !m_analyzer) return returnErrorMsg(code | kAllocateFail, nullptr, nullptr);
    if (ErrorMsg* e = setSectorCountPerRDWRAccess(id)) return returnErrorMsg(code, nullptr, e);
    std::string node;
    unsigned long long capacity = 0;
    unsigned int blockSize = 0;
    if (ErrorMsg* e = geometry(code, id, &node, &capacity, &blockSize)) return e;
    if (capacity < 2) return returnErrorMsg(code | kOutOfRange, formatMessage("capacity %llu MB", capacity), nullptr);
    const unsigned long long totalBlocks = (capacity << 20) / blockSize;
    const unsigned long long last = ((capacity << 20) - (1ull << 20)) / blockSize;
    const unsigned long long first = startLBA <= last ? startLBA : startLBA - last;
    if (first > last) return returnErrorMsg(code | kOutOfRange, formatMessage("LBA %llu", startLBA), nullptr);

    const unsigned int bytesPerCommand = m_sectors * blockSize;
    std::vector<unsigned int> buffer(bytesPerCommand / 4, 0);
    std::vector<unsigned int> readBack;
    if (kind == Kind::Write) buffer.assign(bytesPerCommand / 4, kWritePattern);
    if (kind == Kind::ReadWrite) {
        buffer.assign(bytesPerCommand / 4, kReadWritePattern);
        readBack.assign(bytesPerCommand / 4, 0);
    }
    quarn::Platform& p = quarn::platform();
    const int fd = p.open(node, O_RDWR | O_NONBLOCK | O_SYNC);
    if (fd < 0)
        return returnErrorMsg(rows | kOpenFail,
                              formatMessage("%.30s: %.30s", node.c_str(), quarn::systemErrorText(errno).c_str()), nullptr);
    if (ErrorMsg* e = m_analyzer->clearSenseDataByID(id)) deleteErrorMsg(e);  // a fresh log per test

    const unsigned long long unit = static_cast<unsigned long long>(blockSize) * 2048;
    const unsigned long long target = unit * sizeMB;
    unsigned long long bytes = 0;
    unsigned long long lba = first;
    uint64_t elapsedNs = 0;
    initProgress(sizeMB);
    auto* data = reinterpret_cast<unsigned char*>(buffer.data());
    auto* back = reinterpret_cast<unsigned char*>(readBack.data());
    ErrorMsg* failure = nullptr;
    while (bytes < target) {
        uint64_t t0 = p.monotonicNanoseconds();
        if (kind == Kind::Read) {
            failure = m_factory->executeSCSIRead(fd, lba, m_sectors, data, bytesPerCommand);
        } else {
            failure = m_factory->executeSCSIWrite(fd, lba, m_sectors, data, bytesPerCommand);
        }
        elapsedNs += p.monotonicNanoseconds() - t0;
        ++m_commands;
        if (!failure) failure = recordSense(id);
        if (!failure && kind == Kind::ReadWrite) {
            t0 = p.monotonicNanoseconds();
            failure = m_factory->executeSCSIRead(fd, lba, m_sectors, back, bytesPerCommand);
            elapsedNs += p.monotonicNanoseconds() - t0;
            ++m_commands;
            if (!failure) failure = recordSense(id);
            if (!failure && memcmp(data, back, bytesPerCommand) != 0) {
                const unsigned char* a = data;
                size_t at = 0;
                while (a[at] == back[at]) ++at;
                updateProgress(sizeMB);
                p.close(fd);
                m_seconds = elapsedNs / 1e9;
                return returnErrorMsg(rows | kCompareFail,
                                      formatMessage("LBA %llu byte %zu", lba + at / blockSize, at % blockSize), nullptr);
            }
        }
        if (failure) {
            updateProgress(sizeMB);
            p.close(fd);
            m_seconds = elapsedNs / 1e9;
            return returnErrorMsg(code, formatMessage("LBA %llu", lba), failure);
        }
        lba += m_sectors;
        if (lba > last || lba + m_sectors > totalBlocks) lba = first;
        bytes += bytesPerCommand;
        if (bytes % unit == 0) updateProgress(1);
    }
    m_seconds = elapsedNs / 1e9;
    if (p.close(fd) != 0) return returnErrorMsg(rows | kCloseFail, quarn::systemErrorText(errno).c_str(), nullptr);
    const double units = static_cast<double>(bytes / unit);
    const double speed = m_seconds > 0 ? units / m_seconds : 0.0;
    if (compact) {
        std::string name;
        if (ErrorMsg* e = m_device->getNameByID(id, &name)) deleteErrorMsg(e);
        m_result = name + ": " + fixed2(m_seconds) + "s\t" + fixed2(speed) + "MB/s\t";
    } else {
        m_result = "Spend time : " + fixed2(m_seconds) + " s\nSpeed      : " + fixed2(speed) + " MB/s\n";
    }
    return finish(code, id, compact);
}

// Writes zeroes over the whole drive (the last 2 MB excepted), 128 blocks per command
// on USB and 4096 on the others.
ErrorMsg* StorageDAPI::writeZeroByID(unsigned int id, unsigned long long startLBA, bool compact) {
    const ERRORCODE code = kWriteZero;
    m_result.clear();
    m_commands = 0;
    m_seconds = 0;
    if (!m_device || !m_factory || !m_analyzer) return returnErrorMsg(code | kAllocateFail, nullptr, nullptr);
    unsigned int type = 0;
    if (ErrorMsg* e = m_device->getControllerTypeByID(id, &type)) return returnErrorMsg(code, nullptr, e);
    m_sectors = type == STORAGE_TYPE_USB ? 128 : 4096;
    std::string node;
    unsigned long long capacity = 0;
    unsigned int blockSize = 0;
    if (ErrorMsg* e = geometry(code, id, &node, &capacity, &blockSize)) return e;
    if (capacity < 3) return returnErrorMsg(code | kOutOfRange, formatMessage("capacity %llu MB", capacity), nullptr);
    const unsigned long long totalBlocks = (capacity << 20) / blockSize;
    const unsigned long long last = ((capacity << 20) - (2ull << 20)) / blockSize;
    const unsigned long long first = startLBA <= last ? startLBA : startLBA - last;
    if (first > last) return returnErrorMsg(code | kOutOfRange, formatMessage("LBA %llu", startLBA), nullptr);
    const unsigned int bytesPerCommand = m_sectors * blockSize;
    std::vector<unsigned char> zeros(bytesPerCommand, 0);
    quarn::Platform& p = quarn::platform();
    const int fd = p.open(node, O_RDWR | O_NONBLOCK | O_SYNC);
    if (fd < 0)
        return returnErrorMsg(code | kOpenFail,
                              formatMessage("%.30s: %.30s", node.c_str(), quarn::systemErrorText(errno).c_str()), nullptr);
    if (ErrorMsg* e = m_analyzer->clearSenseDataByID(id)) deleteErrorMsg(e);
    initProgress(capacity);
    const unsigned long long target = capacity * 2048 * blockSize;
    const unsigned long long step = static_cast<unsigned long long>(blockSize) * 4096;
    unsigned long long bytes = 0;
    unsigned long long lba = first;
    const uint64_t began = p.monotonicNanoseconds();
    while (bytes < target) {
        ErrorMsg* failure = m_factory->executeSCSIWrite(fd, lba, m_sectors, zeros.data(), bytesPerCommand);
        ++m_commands;
        if (!failure) failure = recordSense(id);
        if (failure) {
            updateProgress(capacity);
            p.close(fd);
            return returnErrorMsg(code, formatMessage("LBA %llu", lba), failure);
        }
        lba += m_sectors;
        if (lba > last || lba + m_sectors > totalBlocks) lba = first;
        bytes += bytesPerCommand;
        if (bytes % step == 0) updateProgress(2);
    }
    m_seconds = (p.monotonicNanoseconds() - began) / 1e9;
    if (p.close(fd) != 0) return returnErrorMsg(code | kCloseFail, quarn::systemErrorText(errno).c_str(), nullptr);
    if (compact) {
        std::string name;
        if (ErrorMsg* e = m_device->getNameByID(id, &name)) deleteErrorMsg(e);
        m_result = name + ": ";
    }
    return finish(code, id, compact);
}

ErrorMsg* StorageDAPI::getPGListByID(unsigned int id, unsigned int requestPList, unsigned int requestGList,
                                     unsigned int format, bool compact) {
    const ERRORCODE code = kPGList;
    m_result.clear();
    if (!m_device || !m_factory) return returnErrorMsg(code | kAllocateFail, nullptr, nullptr);
    const bool plist = requestPList & 1, glist = requestGList & 1;
    if (!plist && !glist) return returnErrorMsg(code | kWrongNodeName, "neither P nor G list requested", nullptr);
    std::string name, node;
    if (ErrorMsg* e = m_device->getNameByID(id, &name)) return returnErrorMsg(code, nullptr, e);
    if (ErrorMsg* e = m_device->getDataByID(id, STORAGE_DATA_SG_NODE, &node)) return returnErrorMsg(code, nullptr, e);
    if (compact) m_result = name + ": ";
    std::vector<unsigned char> reply(2048, 0);
    quarn::Platform& p = quarn::platform();
    const int fd = p.open(node, O_RDWR | O_NONBLOCK | O_SYNC);
    if (fd < 0)
        return returnErrorMsg(code | kOpenFail,
                              formatMessage("%.30s: %.30s", node.c_str(), quarn::systemErrorText(errno).c_str()), nullptr);
    ErrorMsg* failure = m_factory->scsiReadDefect12(fd, requestPList, requestGList, format, 0, reply.data(), 2048);
    if (p.close(fd) != 0 && !failure)
        failure = returnErrorMsg(code | kCloseFail, quarn::systemErrorText(errno).c_str(), nullptr);
    if (failure) return returnErrorMsg(code, nullptr, failure);
    std::string hex;
    unsigned int field[1];
    memcpy(field, reply.data() + 4, 4);
    if (ErrorMsg* e = dumpHexDataToString(&hex, field, 4, "HEX", false)) return returnErrorMsg(code, nullptr, e);
    const unsigned long length = strtoul(hex.c_str(), nullptr, 16);
    const char* label = plist && glist ? "P&G-ListCount: " : plist ? "P-ListCount: " : "G-ListCount: ";
    m_result += label + std::to_string(length) + (compact ? "" : "\n");
    return nullptr;
}

double StorageDAPI::int128_to_double(unsigned char* value) {
    double result = 0;
    for (int i = 15; i >= 0; --i) result = result * 256 + value[i];
    return result;
}

ErrorMsg* StorageDAPI::dumpHexDataToString(std::string* out, unsigned int* data, unsigned int length,
                                           std::string format, bool newline) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(data);
    std::string text;
    char cell[8];
    if (format == "HEX") {
        for (unsigned int i = 0; i < length; ++i) {
            snprintf(cell, sizeof(cell), "%02x", bytes[i]);
            text += cell;
        }
    } else if (format == "ASCII") {
        for (unsigned int i = 0; i < length; ++i) text += (bytes[i] >= 0x20 && bytes[i] < 0x7F) ? static_cast<char>(bytes[i]) : '.';
    } else if (format.empty()) {
        for (unsigned int i = 0; i < length; ++i) {
            snprintf(cell, sizeof(cell), "%02x", bytes[i]);
            text += cell;
            text += (i % 32 == 31 || i + 1 == length) ? "\n" : " ";
        }
    } else {
        return returnErrorMsg(kPGList | kDumpWrongType, formatMessage("%.40s", format.c_str()), nullptr);
    }
    if (newline && (text.empty() || text.back() != '\n')) text += "\n";
    if (out) *out = text;
    return nullptr;
}

ErrorMsg* StorageDAPI::getSMARTInfoByID(unsigned int id) {
    const ERRORCODE code = kGetSMARTInfoByID;
    m_result.clear();
    if (!m_device || !m_nvme) return returnErrorMsg(code | kAllocateFail, nullptr, nullptr);
    unsigned int type = 0;
    if (ErrorMsg* e = m_device->getControllerTypeByID(id, &type)) return returnErrorMsg(code, nullptr, e);
    if (type == STORAGE_TYPE_SAS) {
        if (ErrorMsg* e = m_device->getSMARTInfoByID(id, &m_result)) return returnErrorMsg(code, nullptr, e);
        return nullptr;
    }
    if (type != STORAGE_TYPE_NVME) return returnErrorMsg(kPGList | kNoSmart, formatMessage("type %u", type), nullptr);
    std::string name;
    if (ErrorMsg* e = m_device->getNameByID(id, &name)) return returnErrorMsg(code, nullptr, e);
    unsigned char controller = 0;
    if (ErrorMsg* e = m_nvme->getLogicalIDByName(name, &controller)) return returnErrorMsg(code, nullptr, e);
    nvme_smart_log s;
    if (ErrorMsg* e = m_nvme->getSmartLogByController(controller, &s)) return returnErrorMsg(code, nullptr, e);
    auto counter = [this](const uint8_t* v) {
        char text[48];
        snprintf(text, sizeof(text), "%.0f", int128_to_double(const_cast<unsigned char*>(v)));
        return std::string(text);
    };
    const int kelvin = s.temperature[0] | s.temperature[1] << 8;
    std::string r = "Smart Log for NVME device: " + name + "\n";
    char text[64];
    snprintf(text, sizeof(text), "0x%02x", s.critical_warning);
    r += "critical_warning                    : " + std::string(text) + "\n";
    r += "temperature                         : " + std::to_string(kelvin ? kelvin - 273 : 0) + " C\n";
    r += "available_spare                     : " + std::to_string(s.avail_spare) + "%\n";
    r += "available_spare_threshold           : " + std::to_string(s.spare_thresh) + "%\n";
    r += "percentage_used                     : " + std::to_string(s.percent_used) + "%\n";
    r += "data_units_read                     : " + counter(s.data_units_read) + "\n";
    r += "data_units_written                  : " + counter(s.data_units_written) + "\n";
    r += "host_read_commands                  : " + counter(s.host_reads) + "\n";
    r += "host_write_commands                 : " + counter(s.host_writes) + "\n";
    r += "controller_busy_time                : " + counter(s.ctrl_busy_time) + "\n";
    r += "power_cycles                        : " + counter(s.power_cycles) + "\n";
    r += "power_on_hours                      : " + counter(s.power_on_hours) + "\n";
    r += "unsafe_shutdowns                    : " + counter(s.unsafe_shutdowns) + "\n";
    r += "media_errors                        : " + counter(s.media_errors) + "\n";
    r += "num_err_log_entries                 : " + counter(s.num_err_log_entries) + "\n";
    r += "Warning Temperature Time            : " + std::to_string(s.warning_temp_time) + "\n";
    r += "Critical Composite Temperature Time : " + std::to_string(s.critical_comp_time) + "\n";
    for (int i = 0; i < 8; ++i) {
        if (s.temp_sensor[i])
            r += "Temperature Sensor " + std::to_string(i + 1) + "                : " +
                 std::to_string(static_cast<int>(s.temp_sensor[i]) - 273) + " C\n";
        else
            r += "Temperature Sensor                  : 0 C\n";
    }
    m_result = r;
    return nullptr;
}
