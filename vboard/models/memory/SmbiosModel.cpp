// The board firmware's SMBIOS memory description and the board tools of the DIMM inventory.
#include "vboard/models/memory/SmbiosModel.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include "api/platform/Platform.h"
#include "vboard/VirtualBoard.h"
#include "vboard/models/i2c/I2cBoard.h"

namespace quarn::vboard {

namespace {
const char kDmidecode[] = "/usr/sbin/dmidecode";
const char kDecodeDimms[] = "/usr/bin/decode-dimms";
constexpr uint16_t kArrayHandle = 0x1000;
constexpr uint16_t kFirstDeviceHandle = 0x1100;

void put16(std::string& s, size_t at, uint16_t v) {
    s[at] = static_cast<char>(v & 0xFF);
    s[at + 1] = static_cast<char>(v >> 8);
}
void put32(std::string& s, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) s[at + i] = static_cast<char>((v >> (8 * i)) & 0xFF);
}
void put64(std::string& s, size_t at, uint64_t v) {
    for (int i = 0; i < 8; ++i) s[at + i] = static_cast<char>((v >> (8 * i)) & 0xFF);
}

// A structure: formatted area of length bytes, then its strings, then the double NUL.
std::string structure(uint8_t type, uint8_t length, uint16_t handle) {
    std::string s(length, '\0');
    s[0] = static_cast<char>(type);
    s[1] = static_cast<char>(length);
    put16(s, 2, handle);
    return s;
}
std::string strings(const std::vector<std::string>& texts) {
    std::string out;
    for (const std::string& t : texts) out += t + '\0';
    if (out.empty()) out += '\0';
    return out + '\0';
}

// The few JEP106 makers the board's DIMMs come from (firmware carries its own list).
std::string makerName(uint8_t bank, uint8_t code) {
    const int b = bank & 0x7F;
    if (b == 0 && code == 0xCE) return "Samsung";
    if (b == 0 && code == 0xAD) return "SK Hynix";
    if (b == 0 && code == 0x2C) return "Micron";
    if (b == 4 && code == 0xCB) return "A-DATA Technology";
    char text[16];
    snprintf(text, sizeof(text), "%02X%02X", bank, code);
    return text;
}

std::string spdText(const std::vector<uint8_t>& spd, size_t first, size_t count) {
    std::string text;
    for (size_t i = first; i < first + count && i < spd.size() && spd[i]; ++i) text += static_cast<char>(spd[i]);
    while (!text.empty() && text.back() == ' ') text.pop_back();
    return text;
}

// Board paths among the arguments become host paths; options pass unchanged.
std::vector<std::string> hostArguments(VirtualBoard& board, const std::vector<std::string>& argv, size_t from) {
    std::vector<std::string> out;
    for (size_t i = from; i < argv.size(); ++i)
        out.push_back(!argv[i].empty() && argv[i][0] == '/' ? board.hostPath(argv[i]) : argv[i]);
    return out;
}

int runHost(const std::vector<std::string>& argv, std::string* out) {
    if (::access(argv[0].c_str(), X_OK) != 0) return 127;  // as a shell reports a missing tool
    int status = 0;
    if (linuxPlatform().runProgram(argv, out, &status, false) != 0) return 127;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
}
}  // namespace

SmbiosMemoryDevice memoryDeviceFromSpd(const std::vector<uint8_t>& spd, const std::string& locator,
                                       const std::string& bankLocator, uint16_t configuredSpeed) {
    SmbiosMemoryDevice d;
    d.locator = locator;
    d.bankLocator = bankLocator;
    d.configuredSpeed = configuredSpeed;
    if (spd.size() < 256) return d;
    const bool ddr4 = spd[2] == 0x0C;
    const size_t org = ddr4 ? 12 : 7, bus = ddr4 ? 13 : 8;
    const uint64_t dieMbit = 256ULL << (spd[4] & 0x0F);
    const uint64_t busBits = 8ULL << (spd[bus] & 0x07);
    const uint64_t devBits = 4ULL << (spd[org] & 0x07);
    const uint64_t ranks = ((spd[org] >> 3) & 0x07) + 1;
    d.sizeMiB = static_cast<uint32_t>(dieMbit / 8 * (busBits / devBits) * ranks);
    d.ranks = static_cast<uint8_t>(ranks);
    d.memoryType = ddr4 ? 0x1A : 0x18;
    if (ddr4) {
        static const uint16_t rates[] = {0, 0, 0, 0, 0, 3200, 2666, 2400, 2133, 1866, 1600};
        d.speed = spd[18] < sizeof(rates) / sizeof(rates[0]) ? rates[spd[18]] : 0;
        d.millivolts = 1200;
        if (spd.size() >= 512) {
            d.manufacturer = makerName(spd[320], spd[321]);
            char serial[16];
            snprintf(serial, sizeof(serial), "%02X%02X%02X%02X", spd[325], spd[326], spd[327], spd[328]);
            d.serial = serial;
            d.part = spdText(spd, 329, 20);
        }
    } else {
        d.speed = spd[12] ? static_cast<uint16_t>(16000 / spd[12]) : 0;  // tCK in 1/8 ns
        d.millivolts = 1500;
        d.manufacturer = makerName(spd[117], spd[118]);
        char serial[16];
        snprintf(serial, sizeof(serial), "%02X%02X%02X%02X", spd[122], spd[123], spd[124], spd[125]);
        d.serial = serial;
        d.part = spdText(spd, 128, 18);
    }
    return d;
}

std::string buildSmbiosDump(const std::vector<SmbiosMemoryDevice>& devices) {
    std::string table;
    uint64_t totalKiB = 0;
    for (const SmbiosMemoryDevice& d : devices) totalKiB += static_cast<uint64_t>(d.sizeMiB) << 10;

    // Type 16: the system memory array, multi-bit ECC, room for the board's slots.
    std::string array = structure(16, 0x17, kArrayHandle);
    array[4] = 0x03;  // system board
    array[5] = 0x03;  // system memory
    array[6] = 0x06;  // multi-bit ECC
    put32(array, 7, static_cast<uint32_t>(devices.size() * (64ULL << 20)));  // 64 GiB a slot, in KiB
    put16(array, 0x0B, 0xFFFE);
    put16(array, 0x0D, static_cast<uint16_t>(devices.size()));
    table += array + strings({});

    for (size_t i = 0; i < devices.size(); ++i) {
        const SmbiosMemoryDevice& d = devices[i];
        const bool present = d.sizeMiB != 0;
        std::string s = structure(17, 0x28, static_cast<uint16_t>(kFirstDeviceHandle + i));
        put16(s, 0x04, kArrayHandle);
        put16(s, 0x06, 0xFFFE);
        put16(s, 0x08, present ? 72 : 0xFFFF);
        put16(s, 0x0A, present ? 64 : 0xFFFF);
        // Sizes from 32 GiB on do not fit the 15-bit MiB field: 0x7FFF points to 0x1C.
        if (d.sizeMiB >= 0x7FFF) {
            put16(s, 0x0C, 0x7FFF);
            put32(s, 0x1C, d.sizeMiB);
        } else {
            put16(s, 0x0C, static_cast<uint16_t>(d.sizeMiB));
        }
        s[0x0E] = 0x09;  // DIMM
        s[0x10] = 1;     // locator
        s[0x11] = 2;     // bank locator
        s[0x12] = static_cast<char>(present ? d.memoryType : 0x02);
        put16(s, 0x13, present ? d.typeDetail : 0x0004);
        put16(s, 0x15, present ? d.speed : 0);
        s[0x17] = 3;
        s[0x18] = 4;
        s[0x19] = 5;
        s[0x1A] = 6;
        s[0x1B] = static_cast<char>(present ? d.ranks & 0x0F : 0);
        put16(s, 0x20, present ? d.configuredSpeed : 0);
        put16(s, 0x22, present ? d.millivolts : 0);
        put16(s, 0x24, present ? d.millivolts : 0);
        put16(s, 0x26, present ? d.millivolts : 0);
        const std::string none = "NO DIMM";
        table += s + strings({d.locator, d.bankLocator, present ? d.manufacturer : none,
                              present ? d.serial : none, d.locator + "_AssetTag", present ? d.part : none});
    }

    // Type 19: the one range the array is mapped at.
    std::string mapped = structure(19, 0x1F, 0x1300);
    put32(mapped, 0x04, 0);
    put32(mapped, 0x08, totalKiB ? static_cast<uint32_t>(totalKiB - 1) : 0);
    put16(mapped, 0x0C, kArrayHandle);
    mapped[0x0E] = static_cast<char>(devices.size());
    table += mapped + strings({});
    table += structure(127, 4, 0xFEFF) + strings({});

    std::string entry(0x20, '\0');
    entry.replace(0, 5, "_SM3_");
    entry[6] = 0x18;  // entry point length
    entry[7] = 3;     // SMBIOS 3.0.0
    entry[8] = 0;
    entry[9] = 0;
    entry[0x0A] = 1;  // entry point revision
    put32(entry, 0x0C, static_cast<uint32_t>(table.size()));
    put64(entry, 0x10, 0x20);
    unsigned int sum = 0;
    for (int i = 0; i < 0x18; ++i) sum += static_cast<unsigned char>(entry[i]);
    entry[5] = static_cast<char>((0x100 - (sum & 0xFF)) & 0xFF);
    return entry + table;
}

SmbiosFirmware::SmbiosFirmware(VirtualBoard& board, std::vector<SmbiosMemoryDevice> devices)
    : m_board(board), m_devices(std::move(devices)) {
    update();
    // Where the inventory leaves its SPD dumps; every Linux system has it.
    board.mkdir("/tmp", 01777);
    // Broadwell-DE: the memory controller is in the processor, with two channels.
    board.writeFile(kMcInfoPath, "CPU_INTEGRATED=TRUE\nCHANNEL_NUM=2\n");

    board.addProgram("dmidecode", [this](const std::vector<std::string>& argv, std::string* out) {
        m_calls.push_back(argv);
        std::vector<std::string> args = {kDmidecode, "--from-dump", m_board.hostPath(kDumpPath)};
        for (const std::string& a : hostArguments(m_board, argv, 1)) args.push_back(a);
        return runHost(args, out);
    });
    board.addProgram("decode-dimms", [this](const std::vector<std::string>& argv, std::string* out) {
        m_calls.push_back(argv);
        std::vector<std::string> args = {kDecodeDimms};
        for (const std::string& a : hostArguments(m_board, argv, 1)) args.push_back(a);
        return runHost(args, out);
    });
    board.addProgram("uname", [this](const std::vector<std::string>& argv, std::string* out) {
        m_calls.push_back(argv);
        if (argv.size() > 1 && argv[1] == "-m") {
            *out += "x86_64\n";
        } else if (argv.size() > 1 && argv[1] == "-r") {
            std::string release;
            m_board.kernelRelease(&release);
            *out += release + "\n";
        } else {
            *out += "Linux\n";
        }
        return 0;
    });
}

std::unique_ptr<SmbiosFirmware> installBoardFirmware(VirtualBoard& board, I2cBoard& i2c) {
    std::vector<SmbiosMemoryDevice> devices;
    for (int d = 0; d < I2cBoard::kDimms; ++d) {
        char locator[16], bank[40];
        snprintf(locator, sizeof(locator), "DIMM_%c%d", 'A' + d / 2, d % 2);
        snprintf(bank, sizeof(bank), "NODE 0 CHANNEL %d DIMM %d", d / 2, d % 2);
        devices.push_back(memoryDeviceFromSpd(i2c.spd[d]->bytes(), locator, bank, 2133));
    }
    return std::make_unique<SmbiosFirmware>(board, devices);
}

void SmbiosFirmware::update() { m_board.writeFile(kDumpPath, buildSmbiosDump(m_devices)); }

}  // namespace quarn::vboard
