// Diagnostic layer of the TPM.
#pragma once

#include "api/BaseClass.h"
#include "ddapi/tpm/TPMDDAPI.h"

class QUARN_EXPORT TPMDAPI : public BaseClassDAPI {
public:
    explicit TPMDAPI(const char* name);
    ~TPMDAPI() override;

    // Prints "TPM0", or "No device be detected." when the device cannot be opened.
    ErrorMsg* displayDevice();
    ErrorMsg* commandInterface(_TPM_CMD_INPUT input, unsigned char* response,
                               unsigned int responseLength, unsigned int* received);
    ErrorMsg* sendCommandManually(const char* path, unsigned char* response,
                                  unsigned int responseLength, unsigned int* received);

private:
    TPMDDAPI* m_device;
};
