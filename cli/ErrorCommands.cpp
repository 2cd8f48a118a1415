// quarn error CODE [DETAIL]: renders any error code the way the library does.
#include <cstdio>

#include "api/ErrorText.h"
#include "cli/Cli.h"

namespace quarn::cli {
namespace {

std::string lookup(ERRORCODE value, unsigned int key) {
    std::string out;
    parseErrorText(value, key, &out);
    return out;
}

int errorCommand(Context& ctx, const std::vector<std::string>& args) {
    if (args.empty() || args.size() > 2) return ctx.usage("error: usage: quarn error CODE [DETAIL]");
    long long value;
    if (!parseInt(args[0], 0, 0xFFFFFFFFLL, &value) &&
        !parseInt("0x" + args[0], 0, 0xFFFFFFFFLL, &value))
        return ctx.usage("error: '" + args[0] + "' is not a 32-bit code");
    const ERRORCODE code = static_cast<ERRORCODE>(value);
    const std::string detail = args.size() > 1 ? args[1] : "";

    std::string text;
    ErrorMsg record(code, detail);
    getErrorMsgText(&record, &text);

    // The fields of the code, each with its text where the tables have one.
    const ERRORCODE key = code & 0xFF0C0000u;
    char hex[16];
    snprintf(hex, sizeof(hex), "0x%08X", code);
    Value r = Value::object();
    r.set("code", hex);
    r.set("module", static_cast<int>((code >> 24) & 0x3F));
    r.set("module_text", lookup(code & 0x3F000000u, 0x3F000000u));
    r.set("layer", static_cast<int>((code >> 18) & 3));
    r.set("layer_text", lookup(code & 0x000C0000u, 0x000C0000u));
    r.set("function", static_cast<int>((code >> 10) & 0xFF));
    if (code & 0x0003FC00u) r.set("function_text", lookup(code & (key | 0x0003FC00u), key));
    r.set("number", static_cast<int>(code & 0x1FF));
    r.set("common", (code & 0xC0000200u) == 0xC0000200u);
    if (code & 0x1FFu) {
        r.set("error_text", (code & 0xC0000200u) == 0xC0000200u
                                ? lookup(code & 0xC00003FFu, 0xC0000200u)
                                : lookup(code & (key | 0x1FFu), key));
    }
    if (!detail.empty()) r.set("detail", detail);
    r.set("text", text);
    ctx.result = r;
    ctx.text = text + "\n";
    return 0;
}

Register reg{{"error", "", "CODE [DETAIL]", "render an error code as the library does", errorCommand}};

}  // namespace
}  // namespace quarn::cli
