// A TPM 2.0 behind /dev/tpm0. The TPM itself is libtpms, the TPM 2.0 reference engine that
// swtpm runs; this model is the kernel's character device in front of it: one opener at
// a time, one complete command per write (checked against its header size, up to 4096
// bytes), the response read back in one or more reads.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "vboard/DeviceModel.h"

namespace quarn::vboard {

class TpmModel : public DeviceModel {
public:
    TpmModel();
    ~TpmModel() override;

    std::unique_ptr<FileHandle> open(int flags) override;

    // Fault: the platform firmware did not run TPM2_Startup, so the TPM answers every
    // command but Startup with TPM_RC_INITIALIZE. Takes effect at the next power-on.
    void setSkipStartup(bool skip) { m_skipStartup = skip; }
    // Runs one command through the TPM (powering it on first); the response bytes.
    std::vector<uint8_t> execute(const uint8_t* command, uint32_t length);
    // Commands the TPM has executed.
    unsigned int commandCount() const { return m_commands; }

private:
    friend class TpmHandle;
    void powerOn();

    bool m_open = false;
    bool m_skipStartup = false;
    unsigned int m_commands = 0;
    std::map<std::string, std::vector<uint8_t>> m_nv;  // the TPM's non-volatile state
};

}  // namespace quarn::vboard
