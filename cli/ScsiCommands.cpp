// quarn scsi ...: sense data decoding and the SCSI command layer on an sg node.
#include <fcntl.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "api/StringUtil.h"
#include "api/platform/Platform.h"
#include "cli/Cli.h"
#include "ddapi/scsi/SCSIFactory.h"
#include "ddapi/scsi/SCSISenseAnalyzer.h"

namespace quarn::cli {
namespace {

std::string hex2(unsigned int v) {
    char text[8];
    snprintf(text, sizeof(text), "0x%02x", v);
    return text;
}

// Every argument, split at commas and colons, is one byte ("70", "0x70") or a run of
// bytes ("700003"): "70 00 03", "700003" and "0x70,0x00,0x03" give the same buffer.
bool parseSenseBytes(const std::vector<std::string>& args, std::vector<unsigned char>* out) {
    for (const std::string& arg : args) {
        std::string token;
        for (size_t i = 0; i <= arg.size(); ++i) {
            if (i < arg.size() && arg[i] != ',' && arg[i] != ':') {
                token += arg[i];
                continue;
            }
            if (token.empty()) continue;
            if (token.size() > 2 && token[0] == '0' && (token[1] == 'x' || token[1] == 'X')) token.erase(0, 2);
            if (token.size() == 1) token = "0" + token;
            if (token.empty() || token.size() % 2) return false;
            for (char c : token)
                if (!isxdigit(static_cast<unsigned char>(c))) return false;
            for (size_t k = 0; k < token.size(); k += 2)
                out->push_back(static_cast<unsigned char>(std::stoul(token.substr(k, 2), nullptr, 16)));
            token.clear();
        }
    }
    return !out->empty() && out->size() <= SCSISenseAnalyzer::kSenseBufferLength;
}

// Decodes sense bytes as the command layer judges them: format, key, ASC/ASCQ, the
// analyzer's texts and the error code the command layer would OR into its function row.
int sense(Context& ctx, const std::vector<std::string>& args) {
    std::vector<unsigned char> bytes;
    if (args.empty() || !parseSenseBytes(args, &bytes))
        return ctx.usage("usage: quarn scsi sense HEX... (at most 96 bytes, e.g. 70 00 03 00 00 00 00 0a ...)");
    unsigned char buffer[SCSISenseAnalyzer::kSenseBufferLength] = {0};
    memcpy(buffer, bytes.data(), bytes.size());
    SCSISenseAnalyzer analyzer("Sense Analyzer");

    const unsigned int response = buffer[0] & 0x7F;
    const bool descriptor = response >= 0x72;
    const bool isSense = response >= 0x70;
    unsigned int key = 0, asc = 0, ascq = 0;
    if (descriptor) {
        key = buffer[1] & 0x0F;
        asc = buffer[2];
        ascq = buffer[3];
    } else if (isSense) {
        key = buffer[2] & 0x0F;
        if (bytes.size() >= 14) {
            asc = buffer[12];
            ascq = buffer[13];
        }
    }
    const ERRORCODE code = analyzer.translateSenseDataToErrorCode(buffer, static_cast<unsigned int>(bytes.size()));
    const std::string format = !isSense ? "none" : descriptor ? "descriptor" : "fixed";

    Value r = Value::object();
    r.set("response_code", hex2(response)).set("format", format);
    char codeText[16];
    snprintf(codeText, sizeof(codeText), "0x%08x", code);
    r.set("error_code", std::string(codeText));
    if (isSense) {
        r.set("key", key).set("key_name", SCSISenseAnalyzer::senseKeyName(key));
        r.set("asc", hex2(asc)).set("ascq", hex2(ascq));
        r.set("category", analyzer.categoryOf(key));
        r.set("condition", analyzer.errorConditionOf(key, asc, ascq));
        if (!descriptor && (buffer[0] & 0x80) && bytes.size() >= 7) {
            const unsigned long info = static_cast<unsigned long>(buffer[3]) << 24 | buffer[4] << 16 | buffer[5] << 8 | buffer[6];
            r.set("information", static_cast<long long>(info));
        }
    }
    ctx.result = r;

    std::string t = "Format:    " + format + " (response code " + hex2(response) + ")\n";
    if (isSense) {
        t += "Sense key: " + hex2(key) + " " + SCSISenseAnalyzer::senseKeyName(key) + "\n";
        t += "ASC/ASCQ:  " + hex2(asc) + "/" + hex2(ascq) + "\n";
        t += "Category:  " + analyzer.categoryOf(key) + "\n";
        t += "Condition: " + analyzer.errorConditionOf(key, asc, ascq) + "\n";
    }
    t += std::string("Error:     ") + codeText + "\n";
    ctx.text = t;
    return 0;
}

int openDevice(Context& ctx, const std::vector<std::string>& args, const char* name, int* fd) {
    if (args.size() != 1) return ctx.usage(std::string("usage: quarn scsi ") + name + " /dev/sgN");
    *fd = quarn::platform().open(args[0], O_RDWR | O_NONBLOCK);
    if (*fd < 0) {
        ctx.error = "cannot open " + args[0] + ": " + quarn::systemErrorText(errno);
        return 1;
    }
    return 0;
}

int inquiry(Context& ctx, const std::vector<std::string>& args) {
    int fd = -1;
    if (int rc = openDevice(ctx, args, "inquiry", &fd)) return rc;
    SCSIFactory f("SCSIFactory");
    unsigned char std[96];
    ErrorMsg* e = f.scsiStdInquiry(fd, std, sizeof(std));
    if (e) {
        quarn::platform().close(fd);
        return ctx.fail(e);
    }
    unsigned char vendor[65], product[65], revision[65], serial[65] = {0};
    f.scsiFormatIDtoString(reinterpret_cast<char*>(std + 8), 8, vendor);
    f.scsiFormatIDtoString(reinterpret_cast<char*>(std + 16), 16, product);
    f.scsiFormatIDtoString(reinterpret_cast<char*>(std + 32), 4, revision);
    unsigned char vpd[252];
    if (ErrorMsg* s = f.scsiInquiryVpd(fd, 0x80, vpd, sizeof(vpd)))
        deleteErrorMsg(s);  // the serial number page is optional
    else
        f.scsiFormatIDtoString(reinterpret_cast<char*>(vpd + 4), vpd[3], serial);
    char id[128] = {0};
    int transport = -1;
    if (ErrorMsg* s = f.scsiInquiryVpd(fd, 0x83, vpd, sizeof(vpd)))
        deleteErrorMsg(s);
    else
        f.scsiDecodeLUDevID(vpd + 4, (vpd[2] << 8 | vpd[3]) > 248 ? 248 : (vpd[2] << 8 | vpd[3]), id, sizeof(id),
                            &transport);
    quarn::platform().close(fd);
    auto str = [](unsigned char* s) { return std::string(reinterpret_cast<char*>(s)); };
    ctx.result.set("vendor", str(vendor)).set("product", str(product)).set("revision", str(revision));
    ctx.result.set("serial", str(serial)).set("identifier", std::string(id)).set("transport", transport);
    ctx.text = "Vendor:     " + str(vendor) + "\nProduct:    " + str(product) + "\nRevision:   " + str(revision) +
               "\nSerial:     " + str(serial) + "\nIdentifier: " + id + "\n";
    return 0;
}

int capacity(Context& ctx, const std::vector<std::string>& args) {
    int fd = -1;
    if (int rc = openDevice(ctx, args, "capacity", &fd)) return rc;
    SCSIFactory f("SCSIFactory");
    unsigned char cap[32];
    ErrorMsg* e = f.scsiReadCapacity16(fd, cap, sizeof(cap));
    quarn::platform().close(fd);
    if (e) return ctx.fail(e);
    unsigned long long last = 0;
    for (int i = 0; i < 8; ++i) last = last << 8 | cap[i];
    const unsigned int block = static_cast<unsigned int>(cap[8]) << 24 | cap[9] << 16 | cap[10] << 8 | cap[11];
    const unsigned long long bytes = (last + 1) * block;
    ctx.result.set("blocks", static_cast<long long>(last + 1)).set("block_size", block);
    ctx.result.set("bytes", static_cast<long long>(bytes));
    char text[160];
    snprintf(text, sizeof(text), "Blocks:     %llu\nBlock size: %u\nCapacity:   %llu bytes (%.2f TB)\n", last + 1, block,
             bytes, bytes / 1e12);
    ctx.text = text;
    return 0;
}

int logs(Context& ctx, const std::vector<std::string>& args) {
    int fd = -1;
    if (int rc = openDevice(ctx, args, "logs", &fd)) return rc;
    SCSIFactory f("SCSIFactory");
    unsigned char current = 0, reference = 0;
    std::string health;
    SCSI_ERROR_LOG log;
    ErrorMsg* e = f.getSCSIDriveTemperature(fd, &current, &reference);
    if (!e) e = f.getSmartHealthStatus(fd, &health);
    if (!e) e = f.getSCSIErrorLog(fd, &log);
    quarn::platform().close(fd);
    if (e) return ctx.fail(e);
    ctx.result.set("temperature", static_cast<int>(current)).set("reference_temperature", static_cast<int>(reference));
    ctx.result.set("health", health);
    std::string t = "Temperature:    " + std::to_string(current) + " C (reference " + std::to_string(reference) +
                    " C)\nHealth:         " + health + "\n";
    t += "Counters        corrected  uncorrected  GB processed\n";
    Value counters = Value::object();
    const struct {
        const char* name;
        const SCSI_ERROR_COUNTER* c;
    } rows[] = {{"read", &log.read}, {"write", &log.write}, {"verify", &log.verify}};
    for (const auto& row : rows) {
        Value v = Value::object();
        v.set("corrected", static_cast<long long>(row.c->totalCorrected));
        v.set("uncorrected", static_cast<long long>(row.c->totalUncorrected));
        v.set("gigabytes_processed", std::string(row.c->gigabytesProcessed));
        counters.set(row.name, v);
        char line[128];
        snprintf(line, sizeof(line), "%-14s  %9llu  %11llu  %s\n", row.name,
                 static_cast<unsigned long long>(row.c->totalCorrected),
                 static_cast<unsigned long long>(row.c->totalUncorrected), row.c->gigabytesProcessed);
        t += line;
    }
    counters.set("non_medium", static_cast<long long>(log.nonMediumErrors));
    ctx.result.set("counters", counters);
    t += "Non-medium errors: " + std::to_string(log.nonMediumErrors) + "\n";
    ctx.text = t;
    return 0;
}

Register reg{
    {"scsi", "sense", "HEX...", "decode sense data bytes (fixed or descriptor format)", sense},
    {"scsi", "inquiry", "/dev/sgN", "vendor, product, revision, serial number and identifier", inquiry},
    {"scsi", "capacity", "/dev/sgN", "block count and block size (READ CAPACITY(16))", capacity},
    {"scsi", "logs", "/dev/sgN", "temperature, health and error counter log pages", logs},
};

}  // namespace
}  // namespace quarn::cli
