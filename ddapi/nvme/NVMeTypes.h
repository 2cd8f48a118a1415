// NVMe data structures read by the diagnostics: Identify Controller and Namespace data,
// the SMART / Health, Error Information and Firmware Slot Information log pages and the
// controller register block, in the NVMe Base Specification's byte layout (the kernel's
// UAPI exports only the pass-through command record, so the pages are laid out here under
// the names the Linux driver and nvme-cli give them).
#pragma once

#include <cstdint>

#include "api/Export.h"

#pragma pack(push, 1)
struct QUARN_EXPORT nvme_lbaf {
    uint16_t ms;     // metadata bytes per block
    uint8_t ds;      // log2 of the data size
    uint8_t rp;      // relative performance
};

struct QUARN_EXPORT nvme_id_power_state {
    uint16_t max_power;
    uint8_t rsvd2;
    uint8_t flags;
    uint32_t entry_lat;
    uint32_t exit_lat;
    uint8_t read_tput, read_lat, write_tput, write_lat;
    uint16_t idle_power;
    uint8_t idle_scale;
    uint8_t rsvd19;
    uint16_t active_power;
    uint8_t active_work_scale;
    uint8_t rsvd23[9];
};

struct QUARN_EXPORT nvme_id_ctrl {
    uint16_t vid;
    uint16_t ssvid;
    char sn[20];
    char mn[40];
    char fr[8];
    uint8_t rab;
    uint8_t ieee[3];
    uint8_t cmic;
    uint8_t mdts;
    uint16_t cntlid;
    uint32_t ver;
    uint32_t rtd3r;
    uint32_t rtd3e;
    uint32_t oaes;
    uint32_t ctratt;
    uint8_t rsvd100[156];
    uint16_t oacs;
    uint8_t acl;
    uint8_t aerl;
    uint8_t frmw;
    uint8_t lpa;
    uint8_t elpe;
    uint8_t npss;
    uint8_t avscc;
    uint8_t apsta;
    uint16_t wctemp;
    uint16_t cctemp;
    uint16_t mtfa;
    uint32_t hmpre;
    uint32_t hmmin;
    uint8_t tnvmcap[16];
    uint8_t unvmcap[16];
    uint32_t rpmbs;
    uint16_t edstt;
    uint8_t dsto;
    uint8_t fwug;
    uint16_t kas;
    uint16_t hctma;
    uint16_t mntmt;
    uint16_t mxtmt;
    uint32_t sanicap;
    uint8_t rsvd332[180];
    uint8_t sqes;
    uint8_t cqes;
    uint16_t maxcmd;
    uint32_t nn;
    uint16_t oncs;
    uint16_t fuses;
    uint8_t fna;
    uint8_t vwc;
    uint16_t awun;
    uint16_t awupf;
    uint8_t nvscc;
    uint8_t rsvd531;
    uint16_t acwu;
    uint8_t rsvd534[2];
    uint32_t sgls;
    uint8_t rsvd540[228];
    char subnqn[256];
    uint8_t rsvd1024[768];
    uint32_t ioccsz;
    uint32_t iorcsz;
    uint16_t icdoff;
    uint8_t ctrattr;
    uint8_t msdbd;
    uint8_t rsvd1804[244];
    nvme_id_power_state psd[32];
    uint8_t vs[1024];
};

struct QUARN_EXPORT nvme_id_ns {
    uint64_t nsze;
    uint64_t ncap;
    uint64_t nuse;
    uint8_t nsfeat;
    uint8_t nlbaf;  // number of LBA formats, 0-based
    uint8_t flbas;  // bits 3-0: the format in use
    uint8_t mc;
    uint8_t dpc;
    uint8_t dps;
    uint8_t nmic;
    uint8_t rescap;
    uint8_t fpi;
    uint8_t rsvd33;
    uint16_t nawun;
    uint16_t nawupf;
    uint16_t nacwu;
    uint16_t nabsn;
    uint16_t nabo;
    uint16_t nabspf;
    uint16_t rsvd46;
    uint8_t nvmcap[16];
    uint8_t rsvd64[40];
    uint8_t nguid[16];
    uint8_t eui64[8];
    nvme_lbaf lbaf[16];
    uint8_t rsvd192[192];
    uint8_t vs[3712];
};

struct QUARN_EXPORT nvme_smart_log {
    uint8_t critical_warning;
    uint8_t temperature[2];  // composite temperature, kelvin, little-endian
    uint8_t avail_spare;
    uint8_t spare_thresh;
    uint8_t percent_used;
    uint8_t rsvd6[26];
    uint8_t data_units_read[16];
    uint8_t data_units_written[16];
    uint8_t host_reads[16];
    uint8_t host_writes[16];
    uint8_t ctrl_busy_time[16];
    uint8_t power_cycles[16];
    uint8_t power_on_hours[16];
    uint8_t unsafe_shutdowns[16];
    uint8_t media_errors[16];
    uint8_t num_err_log_entries[16];
    uint32_t warning_temp_time;
    uint32_t critical_comp_time;
    uint16_t temp_sensor[8];  // kelvin, 0 when not implemented
    uint8_t rsvd216[296];
};

struct QUARN_EXPORT nvme_error_log_page {
    uint64_t error_count;
    uint16_t sqid;
    uint16_t cmdid;
    uint16_t status_field;  // bit 0 phase tag, bits 15-1 status
    uint16_t parm_error_location;
    uint64_t lba;
    uint32_t nsid;
    uint8_t vs;
    uint8_t resv[3];
    uint64_t cs;
    uint8_t resv2[24];
};

struct QUARN_EXPORT nvme_firmware_log_page {
    uint8_t afi;  // bits 2-0 running slot, bits 6-4 slot for the next reset
    uint8_t resv[7];
    uint64_t frs[7];  // revision of slots 1-7 (8 ASCII bytes each; 0 when empty)
    uint8_t resv2[448];
};

// Controller registers at the start of BAR0.
struct QUARN_EXPORT nvme_bar {
    uint64_t cap;
    uint32_t vs;
    uint32_t intms;
    uint32_t intmc;
    uint32_t cc;
    uint32_t rsvd1;
    uint32_t csts;
    uint32_t nssr;
    uint32_t aqa;
    uint64_t asq;
    uint64_t acq;
    uint32_t cmbloc;
    uint32_t cmbsz;
};
#pragma pack(pop)

// Firmware Commit arguments as the caller gives them: the slot and the commit action.
struct QUARN_EXPORT nvme_fw_active {
    uint8_t slot;
    uint8_t action;
};

static_assert(sizeof(nvme_id_ctrl) == 4096, "Identify Controller data is 4096 bytes");
static_assert(sizeof(nvme_id_ns) == 4096, "Identify Namespace data is 4096 bytes");
static_assert(sizeof(nvme_smart_log) == 512, "the SMART / Health log is 512 bytes");
static_assert(sizeof(nvme_error_log_page) == 64, "an error log entry is 64 bytes");
static_assert(sizeof(nvme_firmware_log_page) == 512, "the firmware slot log is 512 bytes");
static_assert(sizeof(nvme_bar) == 64, "the register block up to CMBSZ is 64 bytes");
