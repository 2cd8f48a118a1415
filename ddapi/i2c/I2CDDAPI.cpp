// Device layer of I2C: the board's I2C profile, the bus/switch/device topology, switch
// routing, and register transfers by well-known name or by bus and address.
#include "ddapi/i2c/I2CDDAPI.h"

#include <linux/i2c.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>
#include <vector>

#include "api/StringUtil.h"
#include "api/platform/Files.h"

namespace quarn::i2c {
const char kProfilePath[] = "/etc/quarn/I2C_profile.ini";
const char kProfileDirectory[] = "/etc/quarn/";
}  // namespace quarn::i2c

namespace {
using namespace quarn::i2c;

constexpr ERRORCODE kConstructor = 0xCF080C00;
constexpr ERRORCODE kReadByAddress = 0xCF081000;
constexpr ERRORCODE kWriteByAddress = 0xCF081400;
constexpr ERRORCODE kInitDevice = 0xCF081800;
constexpr ERRORCODE kInitBus = 0xCF081C00;
constexpr ERRORCODE kInitProtocol = 0xCF082000;
constexpr ERRORCODE kMuxTest = 0xCF082400;

constexpr ERRORCODE kOpenProfileFail = 0x02;
constexpr ERRORCODE kNoDevice = 0x03;
constexpr ERRORCODE kBusNull = 0x0F;
constexpr ERRORCODE kBusNotFound = 0x10;
constexpr ERRORCODE kNotNumber = 0x12;
constexpr ERRORCODE kTypeNotMatch = 0x13;
constexpr ERRORCODE kMuxTestFail = 0x14;
constexpr ERRORCODE kOutOfRange = 0x219;
constexpr ERRORCODE kBadFormat = 0x236;

// Logical bus numbers only name switch channels; this bound keeps them printable and
// far from anything a table could be indexed with.
constexpr unsigned long kMaxLogicalBus = 0xFF;

std::vector<std::string> splitBlanks(const std::string& line) {
    std::vector<std::string> tokens;
    size_t i = 0;
    while (i < line.size()) {
        while (i < line.size() && line[i] == ' ') ++i;
        if (i >= line.size()) break;
        size_t j = i;
        while (j < line.size() && line[j] != ' ') ++j;
        tokens.push_back(line.substr(i, j - i));
        i = j;
    }
    return tokens;
}

// The whole token must be digits; no sign, no blanks, no overflow past max.
bool parseNumber(const std::string& token, int base, unsigned long max, unsigned long* out) {
    size_t i = 0;
    if (base == 16 && token.size() > 2 && token[0] == '0' && (token[1] == 'x' || token[1] == 'X'))
        i = 2;
    if (i >= token.size()) return false;
    unsigned long value = 0;
    bool overflow = false;
    for (; i < token.size(); ++i) {
        const unsigned char c = static_cast<unsigned char>(token[i]);
        int digit;
        if (c >= '0' && c <= '9')
            digit = c - '0';
        else if (base == 16 && c >= 'a' && c <= 'f')
            digit = c - 'a' + 10;
        else if (base == 16 && c >= 'A' && c <= 'F')
            digit = c - 'A' + 10;
        else
            return false;
        if (value > (0xFFFFFFFFul - static_cast<unsigned long>(digit)) / static_cast<unsigned long>(base))
            overflow = true;
        else
            value = value * static_cast<unsigned long>(base) + static_cast<unsigned long>(digit);
    }
    // An overlong number is a number, just out of range: report it as such.
    *out = overflow ? max + 1 : value;
    return true;
}

I2C_DEVICE_TYPE typeFromKeyword(const std::string& word) {
    static const struct {
        const char* keyword;
        I2C_DEVICE_TYPE type;
    } kTypes[] = {
        {"mux", I2C_DEVICE_TYPE_MUX},           {"temperature", I2C_DEVICE_TYPE_TEMPERATURE},
        {"battery", I2C_DEVICE_TYPE_BATTERY},   {"spd_ddr1", I2C_DEVICE_TYPE_SPD_DDR1},
        {"spd_ddr2", I2C_DEVICE_TYPE_SPD_DDR2}, {"spd_ddr3", I2C_DEVICE_TYPE_SPD_DDR3},
        {"spd_ddr4", I2C_DEVICE_TYPE_SPD_DDR4}, {"vpd", I2C_DEVICE_TYPE_VPD},
    };
    for (const auto& t : kTypes)
        if (word == t.keyword) return t.type;
    return I2C_DEVICE_TYPE_UNKNOWN;
}

// Protocol keyword; allowVpd for the "all" key only. false for an unknown word.
bool protocolFromKeyword(const std::string& word, bool allowVpd, I2C_DEVICE_PROTOCOL* out) {
    static const struct {
        const char* keyword;
        I2C_DEVICE_PROTOCOL protocol;
    } kProtocols[] = {
        {"byte", I2C_DEVICE_PROTOCOL_SMBUS_BYTE},
        {"byte_data", I2C_DEVICE_PROTOCOL_SMBUS_BYTE_DATA},
        {"word", I2C_DEVICE_PROTOCOL_SMBUS_WORD_DATA},
        {"block", I2C_DEVICE_PROTOCOL_SMBUS_BLOCK_DATA},
        {"i2c_block", I2C_DEVICE_PROTOCOL_SMBUS_I2C_BLOCK_DATA},
        {"vpd_block_data", I2C_DEVICE_PROTOCOL_VPD_BLOCK_DATA},
        {"pmbus_block", I2C_DEVICE_PROTOCOL_PMBUS_BLOCK},
    };
    for (const auto& p : kProtocols) {
        if (word != p.keyword) continue;
        if (p.protocol == I2C_DEVICE_PROTOCOL_VPD_BLOCK_DATA && !allowVpd) return false;
        *out = p.protocol;
        return true;
    }
    return false;
}

// What a section header line names, scanned as " [%[^]]" would: leading white space,
// a bracket, then everything up to a closing bracket or the end of the line.
bool sectionName(const std::string& line, std::string* name) {
    size_t i = 0;
    while (i < line.size() && isspace(static_cast<unsigned char>(line[i]))) ++i;
    if (i >= line.size() || line[i] != '[') return false;
    const size_t close = line.find(']', i + 1);
    const std::string n = line.substr(i + 1, close == std::string::npos ? std::string::npos : close - i - 1);
    if (n.empty()) return false;
    *name = n;
    return true;
}

bool onlyBlanks(const std::string& line) {
    for (char c : line)
        if (c != ' ' && c != '\t' && c != '\r') return false;
    return true;
}

// Each walk and each table entry involves at most this many 8-bit masks.
uint32_t channelMask(int k) { return 1u << k; }
}  // namespace

I2CDDAPI::I2CDDAPI(const char* class_name)
    : BaseClassDDAPI(class_name),
      last_result(nullptr),
      m_devices{},
      m_buses{},
      switch_count(0),
      m_route{},
      m_routeHops(0),
      m_profileWarnings(nullptr) {
    loadProfile();
}

I2CDDAPI::~I2CDDAPI() {
    for (I2CDevice*& d : m_devices) {
        delete d;
        d = nullptr;
    }
    for (I2CBus*& b : m_buses) {
        delete b;
        b = nullptr;
    }
    deleteErrorMsg(m_profileWarnings);
}

void I2CDDAPI::loadProfile() {
    std::string text;
    if (quarn::readTextFile(kProfilePath, &text) != 0) {
        addErrorMsg(kConstructor | kOpenProfileFail, nullptr);
        return;
    }
    std::string section;
    int topologyIndex = 0;
    int lineNumber = 0;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        const bool hasFeed = nl != std::string::npos;
        if (!hasFeed) nl = text.size();
        std::string line = text.substr(pos, nl - pos);
        pos = hasFeed ? nl + 1 : nl;
        ++lineNumber;

        // One line is read into a 500-byte buffer with its line feed; a longer line is
        // refused whole, so its tail can never be taken for a line of its own.
        if (line.size() + (hasFeed ? 1 : 0) > static_cast<size_t>(kMaxProfileLine)) {
            formatMessage("line longer than %d characters", kMaxProfileLine);
            ErrorMsg* cause = returnErrorMsg(kConstructor | kBadFormat, m_message, nullptr);
            if (section == "Protocol") {
                addErrorMsg(kConstructor | kOpenProfileFail, "Initial I2C Protocol fail", cause);
                return;
            }
            addProfileWarning(lineNumber, cause);
            continue;
        }
        if (!line.empty() && line[0] == '#') continue;
        std::string name;
        if (sectionName(line, &name)) {
            section = name;
            continue;
        }
        if (onlyBlanks(line)) continue;
        // Profiles edited on other systems end lines with CR LF; the CR is not data.
        if (!line.empty() && line.back() == '\r') line.pop_back();
        bool fatal = false;
        processLine(section, line, lineNumber, &topologyIndex, &fatal);
        if (fatal) return;
    }

    for (int slot = 0; slot < kMaxDevices && m_devices[slot]; ++slot) {
        I2CDevice* device = m_devices[slot];
        I2CDevice* hops[kMaxRouteHops];
        const int master = walk(device->get_Bus(), hops);
        if (master < 0) {
            formatMessage(master == -2 ? "%s: route longer than %d hops" : "%s on bus 0x%x",
                          device->get_Name().c_str(),
                          master == -2 ? kMaxRouteHops : device->get_Bus());
            addErrorMsg(kConstructor | kBusNotFound, m_message);
            return;
        }
        if (master >= kMaxBuses || !m_buses[master]) {
            formatMessage("%s on bus 0x%x", device->get_Name().c_str(), master);
            addErrorMsg(kConstructor | kBusNull, m_message);
            return;
        }
        device->set_Master_bus(m_buses[master]);
    }
}

void I2CDDAPI::processLine(const std::string& section, const std::string& line, int lineNumber,
                           int* topologyIndex, bool* fatal) {
    if (section == "BUS") {
        if (ErrorMsg* e = Initial_I2C_BUS(line)) addProfileWarning(lineNumber, e);
    } else if (section == "Topology") {
        const int slot = (*topologyIndex)++;
        if (slot >= kMaxDevices) {
            formatMessage("more than %d Topology lines", kMaxDevices);
            addProfileWarning(lineNumber, returnErrorMsg(kInitDevice | kOutOfRange, m_message, nullptr));
            return;
        }
        if (ErrorMsg* e = Initial_I2C_device(line, slot)) addProfileWarning(lineNumber, e);
    } else if (section == "Protocol") {
        ErrorMsg* e = Initial_I2C_Protocol(line);
        if (e) {
            addErrorMsg(kConstructor | kOpenProfileFail, "Initial I2C Protocol fail", e);
            *fatal = true;
        }
    }
}

void I2CDDAPI::addProfileWarning(int lineNumber, ErrorMsg* cause) {
    char detail[48];
    snprintf(detail, sizeof(detail), "I2C_profile.ini line %d ignored", lineNumber);
    ErrorMsg* record = returnErrorMsg(kConstructor, detail, cause);
    if (!record) return;
    if (m_profileWarnings)
        m_profileWarnings->appendToList(record);
    else
        m_profileWarnings = record;
}

ErrorMsg* I2CDDAPI::getProfileWarnings() const {
    ErrorMsg* head = nullptr;
    for (ErrorMsg* r = m_profileWarnings; r; r = r->getNextErrorMsg()) {
        ErrorMsg* copy = new (std::nothrow) ErrorMsg(r->getErrorCode(), r->getDetailMessage());
        if (!copy) break;
        if (head)
            head->appendToList(copy);
        else
            head = copy;
    }
    return head;
}

ErrorMsg* I2CDDAPI::Initial_I2C_BUS(const std::string& line) {
    const std::vector<std::string> t = splitBlanks(line);
    if (t.size() != 4) {
        formatMessage("4 fields expected, %zu found", t.size());
        return returnErrorMsg(kInitBus | kBadFormat, m_message, nullptr);
    }
    unsigned long bus = 0, frequency = 0;
    if (!parseNumber(t[1], 16, kMaxBuses - 1, &bus))
        return returnErrorMsg(kInitBus | kNotNumber, "bus is not number", nullptr);
    if (bus >= static_cast<unsigned long>(kMaxBuses)) {
        formatMessage("bus %s outside 0 to %d", t[1].c_str(), kMaxBuses - 1);
        return returnErrorMsg(kInitBus | kOutOfRange, m_message, nullptr);
    }
    if (!parseNumber(t[2], 10, 0x7FFFFFFF, &frequency))
        return returnErrorMsg(kInitBus | kNotNumber, "frequency is not number", nullptr);
    if (frequency > 0x7FFFFFFF) {
        formatMessage("frequency %s too large", t[2].c_str());
        return returnErrorMsg(kInitBus | kOutOfRange, m_message, nullptr);
    }
    I2CBus* created = new (std::nothrow)
        I2CBus("I2C_BUS", t[0].c_str(), static_cast<int>(bus), static_cast<int>(frequency), t[3].c_str());
    if (!created) return returnErrorMsg(kInitBus | 0x214, nullptr, nullptr);
    // A later line for the same number replaces the earlier bus.
    delete m_buses[bus];
    m_buses[bus] = created;
    return nullptr;
}

ErrorMsg* I2CDDAPI::Initial_I2C_device(const std::string& line, int slot) {
    const std::vector<std::string> t = splitBlanks(line);
    if (t.size() < 4) {
        formatMessage("at least 4 fields expected, %zu found", t.size());
        return returnErrorMsg(kInitDevice | kBadFormat, m_message, nullptr);
    }
    unsigned long bus = 0, address = 0;
    if (!parseNumber(t[1], 16, kMaxLogicalBus, &bus))
        return returnErrorMsg(kInitDevice | kNotNumber, "bus is not a number", nullptr);
    if (bus > kMaxLogicalBus) {
        formatMessage("bus %s above 0x%lx", t[1].c_str(), kMaxLogicalBus);
        return returnErrorMsg(kInitDevice | kOutOfRange, m_message, nullptr);
    }
    if (!parseNumber(t[2], 16, 0xFF, &address))
        return returnErrorMsg(kInitDevice | kNotNumber, "address is not number", nullptr);
    if (address > 0xFF) {
        formatMessage("address %s is not an 8-bit address", t[2].c_str());
        return returnErrorMsg(kInitDevice | kOutOfRange, m_message, nullptr);
    }
    const I2C_DEVICE_TYPE type = typeFromKeyword(t[3]);
    I2CDevice* device = nullptr;
    if (type == I2C_DEVICE_TYPE_MUX) {
        const size_t ports = t.size() - 4;
        if (ports > static_cast<size_t>(kMaxSwitchPorts)) {
            formatMessage("switch with %zu ports, at most %d", ports, kMaxSwitchPorts);
            return returnErrorMsg(kInitDevice | kOutOfRange, m_message, nullptr);
        }
        int port[kMaxSwitchPorts] = {0};
        for (size_t k = 0; k < ports; ++k) {
            unsigned long value = 0;
            if (!parseNumber(t[4 + k], 16, kMaxLogicalBus, &value))
                return returnErrorMsg(kInitDevice | kNotNumber, "switch is not number", nullptr);
            if (value > kMaxLogicalBus) {
                formatMessage("switch port %s above 0x%lx", t[4 + k].c_str(), kMaxLogicalBus);
                return returnErrorMsg(kInitDevice | kOutOfRange, m_message, nullptr);
            }
            port[k] = static_cast<int>(value);
        }
        device = new (std::nothrow) I2CSwitch(t[0].c_str(), static_cast<int>(bus), static_cast<int>(address),
                                              port, static_cast<int>(ports), type, "", "");
        if (device) ++switch_count;
    } else {
        device = new (std::nothrow) I2CDevice(t[0].c_str(), static_cast<int>(bus), static_cast<int>(address),
                                              type, t.size() > 4 ? t[4].c_str() : "",
                                              t.size() > 5 ? t[5].c_str() : "");
    }
    if (!device) return returnErrorMsg(kInitDevice | 0x214, nullptr, nullptr);
    m_devices[slot] = device;
    return nullptr;
}

ErrorMsg* I2CDDAPI::Initial_I2C_Protocol(const std::string& line) {
    const std::vector<std::string> t = splitBlanks(line);
    if (t.empty()) return nullptr;
    return applyProtocolEntries(nullptr, t[0], t, 1, 0);
}

ErrorMsg* I2CDDAPI::applyProtocolEntries(I2CDevice* device, const std::string& deviceName,
                                         const std::vector<std::string>& tokens, size_t first,
                                         int depth) {
    for (size_t i = first; i < tokens.size(); ++i) {
        const std::string& entry = tokens[i];
        const size_t eq = entry.find('=');
        if (eq == std::string::npos || eq == 0 || eq + 1 >= entry.size()) {
            formatMessage("entry is not key=value: %.40s", entry.c_str());
            return returnErrorMsg(kInitProtocol | kBadFormat, m_message, nullptr);
        }
        const std::string key = entry.substr(0, eq);
        const std::string value = entry.substr(eq + 1);
        if (!device) device = get_device_by_well_known_name(deviceName.c_str());
        if (!device)
            return returnErrorMsg(kInitProtocol | kNoDevice, "Can't find device by Wellknown name", nullptr);

        I2C_DEVICE_PROTOCOL protocol;
        if (key == "all") {
            if (protocolFromKeyword(value, true, &protocol))
                for (int r = 0; r < kRegisterCount; ++r) device->set_Register_protocol(r, protocol);
        } else if (key == "file") {
            if (depth >= kMaxProtocolFileDepth) {
                formatMessage("\"file\" entries nested deeper than %d", kMaxProtocolFileDepth);
                return returnErrorMsg(kInitProtocol | kOutOfRange, m_message, nullptr);
            }
            const std::string path = std::string(kProfileDirectory) + value;
            // Protocol files live in the profile directory; a name that climbs out of it
            // is refused like a file that cannot be opened.
            std::string text;
            if (value.find("..") != std::string::npos || quarn::readTextFile(path, &text, 1u << 20) != 0)
                return returnErrorMsg(kInitProtocol | kOpenProfileFail, path.c_str(), nullptr);
            std::string first;
            bool found = false;
            for (std::string l : quarn::splitLines(text)) {
                if (!l.empty() && l[0] == '#') continue;
                if (l.size() > static_cast<size_t>(kMaxProtocolFileLine)) {
                    formatMessage("line of %.30s longer than %d", value.c_str(), kMaxProtocolFileLine);
                    return returnErrorMsg(kInitProtocol | kBadFormat, m_message, nullptr);
                }
                if (!l.empty() && l.back() == '\r') l.pop_back();
                first = l;
                found = true;
                break;
            }
            if (!found) return nullptr;
            return applyProtocolEntries(device, deviceName, splitBlanks(first), 0, depth + 1);
        } else {
            unsigned long reg = 0;
            if (!parseNumber(key, 16, kRegisterCount - 1, &reg))
                return returnErrorMsg(kInitProtocol | kNotNumber, "Protocol is not a number", nullptr);
            if (reg >= static_cast<unsigned long>(kRegisterCount)) {
                formatMessage("register %.20s above 0x%x", key.c_str(), kRegisterCount - 1);
                return returnErrorMsg(kInitProtocol | kOutOfRange, m_message, nullptr);
            }
            if (protocolFromKeyword(value, false, &protocol))
                device->set_Register_protocol(static_cast<int>(reg), protocol);
        }
    }
    return nullptr;
}

I2CBus* I2CDDAPI::getBus(int slot) const {
    return slot >= 0 && slot < kMaxBuses ? m_buses[slot] : nullptr;
}

I2CDevice* I2CDDAPI::getDevice(int slot) const {
    return slot >= 0 && slot < kMaxDevices ? m_devices[slot] : nullptr;
}

I2CRouteHop I2CDDAPI::getRouteHop(int i) const {
    if (i < 0 || i >= m_routeHops) return I2CRouteHop{0, 0};
    return m_route[i];
}

I2CDevice* I2CDDAPI::get_device_by_well_known_name(const char* name) {
    if (!name) return nullptr;
    for (int slot = 0; slot < kMaxDevices && m_devices[slot]; ++slot)
        if (m_devices[slot]->get_Name() == name) return m_devices[slot];
    return nullptr;
}

I2CDevice* I2CDDAPI::get_device_by_bus_address(int bus, int address) {
    for (int slot = 0; slot < kMaxDevices && m_devices[slot]; ++slot)
        if (m_devices[slot]->get_Bus() == bus && m_devices[slot]->get_Address() == address)
            return m_devices[slot];
    return nullptr;
}

int I2CDDAPI::Is_physical_bus(int bus) {
    for (int slot = 0; slot < kMaxBuses && m_buses[slot]; ++slot)
        if (m_buses[slot]->get_Bus_ID() == bus) return 1;
    return -1;
}

int I2CDDAPI::walk(int bus, I2CDevice** hopSwitches) {
    m_routeHops = 0;
    int current = bus;
    if (Is_physical_bus(current) == 1) return current;
    for (int pass = 0; pass <= switch_count; ++pass) {
        for (int slot = 0; slot < kMaxDevices && m_devices[slot]; ++slot) {
            I2CDevice* device = m_devices[slot];
            if (!device->IsSwitch()) continue;
            I2CSwitch* sw = static_cast<I2CSwitch*>(device);
            for (int k = 0; k < sw->get_output_port_counter(); ++k) {
                if (sw->get_output_port(k) != current) continue;
                if (m_routeHops >= kMaxRouteHops) return -2;
                m_route[m_routeHops].address = static_cast<uint32_t>(sw->get_Address());
                m_route[m_routeHops].mask = channelMask(k);
                hopSwitches[m_routeHops] = sw;
                ++m_routeHops;
                current = sw->get_Bus();
                break;
            }
        }
        if (Is_physical_bus(current) == 1) return current;
    }
    return -1;
}

int I2CDDAPI::Find_physical_master(int bus) {
    I2CDevice* hops[kMaxRouteHops];
    const int master = walk(bus, hops);
    return master >= 0 ? master : -1;
}

int I2CDDAPI::Route_path(int bus) {
    I2CDevice* hops[kMaxRouteHops];
    if (walk(bus, hops) < 0) return 0;
    if (m_routeHops == 0) return 1;
    I2CBus* master = hops[m_routeHops - 1]->get_Master_bus();
    if (!master) return 0;
    for (int i = m_routeHops - 1; i >= 0; --i) {
        int mask = static_cast<int>(m_route[i].mask);
        // A switch that does not answer shows up as the failure of the transfer itself.
        deleteErrorMsg(master->write(static_cast<int>(m_route[i].address), 0,
                                     I2C_DEVICE_PROTOCOL_SMBUS_BYTE, &mask, 1, I2C_DEVICE_TYPE_MUX));
    }
    return 1;
}

ErrorMsg* I2CDDAPI::routeTooLong(ERRORCODE function, int bus) {
    formatMessage("route of bus 0x%x longer than %d hops", bus, kMaxRouteHops);
    return returnErrorMsg(function | kOutOfRange, m_message, nullptr);
}

ErrorMsg* I2CDDAPI::read(int bus, int address, int start, int end, int* data, int* count) {
    return read(bus, address, start, end, data, count, kMaxTransferValues);
}

ErrorMsg* I2CDDAPI::read(const char* name, int start, int end, int* data, int* count) {
    return read(name, start, end, data, count, kMaxTransferValues);
}

ErrorMsg* I2CDDAPI::read(const char* name, int start, int end, int* data, int* count, int capacity) {
    if (count) *count = 0;
    I2CDevice* device = get_device_by_well_known_name(name);
    if (!device) return last_result = returnErrorMsg(kReadByAddress | kNoDevice, "by well_know_name", nullptr);
    return read(device->get_Bus(), device->get_Address(), start, end, data, count, capacity);
}

ErrorMsg* I2CDDAPI::read(int bus, int address, int start, int end, int* data, int* count, int capacity) {
    if (count) *count = 0;
    I2CDevice* device = get_device_by_bus_address(bus, address);
    if (!device) return last_result = returnErrorMsg(kReadByAddress | kNoDevice, "by bus_address", nullptr);
    const I2C_DEVICE_PROTOCOL protocol = device->get_Register_protocol(start);
    const bool perRegister = protocol == I2C_DEVICE_PROTOCOL_SMBUS_BYTE_DATA ||
                             protocol == I2C_DEVICE_PROTOCOL_SMBUS_WORD_DATA;
    if (start < 0 || start >= kRegisterCount || (perRegister && end >= kRegisterCount)) {
        formatMessage("registers 0x%x-0x%x outside 0 to 0x%x", start, end, kRegisterCount - 1);
        return last_result = returnErrorMsg(kReadByAddress | kOutOfRange, m_message, nullptr);
    }
    I2CDevice* hops[kMaxRouteHops];
    if (walk(device->get_Bus(), hops) == -2) return last_result = routeTooLong(kReadByAddress, device->get_Bus());
    Route_path(device->get_Bus());
    I2CBus* master = device->get_Master_bus();
    if (!master) return last_result = returnErrorMsg(kReadByAddress | kBusNull, "by bus_address", nullptr);
    last_result = master->read(device->get_Address(), start, end, protocol, data, count,
                               device->get_type(), capacity);
    return last_result;
}

ErrorMsg* I2CDDAPI::write(int bus, int address, int reg, int* data, int length) {
    int count = 0;
    return write(bus, address, reg, data, length, &count);
}

ErrorMsg* I2CDDAPI::write(const char* name, int reg, int* data, int length) {
    int count = 0;
    return write(name, reg, data, length, &count);
}

ErrorMsg* I2CDDAPI::write(const char* name, int reg, int* data, int length, int* count) {
    if (count) *count = 0;
    I2CDevice* device = get_device_by_well_known_name(name);
    if (!device) return last_result = returnErrorMsg(kWriteByAddress | kNoDevice, "by well_know_name", nullptr);
    return write(device->get_Bus(), device->get_Address(), reg, data, length, count);
}

ErrorMsg* I2CDDAPI::write(int bus, int address, int reg, int* data, int length, int* count) {
    if (count) *count = 0;
    I2CDevice* device = get_device_by_bus_address(bus, address);
    if (!device) return last_result = returnErrorMsg(kWriteByAddress | kNoDevice, "by bus_address", nullptr);
    const I2C_DEVICE_PROTOCOL protocol = device->get_Register_protocol(reg);
    // The last register a per-register write reaches must still be in the table.
    long long last = reg;
    if (protocol == I2C_DEVICE_PROTOCOL_SMBUS_BYTE_DATA) last = static_cast<long long>(reg) + length - 1;
    if (protocol == I2C_DEVICE_PROTOCOL_SMBUS_WORD_DATA) last = static_cast<long long>(reg) + length / 2 - 1;
    if (reg < 0 || reg >= kRegisterCount || last >= kRegisterCount) {
        formatMessage("registers 0x%x-0x%llx outside 0 to 0x%x", reg, last, kRegisterCount - 1);
        return last_result = returnErrorMsg(kWriteByAddress | kOutOfRange, m_message, nullptr);
    }
    I2CDevice* hops[kMaxRouteHops];
    if (walk(device->get_Bus(), hops) == -2) return last_result = routeTooLong(kWriteByAddress, device->get_Bus());
    Route_path(device->get_Bus());
    I2CBus* master = device->get_Master_bus();
    if (!master) return last_result = returnErrorMsg(kWriteByAddress | kBusNull, "by bus_address", nullptr);
    last_result = master->write(device->get_Address(), reg, protocol, data, length, count, device->get_type());
    return last_result;
}

ErrorMsg* I2CDDAPI::get_i2c_devices_list(std::list<std::string>* list) {
    if (!list) return nullptr;
    for (int slot = 0; slot < kMaxDevices && m_devices[slot]; ++slot) {
        I2CDevice* device = m_devices[slot];
        char field[32];
        std::string line = device->get_Name();
        snprintf(field, sizeof(field), " %x 0x%0x ", device->get_Bus(), device->get_Address());
        line += field;
        if (device->IsSwitch()) {
            I2CSwitch* sw = static_cast<I2CSwitch*>(device);
            for (int k = 0; k < sw->get_output_port_counter(); ++k) {
                snprintf(field, sizeof(field), "0x%0x ", sw->get_output_port(k));
                line += field;
            }
        }
        list->push_back(line);
    }
    return nullptr;
}

I2CDevice* I2CDDAPI::copyDescription(I2CDevice* device) {
    if (device->IsSwitch()) {
        I2CSwitch* sw = static_cast<I2CSwitch*>(device);
        int ports[kMaxSwitchPorts] = {0};
        const int n = sw->get_output_port_counter();
        for (int k = 0; k < n && k < kMaxSwitchPorts; ++k) ports[k] = sw->get_output_port(k);
        return new (std::nothrow) I2CSwitch(sw->get_Name().c_str(), sw->get_Bus(), sw->get_Address(), ports, n,
                                            sw->get_type(), sw->get_vender().c_str(), sw->get_model().c_str());
    }
    return new (std::nothrow) I2CDevice(device->get_Name().c_str(), device->get_Bus(), device->get_Address(),
                                        device->get_type(), device->get_vender().c_str(),
                                        device->get_model().c_str());
}

ErrorMsg* I2CDDAPI::get_i2c_devices_list(I2CDevice** out) {
    if (!out) return nullptr;
    int n = 0;
    for (int slot = 0; slot < kMaxDevices && m_devices[slot]; ++slot) out[n++] = copyDescription(m_devices[slot]);
    return nullptr;
}

ErrorMsg* I2CDDAPI::DisplayI2cDevicesListByType(I2CDevice** out, I2C_DEVICE_TYPE type) {
    if (!out) return nullptr;
    for (int i = 0; i < kMaxDevices; ++i) out[i] = nullptr;
    int n = 0;
    for (int slot = 0; slot < kMaxDevices && m_devices[slot]; ++slot)
        if (m_devices[slot]->get_type() == type) out[n++] = copyDescription(m_devices[slot]);
    return nullptr;
}

ErrorMsg* I2CDDAPI::get_i2c_device_path(const char* name, std::string* path) {
    I2CDevice* device = get_device_by_well_known_name(name);
    if (!device) return returnErrorMsg(kReadByAddress | kNoDevice, "by well_know_name", nullptr);
    I2CDevice* hops[kMaxRouteHops];
    const int root = walk(device->get_Bus(), hops);
    if (root == -2) return routeTooLong(kReadByAddress, device->get_Bus());
    char bus[24];
    std::string text = device->get_Name();
    snprintf(bus, sizeof(bus), "Bus%x->", device->get_Bus());
    text = bus + text;
    for (int i = 0; i < m_routeHops; ++i) {
        text = hops[i]->get_Name() + "->" + text;
        snprintf(bus, sizeof(bus), "Bus%x->", hops[i]->get_Bus());
        text = bus + text;
    }
    if (root >= 0 && root < kMaxBuses && m_buses[root]) text = m_buses[root]->get_master() + "->" + text;
    if (path) *path = text;
    return nullptr;
}

ErrorMsg* I2CDDAPI::mux_test(const char* name) {
    I2CDevice* device = get_device_by_well_known_name(name);
    if (!device) return returnErrorMsg(kMuxTest | kNoDevice, "by well_know_name", nullptr);
    if (device->get_type() != I2C_DEVICE_TYPE_MUX)
        return returnErrorMsg(kMuxTest | kTypeNotMatch, "Type is not MUX", nullptr);
    int value = 2;  // channel 1
    if (ErrorMsg* e = write(device->get_Bus(), device->get_Address(), 0, &value, 1))
        return returnErrorMsg(kMuxTest, nullptr, e);
    int data[I2C_SMBUS_BLOCK_MAX] = {0};
    int count = 0;
    if (ErrorMsg* e = read(device->get_Bus(), device->get_Address(), 0, 0, data, &count, I2C_SMBUS_BLOCK_MAX))
        return returnErrorMsg(kMuxTest, nullptr, e);
    if (count < 1 || data[0] != 2) return returnErrorMsg(kMuxTest | kMuxTestFail, nullptr, nullptr);
    return nullptr;
}

ErrorMsg* I2CDDAPI::stuckPrevention(int) { return returnErrorMsg(kMuxTest, "Not Support", nullptr); }
