// Guest checks of the TPM through the kernel's tpm_tis driver and QEMU's swtpm: the
// self-test passes and the fixed properties read with TPM2_GetCapability are those that
// tpm2_getcap (tpm2-tools) read on the host from the same swtpm state before the boot
// (itest/run.sh puts its output in /etc/quarn/tpm2_getcap_fixed.yaml).
#include <map>
#include <string>
#include <vector>

#include "dapi/tpm/TPMDAPI.h"
#include "itest/GuestCheck.h"

namespace {

using namespace itest;

uint32_t be32(const unsigned char* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

// TPM_PT_FIXED + n, named as tpm2-tools names them.
const char* const kFixed[] = {
    "FAMILY_INDICATOR", "LEVEL", "REVISION", "DAY_OF_YEAR", "YEAR", "MANUFACTURER",
    "VENDOR_STRING_1", "VENDOR_STRING_2", "VENDOR_STRING_3", "VENDOR_STRING_4", "VENDOR_TPM_TYPE",
    "FIRMWARE_VERSION_1", "FIRMWARE_VERSION_2", "INPUT_BUFFER", "HR_TRANSIENT_MIN", "HR_PERSISTENT_MIN",
    "HR_LOADED_MIN", "ACTIVE_SESSIONS_MAX", "PCR_COUNT", "PCR_SELECT_MIN", "CONTEXT_GAP_MAX", "",
    "NV_COUNTERS_MAX", "NV_INDEX_MAX", "MEMORY", "CLOCK_UPDATE", "CONTEXT_HASH", "CONTEXT_SYM",
    "CONTEXT_SYM_SIZE", "ORDERLY_COUNT", "MAX_COMMAND_SIZE", "MAX_RESPONSE_SIZE", "MAX_DIGEST",
    "MAX_OBJECT_CONTEXT", "MAX_SESSION_CONTEXT", "PS_FAMILY_INDICATOR", "PS_LEVEL", "PS_REVISION",
    "PS_DAY_OF_YEAR", "PS_YEAR", "SPLIT_MAX", "TOTAL_COMMANDS", "LIBRARY_COMMANDS", "VENDOR_COMMANDS",
    "NV_BUFFER_MAX", "MODES", "MAX_CAP_BUFFER"};

// "TPM2_PT_NAME:" followed by "  raw: VALUE" lines of tpm2_getcap properties-fixed.
std::map<std::string, uint32_t> parseGetcap(const std::string& text) {
    std::map<std::string, uint32_t> out;
    std::string name;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string::npos) end = text.size();
        const std::string line = text.substr(pos, end - pos);
        pos = end + 1;
        if (line.rfind("TPM2_PT_", 0) == 0 && !line.empty() && line.back() == ':') {
            name = line.substr(8, line.size() - 9);
        } else if (!name.empty() && line.rfind("  raw: ", 0) == 0) {
            out[name] = static_cast<uint32_t>(std::stoul(line.substr(7), nullptr, 0));
            name.clear();
        }
    }
    return out;
}

void runTpmChecks() {
    part("tpm");
    if (!exists("/dev/tpm0")) {
        skip("tpm", "no /dev/tpm0 (swtpm or tpm_tis missing)");
        return;
    }
    TPMDAPI tpm("TPMDAPI");
    std::vector<unsigned char> rsp(4096);
    unsigned int got = 0;

    _TPM_CMD_INPUT st{};
    st.tag = 0x8001;
    st.commandSize = 11;
    st.commandCode = 0x143;
    st.parameters[0] = 1;
    if (ok("tpm TPM2_SelfTest(full) through tpm_tis", tpm.commandInterface(st, rsp.data(), 4096, &got)))
        expect("tpm self-test response code 0 (TPM_RC_SUCCESS)", got == 10 && be32(&rsp[6]) == 0,
               got >= 10 ? "response code " + hex(be32(&rsp[6])) : "short response of " + std::to_string(got));

    // The same self-test written as a command file.
    quarn::writeScratchFile("/tmp/tpm_selftest.txt", "80 01\n00 00 00 0b\n00 00 01 43\n01\n");
    if (ok("tpm send command file (SelfTest)", tpm.sendCommandManually("/tmp/tpm_selftest.txt", rsp.data(), 4096, &got)))
        expect("tpm command file answered with success", got == 10 && be32(&rsp[6]) == 0, "got " + std::to_string(got));

    _TPM_CMD_INPUT caps{};
    caps.tag = 0x8001;
    caps.commandSize = 22;
    caps.commandCode = 0x17A;
    caps.parameters[0] = 6;      // TPM_CAP_TPM_PROPERTIES
    caps.parameters[1] = 0x100;  // TPM_PT_FIXED
    caps.parameters[2] = 127;
    if (!ok("tpm TPM2_GetCapability(properties, fixed)", tpm.commandInterface(caps, rsp.data(), 4096, &got))) return;
    std::map<std::string, uint32_t> mine;
    if (got >= 19 && be32(&rsp[6]) == 0) {
        const uint32_t count = be32(&rsp[15]);
        for (uint32_t i = 0; i < count && 19 + 8 * (i + 1) <= got; ++i) {
            const uint32_t prop = be32(&rsp[19 + 8 * i]);
            if (prop < 0x100 || prop >= 0x200) continue;
            const uint32_t n = prop - 0x100;
            const std::string name = n < sizeof(kFixed) / sizeof(kFixed[0]) && kFixed[n][0] ? kFixed[n] : hex(prop);
            mine[name] = be32(&rsp[19 + 8 * i + 4]);
        }
    }
    expect("tpm fixed properties read", mine.size() >= 40, std::to_string(mine.size()) + " properties");

    std::string text;
    if (quarn::readTextFile("/etc/quarn/tpm2_getcap_fixed.yaml", &text) != 0 || text.empty()) {
        skip("tpm properties match tpm2_getcap", "no tpm2_getcap output from the host (tpm2-tools missing)");
        return;
    }
    const std::map<std::string, uint32_t> theirs = parseGetcap(text);
    std::string diff;
    for (const auto& [name, value] : theirs) {
        auto it = mine.find(name);
        if (it == mine.end()) diff += name + " missing; ";
        else if (it->second != value) diff += name + " " + hex(it->second) + " vs " + hex(value) + "; ";
    }
    // tpm2-tools prints only the properties it knows (5.4 lacks TPM_PT_MAX_CAP_BUFFER).
    std::string extra;
    for (const auto& [name, value] : mine)
        if (!theirs.count(name)) extra += " " + name + "=" + hex(value);
    if (!extra.empty()) printf("INFO tpm: read by quarn, not printed by tpm2_getcap:%s\n", extra.c_str());
    expect("tpm fixed properties match tpm2_getcap (" + std::to_string(theirs.size()) + " of " +
               std::to_string(mine.size()) + ")",
           theirs.size() >= 40 && diff.empty(), diff.empty() ? std::to_string(theirs.size()) + " properties from tpm2_getcap" : diff);
}

itest::RegisterGuestPart reg("tpm", runTpmChecks);

}  // namespace
