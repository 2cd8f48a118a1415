// A direct-access SCSI target over any block medium: the SBC command subset that the
// sd and sg drivers and the storage tests send (INQUIRY, READ CAPACITY, READ/WRITE
// 10/16, TEST UNIT READY, REQUEST SENSE, SYNCHRONIZE CACHE, MODE SENSE), with fixed-
// format sense for bad requests and medium errors. USB mass storage (the bulk-only
// transport's SCSI side) and namespace nodes that translate SCSI use it.
#pragma once

#include <cstdint>
#include <string>

struct sg_io_hdr;

namespace quarn::vboard {

class BlockMedium {
public:
    virtual ~BlockMedium() = default;
    virtual uint32_t blockSize() const = 0;
    virtual uint64_t blockCount() const = 0;
    // false when a block of the range cannot be read; *bad is that block.
    virtual bool readBlocks(uint64_t lba, uint32_t count, uint8_t* out, uint64_t* bad) = 0;
    virtual bool writeBlocks(uint64_t lba, uint32_t count, const uint8_t* in) = 0;
    // Virtual time a transfer of bytes costs (0 for commands without data).
    virtual void charge(uint64_t bytes) = 0;
    virtual std::string vendor() const = 0;   // 8 characters of INQUIRY
    virtual std::string product() const = 0;  // 16
    virtual std::string revision() const = 0; // 4
    virtual std::string serial() const = 0;   // unit serial number page
};

// Executes one SG_IO request against medium as the target would; returns the ioctl result.
int executeBlockCommand(sg_io_hdr* io, bool writable, BlockMedium& medium);

// A medium file on the host: sparse, read and written at block offsets, so that host
// tools (dd) can reach the same bytes the simulated disk holds.
class MediaFile {
public:
    MediaFile(const std::string& hostPath, uint64_t bytes);
    ~MediaFile();
    MediaFile(const MediaFile&) = delete;
    MediaFile& operator=(const MediaFile&) = delete;

    const std::string& path() const { return m_path; }
    bool read(uint64_t offset, void* out, size_t length) const;
    bool write(uint64_t offset, const void* in, size_t length);
    // Makes the range read as zero (a hole where the file system allows it).
    bool zero(uint64_t offset, uint64_t length);
    // Drops every byte and sets the new size (a format).
    bool reset(uint64_t bytes);

private:
    std::string m_path;
    int m_fd;
};

}  // namespace quarn::vboard
