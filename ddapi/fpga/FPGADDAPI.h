// Device layer of the board FPGA: its base address from the two board ports, the
// register table with each register's access right, and the scratch pad.
#pragma once

#include <list>
#include <string>

#include "api/BaseClass.h"

class MemoryDDAPI;

// One row of the register table: offset, size in bytes, access (0 read and write,
// 1 read-only, 2 write-only).
struct FPGA_REG_INFO {
    unsigned int offset;
    unsigned int size;
    unsigned int access;
};

class QUARN_EXPORT FPGADDAPI : public BaseClassDDAPI {
public:
    static constexpr unsigned int kAccessReadWrite = 0;
    static constexpr unsigned int kAccessReadOnly = 1;
    static constexpr unsigned int kAccessWriteOnly = 2;
    static constexpr unsigned int kRegisterCount = 29;
    static constexpr unsigned int kSpadOffset = 0x8000;
    static constexpr unsigned int kSpadSize = 16384;

    FPGADDAPI();
    ~FPGADDAPI() override;

    ErrorMsg* getDeviceList(std::list<std::string>* names);
    // The register's table row, or null for an offset outside the table.
    const FPGA_REG_INFO* getRegInfo(unsigned int reg);
    unsigned int getRegSize(unsigned int reg);
    ErrorMsg* read(std::string device, unsigned int reg, unsigned char* value);
    ErrorMsg* write(std::string device, unsigned int reg, unsigned char value);
    ErrorMsg* getSPADInfo(std::string device, unsigned int* start, unsigned int* size);
    // Offsets are not checked against the scratch pad's size (getSPADInfo gives it).
    ErrorMsg* readSPAD(std::string device, unsigned int offset, unsigned char* value);
    ErrorMsg* writeSPAD(std::string device, unsigned int offset, unsigned char value);
    // Reads ports 0x700 (bits 23-16) and 0x701 (bits 31-24); 0 when I/O privilege is refused.
    unsigned int getBaseAddress();

    // The base the constructor found (0: no FPGA) and the whole table, for listings.
    unsigned int baseAddress() const { return m_baseAddress; }
    static const FPGA_REG_INFO* registerTable();

private:
    unsigned int m_baseAddress;
    MemoryDDAPI* m_memory;
};
