// One NVMe command through the kernel's pass-through requests: the command record is
// built per operation, submitted on the controller's node and its status translated.
#pragma once

#include <sys/ioctl.h>
#include <linux/nvme_ioctl.h>

#include <cstdint>
#include <string>

#include "ddapi/i2c/IOCTL.h"

// Firmware Image Download: one chunk of the image.
struct QUARN_EXPORT NVMeFirmwareChunk {
    void* data;
    unsigned int length;  // bytes, a multiple of 4
    unsigned int offset;  // bytes from the start of the image
};

// Write Zeroes: namespace, first block and the 0-based block count.
struct QUARN_EXPORT NVMeWriteZeroesArgument {
    unsigned int nsid;
    unsigned long long startLBA;
    unsigned short blocks;
};

// Format NVM: namespace and the caller's bytes for the format fields.
struct QUARN_EXPORT NVMeFormatArgument {
    unsigned int nsid;
    unsigned char lbaf;  // LBA format, 0-15
    unsigned char mset;  // metadata settings, 0-1
    unsigned char pi;    // protection information, 0-7
    unsigned char pil;   // protection information location, 0-1
    unsigned char ses;   // secure erase settings, 0-7
};

class QUARN_EXPORT NVMeIOCTL : public IOCTL {
public:
    enum IOCTL_OP_CODE : unsigned char {
        NVME_INVALID = 0,
        NVME_RESET = 1,
        NVME_RESET_CONTROLLER = 2,
        NVME_IDENTIFY_CONTROLLER = 3,
        NVME_IDENTIFY_NAMESPACE = 4,
        NVME_FIRMWARE_LOG = 5,
        NVME_FIRMWARE_COMMIT = 6,
        NVME_FIRMWARE_DOWNLOAD = 7,
        NVME_SMART_LOG = 8,
        NVME_ERROR_LOG = 9,
        NVME_NAMESPACE_ID = 10,
        NVME_WRITE_ZEROES = 11,
        NVME_FORMAT = 12,
    };
    static constexpr unsigned int kAdminRequest = NVME_IOCTL_ADMIN_CMD;
    static constexpr unsigned int kIORequest = NVME_IOCTL_IO_CMD;

    explicit NVMeIOCTL(const char* node);
    ~NVMeIOCTL() override;

    ERRORCODE allocateIOCTLArgument(unsigned char op) override;
    ERRORCODE setIOCTLOperationArgument(unsigned char op, void* argument) override;
    ERRORCODE executeIOCTL(unsigned char op) override;
    // Executes op; reads copy their data into result, op 10 stores the namespace ID
    // (unsigned int) there.
    ERRORCODE executeIOCTL(unsigned char op, void* result) override;

    ERRORCODE nvme_submit_admin_passthru(nvme_passthru_cmd* cmd);
    ERRORCODE nvme_submit_io_passthru(nvme_passthru_cmd* cmd);
    ERRORCODE nvme_submit_passthru(int request, nvme_passthru_cmd* cmd);
    ERRORCODE convertNVMEStatustoErrorcode(unsigned int status);

    // Moves the handle to another node of the controller (the character node for a reset).
    ERRORCODE switchNode(const char* node);
    const std::string& node() const { return m_node; }
    // The record of the last allocated op (null when none), for callers that log it.
    const nvme_passthru_cmd* command() const { return static_cast<const nvme_passthru_cmd*>(m_argument); }
    // Bytes moved by the op's data phase (0 for ops without data).
    static unsigned int dataLength(unsigned char op);

private:
    ERRORCODE reset();
    void releaseArgument();

    std::string m_node;
    void* m_data;  // the data buffer of reads, owned
};
