// Device layer of the TPM: one complete command written to the kernel's TPM character
// device and one read of its response, handed back unparsed.
#pragma once

#include <cstdint>

#include "api/BaseClass.h"

// A TPM 2.0 command to be built: TPM2_SelfTest (0x143) or TPM2_GetCapability (0x17A).
struct _TPM_CMD_INPUT {
    uint16_t tag;
    uint32_t commandSize;  // copied unchanged into the header
    uint32_t commandCode;
    // 0x17A: capability, property, propertyCount; 0x143: the first byte is fullTest.
    uint32_t parameters[3];
};

class QUARN_EXPORT TPMDDAPI : public BaseClassDDAPI {
public:
    // The largest command the kernel's TPM device takes in one write.
    static constexpr unsigned int kMaxCommand = 4096;

    explicit TPMDDAPI(const char* name);
    ~TPMDDAPI() override;

    ERRORCODE openDevice();
    void closeDevice();
    ErrorMsg* commandInterface(unsigned char* command, unsigned int commandLength,
                               unsigned char* response, unsigned int responseLength,
                               unsigned int* received);
    // 11 for TPM2_SelfTest, 22 for TPM2_GetCapability; any other code leaves *size alone.
    ERRORCODE getCmdSize(_TPM_CMD_INPUT input, unsigned int* size);
    void converDWordToBytes(unsigned int value, unsigned char* out);
    // buffer: at least 22 bytes. Other command codes get the 10-byte header only.
    ERRORCODE createCmdList(_TPM_CMD_INPUT input, unsigned char* buffer);
    // The command written in a text file as hexadecimal byte pairs: the tag line, the size
    // line, then the rest of the command. Nothing is sent unless the whole file is a
    // well-formed command of exactly its declared length.
    ErrorMsg* sendCommandManually(const char* path, unsigned char* response,
                                  unsigned int responseLength, unsigned int* received);

private:
    int m_fd;
};
