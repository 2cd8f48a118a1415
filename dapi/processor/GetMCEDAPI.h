// Reads the kernel's machine-check log (/dev/mcelog) and formats its records as text.
#pragma once

#include <cstdint>
#include <string>

#include "api/BaseClass.h"

#if __has_include(<asm/mce.h>)
#include <asm/mce.h>
#else
#include <linux/types.h>
// The kernel's published record layout (arch/x86/include/uapi/asm/mce.h).
struct mce {
    __u64 status;
    __u64 misc;
    __u64 addr;
    __u64 mcgstatus;
    __u64 ip;
    __u64 tsc;
    __u64 time;
    __u8 cpuvendor;
    __u8 inject_flags;
    __u8 severity;
    __u8 pad;
    __u32 cpuid;
    __u8 cs;
    __u8 bank;
    __u8 cpu;
    __u8 finished;
    __u32 extcpu;
    __u32 socketid;
    __u32 apicid;
    __u64 mcgcap;
    __u64 synd;
    __u64 ipid;
    __u64 ppin;
    __u32 microcode;
    __u64 kflags;
};
#define MCE_GET_RECORD_LEN _IOR('M', 1, int)
#define MCE_GET_LOG_LEN _IOR('M', 2, int)
#endif

class QUARN_EXPORT GetMCEDAPI : public BaseClassDAPI {
public:
    explicit GetMCEDAPI(const char* name);
    ~GetMCEDAPI() override;

    ErrorMsg* Execute(std::string* text);
    // Only the records of one processor package (their socketid).
    ErrorMsg* Execute(int package, std::string* text);

    ErrorMsg* process(int fd, uint32_t recordLength, uint32_t logLength, char* buffer,
                      std::string* text);
    ErrorMsg* process(int fd, uint32_t recordLength, uint32_t logLength, char* buffer,
                      std::string* text, int package);

    void dump_mce_raw_ascii(struct mce* m, uint32_t recordLength, std::string* text);
    void dump_mce_raw_ascii(struct mce* m, uint32_t recordLength, std::string* text, int package);
    // A record without a time stamp gets the current time.
    void mce_prepare(struct mce* m);

private:
    ErrorMsg* run(bool onePackage, int package, std::string* text);
    ErrorMsg* processRecords(int fd, uint32_t recordLength, uint32_t logLength, char* buffer,
                             std::string* text, bool onePackage, int package);
};
