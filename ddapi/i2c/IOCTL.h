// A kernel device node held open for ioctl requests; the base of the SAS and NVMe
// ioctl classes, which add the requests themselves.
#pragma once

#include <cstdint>

#include "api/ErrorCode.h"

class QUARN_EXPORT IOCTL {
public:
    // Opens path read-write; a failed open leaves no descriptor (see setFileHandle).
    explicit IOCTL(const char* path);
    IOCTL(const IOCTL&) = delete;
    IOCTL& operator=(const IOCTL&) = delete;
    virtual ~IOCTL();

    // The base class has no requests: each answers 0xC000021B and does nothing.
    virtual ERRORCODE allocateIOCTLArgument(uint8_t operation);
    virtual ERRORCODE setIOCTLOperationArgument(uint8_t operation, void* argument);
    virtual ERRORCODE executeIOCTL(uint8_t operation);
    virtual ERRORCODE executeIOCTL(uint8_t operation, void* argument);

    // 0xC000021C when the open fails, else 0. A descriptor already held is closed first.
    ERRORCODE setFileHandle(const char* path);
    ERRORCODE getFileHandle(int* out);
    // Opens path when no descriptor is held, else answers the held one.
    ERRORCODE getFileHandle(const char* path, int* out);
    // 0xC000021D when the close fails, else 0.
    ERRORCODE closeFileHandle();

    uint8_t getControllerID() const { return m_controllerID; }
    ERRORCODE setControllerID(uint8_t id) {
        m_controllerID = id;
        return 0;
    }
    uint8_t getPHYNumber() const { return m_phyNumber; }
    void setPHYNumber(uint8_t phy) { m_phyNumber = phy; }

protected:
    int m_fileHandle;  // 0 when no node is open
    uint8_t m_controllerID;
    uint8_t m_phyNumber;
    void* m_argument;  // released with free
};
