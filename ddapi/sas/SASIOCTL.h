// Management requests to the SAS3008 driver's control node (/dev/mpt3ctl): one request
// buffer per operation, laid out byte for byte as the driver expects it.
#pragma once

#include <cstdint>

#include "ddapi/i2c/IOCTL.h"

class QUARN_EXPORT SASIOCTL : public IOCTL {
public:
    static constexpr const char* kControlNode = "/dev/mpt3ctl";

    enum IOCTL_OP_CODE : unsigned char {
        SAS_IOCTL_NONE = 0,
        SAS_IOCTL_CLEAR_CONTROLLER_PHY_ERRORS = 1,
        SAS_IOCTL_CLEAR_PHY_ERRORS = 2,
        SAS_IOCTL_LOOPBACK_TEST = 3,
        SAS_IOCTL_CONTROLLER_OPERATION = 4,
        SAS_IOCTL_HARD_RESET = 5,
        SAS_IOCTL_ATTACHED_DEVICE = 6,
        SAS_IOCTL_TEMPERATURE = 7,
        SAS_IOCTL_IOC_INFORMATION = 8,
        SAS_IOCTL_RESERVED_9 = 9,
        SAS_IOCTL_PHY_ERROR_COUNTERS = 10,
        SAS_IOCTL_PHY_LINK_STATUS = 11,
        SAS_IOCTL_PHY_LINK_RATE = 12,
        SAS_IOCTL_SAS_ADDRESS = 13,
        SAS_IOCTL_RESERVED_14 = 14,
    };

    // Request numbers (type 'L') and buffer sizes.
    static constexpr unsigned long kPhyControlRequest = 0xC0284C2E;  // ops 1, 2, 4: 40 bytes
    static constexpr unsigned long kLoopbackRequest = 0xC01C4C32;    // op 3: 28 bytes
    static constexpr unsigned long kHardResetRequest = 0xC00C4C18;   // op 5: 12 bytes
    static constexpr unsigned long kConfigPageRequest = 0xC0204C30;  // ops 6, 7, 10-13: 32 bytes
    static constexpr unsigned long kIOCInfoRequest = 0xC05C4C11;     // op 8: 92 bytes

    // Opens the control node; a missing node leaves no handle and every request fails.
    explicit SASIOCTL(const char* path = kControlNode);
    ~SASIOCTL() override;

    // Allocates the zero-filled buffer of op (the previous one is released).
    ERRORCODE allocateIOCTLArgument(uint8_t op) override;
    // Fills the buffer of op with the current controller and PHY numbers; argument unused.
    ERRORCODE setIOCTLOperationArgument(uint8_t op, void* argument) override;
    // Sends the request of op.
    ERRORCODE executeIOCTL(uint8_t op) override;
    // Sends the request of op and decodes the reply into result (see SASDDAPI::doIOCTLCommand
    // for the type result points at per op).
    ERRORCODE executeIOCTL(uint8_t op, void* result) override;

    // The request buffer of the last allocated op and its size (for logs and tests).
    const unsigned char* getArgument() const { return static_cast<const unsigned char*>(m_argument); }
    unsigned int getArgumentLength() const { return m_argumentLength; }
    // errno of the last failed request (0 after a good one).
    int getLastErrno() const { return m_lastErrno; }

    static unsigned int bufferSizeOf(uint8_t op);
    static unsigned long requestOf(uint8_t op);

private:
    ERRORCODE send(uint8_t op);

    const char* m_path;
    unsigned int m_argumentLength;
    uint8_t m_allocatedOp;
    int m_lastErrno;
};
