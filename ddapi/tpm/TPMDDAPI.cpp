// Device layer of the TPM.
#include "ddapi/tpm/TPMDDAPI.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "api/StringUtil.h"
#include "api/platform/Platform.h"

namespace {
const char kTpmNode[] = "/dev/tpm0";
constexpr ERRORCODE kOpenFail = 0xC0000215;
constexpr ERRORCODE kCommandInterface = 0xD3080400;
constexpr ERRORCODE kSendCommandManually = 0xD3080800;

constexpr uint32_t kSelfTest = 0x143;
constexpr uint32_t kGetCapability = 0x17A;
constexpr unsigned int kHeaderSize = 10;

// A command file is read in pieces of at most this many characters (a line with its
// newline, or the first part of a longer line).
constexpr size_t kPieceSize = 21;
// Three characters per byte of the largest command, with room for short lines.
constexpr size_t kMaxFileSize = 64 * 1024;

int hexDigit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// One piece of the file and where it starts, for the messages.
struct Piece {
    std::string text;
    unsigned int line;    // 1-based
    unsigned int column;  // 1-based column of the piece's first character
};

std::vector<Piece> splitPieces(const std::string& text) {
    std::vector<Piece> pieces;
    unsigned int line = 1, column = 1;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t len = 0;
        while (len < kPieceSize && pos + len < text.size()) {
            ++len;
            if (text[pos + len - 1] == '\n') break;
        }
        pieces.push_back({text.substr(pos, len), line, column});
        if (text[pos + len - 1] == '\n') {
            ++line;
            column = 1;
        } else {
            column += static_cast<unsigned int>(len);
        }
        pos += len;
    }
    return pieces;
}
}  // namespace

TPMDDAPI::TPMDDAPI(const char* name) : BaseClassDDAPI(name), m_fd(-1) {}

TPMDDAPI::~TPMDDAPI() { closeDevice(); }

ERRORCODE TPMDDAPI::openDevice() {
    m_fd = quarn::platform().open(kTpmNode, O_RDWR);
    return m_fd < 0 ? kOpenFail : 0;
}

void TPMDDAPI::closeDevice() {
    if (m_fd >= 0) quarn::platform().close(m_fd);
    m_fd = -1;
}

ErrorMsg* TPMDDAPI::commandInterface(unsigned char* command, unsigned int commandLength,
                                     unsigned char* response, unsigned int responseLength,
                                     unsigned int* received) {
    quarn::Platform& p = quarn::platform();
    if (openDevice() != 0) return returnErrorMsg(kCommandInterface, "Can't open device", nullptr);
    const ssize_t written = p.write(m_fd, command, commandLength);
    if (written < 0 || static_cast<size_t>(written) < commandLength) {
        closeDevice();
        return returnErrorMsg(kCommandInterface, "Send command fail", nullptr);
    }
    const ssize_t got = p.read(m_fd, response, responseLength);
    if (got < 0) {
        closeDevice();
        return returnErrorMsg(kCommandInterface, "Get response fail", nullptr);
    }
    if (received) *received = static_cast<unsigned int>(got);
    closeDevice();
    return nullptr;
}

ERRORCODE TPMDDAPI::getCmdSize(_TPM_CMD_INPUT input, unsigned int* size) {
    if (!size) return 0;
    if (input.commandCode == kSelfTest) *size = 11;
    if (input.commandCode == kGetCapability) *size = 22;
    return 0;
}

void TPMDDAPI::converDWordToBytes(unsigned int value, unsigned char* out) {
    out[0] = static_cast<unsigned char>(value >> 24);
    out[1] = static_cast<unsigned char>(value >> 16);
    out[2] = static_cast<unsigned char>(value >> 8);
    out[3] = static_cast<unsigned char>(value);
}

ERRORCODE TPMDDAPI::createCmdList(_TPM_CMD_INPUT input, unsigned char* buffer) {
    buffer[0] = static_cast<unsigned char>(input.tag >> 8);
    buffer[1] = static_cast<unsigned char>(input.tag);
    converDWordToBytes(input.commandSize, buffer + 2);
    converDWordToBytes(input.commandCode, buffer + 6);
    if (input.commandCode == kSelfTest) {
        // fullTest is the lowest-addressed byte of the first parameter word.
        buffer[kHeaderSize] = reinterpret_cast<const unsigned char*>(&input.parameters[0])[0];
    } else if (input.commandCode == kGetCapability) {
        for (int i = 0; i < 3; ++i) converDWordToBytes(input.parameters[i], buffer + kHeaderSize + 4 * i);
    }
    return 0;
}

// The whole file is read and checked before anything is sent: a command whose text is
// malformed, shorter or longer than its size line says, never reaches the TPM in part.
// The file is opened without following a link planted at its name.
ErrorMsg* TPMDDAPI::sendCommandManually(const char* path, unsigned char* response,
                                        unsigned int responseLength, unsigned int* received) {
    quarn::Platform& p = quarn::platform();
    const int fd = path ? p.open(path, O_RDONLY | O_NOFOLLOW | O_CLOEXEC) : -1;
    if (fd < 0) return returnErrorMsg(kSendCommandManually, "fail to open file", nullptr);
    std::string text;
    char chunk[4096];
    for (;;) {
        const ssize_t n = p.read(fd, chunk, sizeof(chunk));
        if (n < 0) {
            const int err = errno;
            p.close(fd);
            formatMessage("fail to read file: %s", quarn::systemErrorText(err).c_str());
            return returnErrorMsg(kSendCommandManually, m_message, nullptr);
        }
        if (n == 0) break;
        text.append(chunk, static_cast<size_t>(n));
        if (text.size() > kMaxFileSize) {
            p.close(fd);
            formatMessage("command file longer than %zu characters", kMaxFileSize);
            return returnErrorMsg(kSendCommandManually, m_message, nullptr);
        }
    }
    p.close(fd);

    const std::vector<Piece> pieces = splitPieces(text);
    // The byte at offset i of a piece; -1 when the pair is not hexadecimal.
    auto pairAt = [](const std::string& s, size_t i) -> int {
        if (i + 1 >= s.size()) return -1;
        const int hi = hexDigit(s[i]), lo = hexDigit(s[i + 1]);
        return hi < 0 || lo < 0 ? -1 : hi * 16 + lo;
    };
    auto badPair = [&](const Piece& piece, size_t i) {
        if (i + 1 >= piece.text.size())
            formatMessage("line %u column %zu: incomplete hexadecimal byte", piece.line, piece.column + i);
        else
            formatMessage("line %u column %zu: not a hexadecimal byte", piece.line, piece.column + i);
        return returnErrorMsg(kSendCommandManually, m_message, nullptr);
    };

    if (pieces.empty() || pieces[0].text.size() != 6)
        return returnErrorMsg(kSendCommandManually, "incorrect command length", nullptr);
    const int tagHigh = pairAt(pieces[0].text, 0);
    if (tagHigh < 0) return badPair(pieces[0], 0);
    const int tagLow = pairAt(pieces[0].text, 3);
    if (tagLow < 0) return badPair(pieces[0], 3);
    if (pieces.size() < 2) return returnErrorMsg(kSendCommandManually, "command ends before its size line", nullptr);
    if (pieces[1].text.size() < 11)
        return returnErrorMsg(kSendCommandManually, "incorrect command length", nullptr);
    uint32_t declared = 0;
    for (size_t i = 0; i <= 9; i += 3) {
        const int b = pairAt(pieces[1].text, i);
        if (b < 0) return badPair(pieces[1], i);
        declared = (declared << 8) | static_cast<uint32_t>(b);
    }
    // A TPM command holds at least its 10-byte header; the kernel takes up to 4096 bytes.
    if (declared < kHeaderSize || declared > kMaxCommand) {
        formatMessage("declared command length %u is out of range %u-%u", declared, kHeaderSize, kMaxCommand);
        return returnErrorMsg(kSendCommandManually, m_message, nullptr);
    }
    std::vector<unsigned char> command(declared, 0);
    size_t filled = 2;
    for (size_t n = 1; n < pieces.size(); ++n) {
        const Piece& piece = pieces[n];
        // A blank line holds no byte.
        if (n > 1 && (piece.text == "\n" || piece.text == "\r\n")) continue;
        for (size_t i = 0; i < piece.text.size(); i += 3) {
            const int b = pairAt(piece.text, i);
            if (b < 0) return badPair(piece, i);
            if (filled >= declared) {
                formatMessage("command holds more than its declared %u bytes", declared);
                return returnErrorMsg(kSendCommandManually, m_message, nullptr);
            }
            command[filled++] = static_cast<unsigned char>(b);
        }
    }
    if (filled < declared) {
        formatMessage("command holds %zu bytes, fewer than its declared %u", filled, declared);
        return returnErrorMsg(kSendCommandManually, m_message, nullptr);
    }
    command[0] = static_cast<unsigned char>(tagHigh);
    command[1] = static_cast<unsigned char>(tagLow);
    if (received) *received = 0;
    ErrorMsg* chain = commandInterface(command.data(), declared, response, responseLength, received);
    return chain ? returnErrorMsg(kSendCommandManually, nullptr, chain) : nullptr;
}
