// quarn tpm ...: the TPM's self-test, capabilities and commands from a file. The library
// hands back the response bytes as they came; the decoding for reading is done here.
#include <cstdio>
#include <string>
#include <vector>

#include <fcntl.h>

#include "api/platform/Files.h"
#include "api/platform/Platform.h"
#include "cli/Cli.h"
#include "dapi/tpm/TPMDAPI.h"

namespace quarn::cli {
namespace {

constexpr unsigned int kResponseRoom = 4096;

struct RcText {
    unsigned int code;
    const char* name;
    const char* meaning;
};

// TPM 2.0 response codes (TPM 2.0 Library, Part 2, TPM_RC), by format.
const RcText kVer1[] = {
    {0x000, "TPM_RC_INITIALIZE", "TPM not initialized by TPM2_Startup or already initialized"},
    {0x001, "TPM_RC_FAILURE", "commands not being accepted because of a TPM failure"},
    {0x003, "TPM_RC_SEQUENCE", "improper use of a sequence handle"},
    {0x00B, "TPM_RC_PRIVATE", "not currently used"},
    {0x019, "TPM_RC_HMAC", "not currently used"},
    {0x020, "TPM_RC_DISABLED", "the command is disabled"},
    {0x021, "TPM_RC_EXCLUSIVE", "command failed because audit sequence required exclusivity"},
    {0x024, "TPM_RC_AUTH_TYPE", "authorization handle is not correct for command"},
    {0x025, "TPM_RC_AUTH_MISSING", "command requires an authorization session for handle and it is not present"},
    {0x026, "TPM_RC_POLICY", "policy failure in math operation or an invalid authPolicy value"},
    {0x027, "TPM_RC_PCR", "PCR check fail"},
    {0x028, "TPM_RC_PCR_CHANGED", "PCR have changed since checked"},
    {0x02D, "TPM_RC_UPGRADE", "the TPM is in field upgrade mode"},
    {0x02E, "TPM_RC_TOO_MANY_CONTEXTS", "context ID counter is at maximum"},
    {0x02F, "TPM_RC_AUTH_UNAVAILABLE", "authValue or authPolicy is not available for selected entity"},
    {0x030, "TPM_RC_REBOOT", "a _TPM_Init and Startup(CLEAR) is required before the TPM can resume operation"},
    {0x031, "TPM_RC_UNBALANCED", "the protection algorithms (hash and symmetric) are not reasonably balanced"},
    {0x042, "TPM_RC_COMMAND_SIZE", "command commandSize value is inconsistent with contents of the command buffer"},
    {0x043, "TPM_RC_COMMAND_CODE", "command code not supported"},
    {0x044, "TPM_RC_AUTHSIZE", "the value of authorizationSize is out of range"},
    {0x045, "TPM_RC_AUTH_CONTEXT", "use of an authorization session with a context command"},
    {0x046, "TPM_RC_NV_RANGE", "NV offset+size is out of range"},
    {0x047, "TPM_RC_NV_SIZE", "requested allocation size is larger than allowed"},
    {0x048, "TPM_RC_NV_LOCKED", "NV access locked"},
    {0x049, "TPM_RC_NV_AUTHORIZATION", "NV access authorization fails in command actions"},
    {0x04A, "TPM_RC_NV_UNINITIALIZED", "an NV Index is used before being initialized"},
    {0x04B, "TPM_RC_NV_SPACE", "insufficient space for NV allocation"},
    {0x04C, "TPM_RC_NV_DEFINED", "NV Index or persistent object already defined"},
    {0x050, "TPM_RC_BAD_CONTEXT", "context in TPM2_ContextLoad() is not valid"},
    {0x051, "TPM_RC_CPHASH", "cpHash value already set or not correct for use"},
    {0x052, "TPM_RC_PARENT", "handle for parent is not a valid parent"},
    {0x053, "TPM_RC_NEEDS_TEST", "some function needs testing"},
    {0x054, "TPM_RC_NO_RESULT", "an internal function cannot process a request due to an unspecified problem"},
    {0x055, "TPM_RC_SENSITIVE", "the sensitive area did not unmarshal correctly after decryption"},
};
const RcText kFmt1[] = {
    {0x001, "TPM_RC_ASYMMETRIC", "asymmetric algorithm not supported or not correct"},
    {0x002, "TPM_RC_ATTRIBUTES", "inconsistent attributes"},
    {0x003, "TPM_RC_HASH", "hash algorithm not supported or not appropriate"},
    {0x004, "TPM_RC_VALUE", "value is out of range or is not correct for the context"},
    {0x005, "TPM_RC_HIERARCHY", "hierarchy is not enabled or is not correct for the use"},
    {0x007, "TPM_RC_KEY_SIZE", "key size is not supported"},
    {0x008, "TPM_RC_MGF", "mask generation function not supported"},
    {0x009, "TPM_RC_MODE", "mode of operation not supported"},
    {0x00A, "TPM_RC_TYPE", "the type of the value is not appropriate for the use"},
    {0x00B, "TPM_RC_HANDLE", "the handle is not correct for the use"},
    {0x00C, "TPM_RC_KDF", "unsupported key derivation function or function not appropriate for use"},
    {0x00D, "TPM_RC_RANGE", "value was out of allowed range"},
    {0x00E, "TPM_RC_AUTH_FAIL", "the authorization HMAC check failed and DA counter incremented"},
    {0x00F, "TPM_RC_NONCE", "invalid nonce size or nonce value mismatch"},
    {0x010, "TPM_RC_PP", "authorization requires assertion of PP"},
    {0x012, "TPM_RC_SCHEME", "unsupported or incompatible scheme"},
    {0x015, "TPM_RC_SIZE", "structure is the wrong size"},
    {0x016, "TPM_RC_SYMMETRIC", "unsupported symmetric algorithm or key size, or not appropriate for instance"},
    {0x017, "TPM_RC_TAG", "incorrect structure tag"},
    {0x018, "TPM_RC_SELECTOR", "union selector is incorrect"},
    {0x01A, "TPM_RC_INSUFFICIENT", "the TPM was unable to unmarshal a value because there were not enough octets in the input buffer"},
    {0x01B, "TPM_RC_SIGNATURE", "the signature is not valid"},
    {0x01C, "TPM_RC_KEY", "key fields are not compatible with the selected use"},
    {0x01D, "TPM_RC_POLICY_FAIL", "a policy check failed"},
    {0x01F, "TPM_RC_INTEGRITY", "integrity check failed"},
    {0x020, "TPM_RC_TICKET", "invalid ticket"},
    {0x021, "TPM_RC_RESERVED_BITS", "reserved bits not set to zero as required"},
    {0x022, "TPM_RC_BAD_AUTH", "authorization failure without DA implications"},
    {0x023, "TPM_RC_EXPIRED", "the policy has expired"},
    {0x024, "TPM_RC_POLICY_CC", "the commandCode in the policy is not the commandCode of the command"},
    {0x025, "TPM_RC_BINDING", "public and sensitive portions of an object are not cryptographically bound"},
    {0x026, "TPM_RC_CURVE", "curve not supported"},
    {0x027, "TPM_RC_ECC_POINT", "point is not on the required curve"},
};
const RcText kWarn[] = {
    {0x001, "TPM_RC_CONTEXT_GAP", "gap for context ID is too large"},
    {0x002, "TPM_RC_OBJECT_MEMORY", "out of memory for object contexts"},
    {0x003, "TPM_RC_SESSION_MEMORY", "out of memory for session contexts"},
    {0x004, "TPM_RC_MEMORY", "out of shared object/session memory or need space for internal operations"},
    {0x005, "TPM_RC_SESSION_HANDLES", "out of session handles"},
    {0x006, "TPM_RC_OBJECT_HANDLES", "out of object handles"},
    {0x007, "TPM_RC_LOCALITY", "bad locality"},
    {0x008, "TPM_RC_YIELDED", "the TPM has suspended operation on the command"},
    {0x009, "TPM_RC_CANCELED", "the command was canceled"},
    {0x00A, "TPM_RC_TESTING", "TPM is performing self-tests"},
    {0x020, "TPM_RC_NV_RATE", "the TPM is rate-limiting accesses to prevent wearout of NV"},
    {0x021, "TPM_RC_LOCKOUT", "authorizations for objects subject to DA protection are not allowed at this time"},
    {0x022, "TPM_RC_RETRY", "the TPM was not able to start the command"},
    {0x023, "TPM_RC_NV_UNAVAILABLE", "the command may require writing of NV and NV is not current accessible"},
};

template <size_t N>
const RcText* find(const RcText (&table)[N], unsigned int code) {
    for (const RcText& t : table)
        if (t.code == code) return &t;
    return nullptr;
}

// Name and meaning of a response code, with the parameter, handle or session it names.
void describeRc(uint32_t rc, std::string* name, std::string* meaning) {
    char where[48] = "";
    const RcText* t = nullptr;
    if (rc == 0) {
        *name = "TPM_RC_SUCCESS";
        *meaning = "success";
        return;
    }
    if (rc == 0x01E) {
        *name = "TPM_RC_BAD_TAG";
        *meaning = "defined for compatibility with TPM 1.2: the tag is bad";
        return;
    }
    if (rc & 0x080) {  // format 1: error number with a parameter, handle or session number
        t = find(kFmt1, rc & 0x03F);
        const unsigned n = (rc >> 8) & 0x0F;
        if (rc & 0x040) snprintf(where, sizeof(where), " (parameter %u)", n);
        else if (n & 0x08) snprintf(where, sizeof(where), " (session %u)", n & 0x07);
        else if (n) snprintf(where, sizeof(where), " (handle %u)", n);
    } else if ((rc & 0x900) == 0x900) {
        t = find(kWarn, rc & 0x07F);
    } else if (rc & 0x100) {
        t = find(kVer1, rc & 0x07F);
    }
    if ((rc & 0x180) == 0 && rc < 0x100) {  // no version bit: a TPM 1.2 code
        char text[64];
        snprintf(text, sizeof(text), "TPM 1.2 response code %u", rc);
        *name = "TPM_RC_VER1_NOT_SET";
        *meaning = text;
        return;
    }
    *name = t ? t->name : "unknown";
    *meaning = std::string(t ? t->meaning : "response code not in the TPM 2.0 tables") + where;
}

uint32_t be32(const unsigned char* p) {
    return (uint32_t(p[0]) << 24) | (uint32_t(p[1]) << 16) | (uint32_t(p[2]) << 8) | p[3];
}

std::string hexBytes(const unsigned char* p, unsigned int n) {
    std::string out;
    char b[4];
    for (unsigned int i = 0; i < n; ++i) {
        snprintf(b, sizeof(b), "%02x", p[i]);
        if (i) out += (i % 16) ? " " : "\n  ";
        out += b;
    }
    return out;
}

std::string hex32(uint32_t v) {
    char b[16];
    snprintf(b, sizeof(b), "0x%08X", v);
    return b;
}

// Header of the response: tag, size, code, and what the code means.
void decodeResponse(Context& ctx, const unsigned char* r, unsigned int n) {
    Value v = Value::object();
    std::string spaced = hexBytes(r, n);
    std::string flat = spaced;
    for (char& c : flat)
        if (c == '\n') c = ' ';
    for (size_t at; (at = flat.find("  ")) != std::string::npos;) flat.erase(at, 1);
    v.set("bytes", flat).set("length", n);
    ctx.text += "response (" + std::to_string(n) + " bytes):\n  " + spaced + "\n";
    if (n < 10) {
        v.set("complete", false);
        ctx.text += "response shorter than a TPM header\n";
        ctx.result.set("response", v);
        return;
    }
    const uint32_t size = be32(r + 2), rc = be32(r + 6);
    std::string name, meaning;
    describeRc(rc, &name, &meaning);
    char tag[8];
    snprintf(tag, sizeof(tag), "0x%04X", (r[0] << 8) | r[1]);
    v.set("tag", tag).set("size", size).set("complete", size <= n);
    v.set("response_code", hex32(rc)).set("rc_name", name).set("rc_meaning", meaning);
    ctx.result.set("response", v);
    ctx.text += "response code " + hex32(rc) + " " + name + ": " + meaning + "\n";
    if (size > n) ctx.text += "response truncated: the header says " + std::to_string(size) + " bytes\n";
}

const char* propertyName(uint32_t p) {
    static const char* const kFixed[] = {
        "FAMILY_INDICATOR", "LEVEL", "REVISION", "DAY_OF_YEAR", "YEAR", "MANUFACTURER",
        "VENDOR_STRING_1", "VENDOR_STRING_2", "VENDOR_STRING_3", "VENDOR_STRING_4", "VENDOR_TPM_TYPE",
        "FIRMWARE_VERSION_1", "FIRMWARE_VERSION_2", "INPUT_BUFFER", "HR_TRANSIENT_MIN", "HR_PERSISTENT_MIN",
        "HR_LOADED_MIN", "ACTIVE_SESSIONS_MAX", "PCR_COUNT", "PCR_SELECT_MIN", "CONTEXT_GAP_MAX", "",
        "NV_COUNTERS_MAX", "NV_INDEX_MAX", "MEMORY", "CLOCK_UPDATE", "CONTEXT_HASH", "CONTEXT_SYM",
        "CONTEXT_SYM_SIZE", "ORDERLY_COUNT", "MAX_COMMAND_SIZE", "MAX_RESPONSE_SIZE", "MAX_DIGEST",
        "MAX_OBJECT_CONTEXT", "MAX_SESSION_CONTEXT", "PS_FAMILY_INDICATOR", "PS_LEVEL", "PS_REVISION",
        "PS_DAY_OF_YEAR", "PS_YEAR", "SPLIT_MAX", "TOTAL_COMMANDS", "LIBRARY_COMMANDS", "VENDOR_COMMANDS",
        "NV_BUFFER_MAX", "MODES", "MAX_CAP_BUFFER"};
    static const char* const kVar[] = {
        "PERMANENT", "STARTUP_CLEAR", "HR_NV_INDEX", "HR_LOADED", "HR_LOADED_AVAIL", "HR_ACTIVE",
        "HR_ACTIVE_AVAIL", "HR_TRANSIENT_AVAIL", "HR_PERSISTENT", "HR_PERSISTENT_AVAIL", "NV_COUNTERS",
        "NV_COUNTERS_AVAIL", "ALGORITHM_SET", "LOADED_CURVES", "LOCKOUT_COUNTER", "MAX_AUTH_FAIL",
        "LOCKOUT_INTERVAL", "LOCKOUT_RECOVERY", "NV_WRITE_RECOVERY", "AUDIT_COUNTER_0", "AUDIT_COUNTER_1"};
    if (p >= 0x100 && p - 0x100 < sizeof(kFixed) / sizeof(kFixed[0])) return kFixed[p - 0x100];
    if (p >= 0x200 && p - 0x200 < sizeof(kVar) / sizeof(kVar[0])) return kVar[p - 0x200];
    return "";
}

// TPMS_CAPABILITY_DATA of TPM_CAP_TPM_PROPERTIES: moreData, capability, count, then
// (property, value) pairs.
void decodeProperties(Context& ctx, const unsigned char* r, unsigned int n) {
    if (n < 19 || be32(r + 6) != 0 || be32(r + 11) != 6) return;
    const uint32_t count = be32(r + 15);
    Value props = Value::array();
    ctx.text += std::string("moreData ") + (r[10] ? "yes" : "no") + ", " + std::to_string(count) + " properties\n";
    for (uint32_t i = 0; i < count && 19 + 8 * (i + 1) <= n; ++i) {
        const unsigned char* e = r + 19 + 8 * i;
        const uint32_t prop = be32(e), value = be32(e + 4);
        std::string text;
        for (int k = 0; k < 4; ++k) {
            const unsigned char c = e[4 + k];
            text += (c >= 0x20 && c < 0x7F) ? static_cast<char>(c) : '.';
        }
        char line[128];
        snprintf(line, sizeof(line), "  TPM_PT_%-22s %s  %s  \"%s\"\n", propertyName(prop), hex32(prop).c_str(),
                 hex32(value).c_str(), text.c_str());
        ctx.text += line;
        Value pv = Value::object();
        pv.set("property", hex32(prop)).set("name", std::string("TPM_PT_") + propertyName(prop));
        pv.set("value", hex32(value)).set("text", text);
        props.push(pv);
    }
    ctx.result.set("more_data", r[10] != 0).set("properties", props);
}

bool parseWord(const std::string& s, uint32_t* out) {
    long long v = 0;
    if (!parseInt(s, 0, 0xFFFFFFFFLL, &v)) return false;
    *out = static_cast<uint32_t>(v);
    return true;
}

int selftest(Context& ctx, const std::vector<std::string>& args) {
    bool full = true;
    if (args.size() == 1 && args[0] == "--quick") full = false;
    else if (!args.empty()) return ctx.usage("usage: quarn tpm selftest [--quick]");
    TPMDAPI tpm("TPMDAPI");
    _TPM_CMD_INPUT in{};
    in.tag = 0x8001;
    in.commandSize = 11;
    in.commandCode = 0x143;
    in.parameters[0] = full ? 1 : 0;
    std::vector<unsigned char> rsp(kResponseRoom);
    unsigned int got = 0;
    if (ErrorMsg* e = tpm.commandInterface(in, rsp.data(), kResponseRoom, &got)) return ctx.fail(e);
    ctx.result.set("command", "TPM2_SelfTest").set("full_test", full);
    decodeResponse(ctx, rsp.data(), got);
    const bool passed = got >= 10 && be32(rsp.data() + 6) == 0;
    ctx.result.set("passed", passed);
    if (!passed) {
        ctx.error = "TPM2_SelfTest did not succeed";
        return 1;
    }
    ctx.text += "TPM self-test passed\n";
    return 0;
}

int caps(Context& ctx, const std::vector<std::string>& args) {
    uint32_t cap = 6, property = 0x100, count = 64;  // the fixed TPM properties
    if ((args.size() != 0 && args.size() != 3) ||
        (args.size() == 3 && (!parseWord(args[0], &cap) || !parseWord(args[1], &property) || !parseWord(args[2], &count))))
        return ctx.usage("usage: quarn tpm caps [CAPABILITY PROPERTY COUNT]");
    TPMDAPI tpm("TPMDAPI");
    _TPM_CMD_INPUT in{};
    in.tag = 0x8001;
    in.commandSize = 22;
    in.commandCode = 0x17A;
    in.parameters[0] = cap;
    in.parameters[1] = property;
    in.parameters[2] = count;
    std::vector<unsigned char> rsp(kResponseRoom);
    unsigned int got = 0;
    if (ErrorMsg* e = tpm.commandInterface(in, rsp.data(), kResponseRoom, &got)) return ctx.fail(e);
    ctx.result.set("command", "TPM2_GetCapability").set("capability", hex32(cap));
    ctx.result.set("property", hex32(property)).set("property_count", count);
    decodeResponse(ctx, rsp.data(), got);
    decodeProperties(ctx, rsp.data(), got);
    if (got < 10 || be32(rsp.data() + 6) != 0) {
        const Value* r = ctx.result.get("response");
        const Value* name = r ? r->get("rc_name") : nullptr;
        ctx.error = "TPM2_GetCapability answered " + (name ? name->str() : std::string("a short response"));
        return 1;
    }
    return 0;
}

int send(Context& ctx, const std::vector<std::string>& args) {
    if (args.size() != 1) return ctx.usage("usage: quarn tpm send FILE   (hexadecimal bytes: tag line, size line, rest)");
    std::string path = args[0];
    if (ctx.virtualBoard) {
        // The simulated board has its own file tree: the user's file (read without
        // following a link, as the library does) is copied into it first.
        quarn::Platform& host = quarn::linuxPlatform();
        std::string text;
        const int fd = host.open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
        char chunk[4096];
        ssize_t n = 0;
        while (fd >= 0 && text.size() <= (1u << 16) && (n = host.read(fd, chunk, sizeof(chunk))) > 0)
            text.append(chunk, static_cast<size_t>(n));
        if (fd >= 0) host.close(fd);
        if (fd >= 0 && n >= 0) {
            path = "/tmp/quarn-tpm-command.txt";
            quarn::makeDirectories("/tmp");
            quarn::writeScratchFile(path, text);
        }
    }
    TPMDAPI tpm("TPMDAPI");
    std::vector<unsigned char> rsp(kResponseRoom);
    unsigned int got = 0;
    if (ErrorMsg* e = tpm.sendCommandManually(path.c_str(), rsp.data(), kResponseRoom, &got)) return ctx.fail(e);
    ctx.result.set("file", args[0]);
    decodeResponse(ctx, rsp.data(), got);
    return 0;
}

int show(Context& ctx, const std::vector<std::string>& args) {
    if (!args.empty()) return ctx.usage("tpm show takes no arguments");
    TPMDAPI tpm("TPMDAPI");
    StdoutCapture capture;
    ErrorMsg* e = tpm.displayDevice();
    ctx.text = capture.finish();
    if (e) return ctx.fail(e);
    ctx.result.set("present", ctx.text.rfind("TPM0", 0) == 0);
    return 0;
}

Register reg{
    {"tpm", "show", "", "whether /dev/tpm0 can be opened", show},
    {"tpm", "selftest", "[--quick]", "TPM2_SelfTest (full unless --quick); response code decoded", selftest},
    {"tpm", "caps", "[CAPABILITY PROPERTY COUNT]",
     "TPM2_GetCapability (default: the fixed TPM properties 6 0x100 64)", caps},
    {"tpm", "send", "FILE", "send a command written as hexadecimal bytes; response decoded", send},
};

}  // namespace
}  // namespace quarn::cli
