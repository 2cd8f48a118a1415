// Diagnostic layer of the TPM.
#include "dapi/tpm/TPMDAPI.h"

#include <cstdio>
#include <new>

namespace {
constexpr ERRORCODE kCommandInterface = 0xD3040400;
constexpr ERRORCODE kSendCommandManually = 0xD3040800;
constexpr unsigned int kLargestBuiltCommand = 22;
}  // namespace

TPMDAPI::TPMDAPI(const char* name) : BaseClassDAPI(name), m_device(new (std::nothrow) TPMDDAPI("TPMDDAPI")) {}

TPMDAPI::~TPMDAPI() { delete m_device; }

ErrorMsg* TPMDAPI::displayDevice() {
    const bool found = m_device && m_device->openDevice() == 0;
    printf("%s\n", found ? "TPM0" : "No device be detected.");
    fflush(stdout);
    if (m_device) m_device->closeDevice();
    return nullptr;
}

// Only the two commands the structure describes are sent; for any other code the built
// command would be a bare header with a size of 0, so it is refused instead.
ErrorMsg* TPMDAPI::commandInterface(_TPM_CMD_INPUT input, unsigned char* response,
                                    unsigned int responseLength, unsigned int* received) {
    if (!m_device) return returnErrorMsg(kCommandInterface, "Construct TPM DDAPI failed", nullptr);
    unsigned int size = 0;
    m_device->getCmdSize(input, &size);
    if (size == 0) {
        formatMessage("command code 0x%X is not supported", input.commandCode);
        return returnErrorMsg(kCommandInterface, m_message, nullptr);
    }
    unsigned char buffer[kLargestBuiltCommand] = {0};
    m_device->createCmdList(input, buffer);
    ErrorMsg* chain = m_device->commandInterface(buffer, size, response, responseLength, received);
    return chain ? returnErrorMsg(kCommandInterface, nullptr, chain) : nullptr;
}

ErrorMsg* TPMDAPI::sendCommandManually(const char* path, unsigned char* response,
                                       unsigned int responseLength, unsigned int* received) {
    if (!m_device) return returnErrorMsg(kSendCommandManually, "Construct TPM DDAPI failed", nullptr);
    ErrorMsg* chain = m_device->sendCommandManually(path, response, responseLength, received);
    return chain ? returnErrorMsg(kSendCommandManually, nullptr, chain) : nullptr;
}
