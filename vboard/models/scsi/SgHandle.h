// One open of a SCSI generic node: SG_IO goes to the disk model under its lock once the
// header passes the sg driver's own checks, the driver's version answers
// SG_GET_VERSION_NUM, anything else is ENOTTY.
#pragma once

#include <scsi/sg.h>

#include "vboard/DeviceModel.h"

namespace quarn::vboard {

// execute is the model's SG_IO entry: (a v3 header, descriptor opened for writing).
template <typename Model, int (Model::*execute)(sg_io_hdr*, bool)>
class SgHandle : public FileHandle {
public:
    SgHandle(Model& model, bool writable) : m_model(model), m_writable(writable) {}
    int ioctl(unsigned long request, void* arg) override {
        if (request == SG_IO) {
            auto* io = static_cast<sg_io_hdr*>(arg);
            if (!io) return static_cast<int>(fail(EFAULT));
            if (io->interface_id != 'S') return static_cast<int>(fail(ENOSYS));  // not sg v3
            std::lock_guard<std::mutex> lock(m_model.mutex());
            return (m_model.*execute)(io, m_writable);
        }
        if (request == SG_GET_VERSION_NUM) {
            *static_cast<int*>(arg) = 30536;  // sg driver 3.5.36
            return 0;
        }
        return static_cast<int>(fail(ENOTTY));
    }

private:
    Model& m_model;
    bool m_writable;
};

}  // namespace quarn::vboard
