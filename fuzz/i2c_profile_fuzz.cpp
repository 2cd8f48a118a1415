// Fuzz target of the I2C profile parser: arbitrary profile text (and a protocol file it
// may name) is parsed, the topology walked and a few transfers routed through it.
#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "api/ErrorText.h"
#include "api/platform/Platform.h"
#include "ddapi/i2c/I2CDDAPI.h"
#include "fuzz/FuzzSupport.h"
#include "vboard/VirtualBoard.h"
#include "vboard/models/i2c/I2cBusModel.h"
#include "vboard/models/i2c/I2cDeviceModels.h"

namespace {

using quarn::fuzz::drop;

// Text after this marker becomes "/etc/quarn/f.ini", so "file=f.ini" entries get
// fuzzed contents too.
const char kFileMarker[] = "\n#--file--\n";

quarn::vboard::VirtualBoard& board() {
    return quarn::fuzz::board([](quarn::vboard::VirtualBoard& b) {
        for (int n = 0; n < 3; ++n) {
            auto adapter = std::make_shared<quarn::vboard::I2cAdapterModel>();
            if (n == 0) {
                auto sw = std::make_shared<quarn::vboard::Pca9548Model>();
                adapter->segment().attachSwitch(0x70, sw);
                sw->channel(1).attach(0x4C, std::make_shared<quarn::vboard::RegisterFileModel>());
                adapter->segment().attach(0x50, std::make_shared<quarn::vboard::RegisterFileModel>(256, 16));
            }
            b.addDevice("/dev/i2c-" + std::to_string(n), adapter);
        }
    });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    quarn::vboard::VirtualBoard& b = board();
    const std::string input(reinterpret_cast<const char*>(data), size);
    const size_t marker = input.find(kFileMarker);
    b.writeFile("/etc/quarn/I2C_profile.ini", input.substr(0, marker));
    b.writeFile("/etc/quarn/f.ini",
                marker == std::string::npos ? std::string() : input.substr(marker + sizeof(kFileMarker) - 1));

    I2CDDAPI dev("I2C_drv");
    drop(dev.getErrorMsg());
    drop(dev.getProfileWarnings());
    std::list<std::string> lines;
    drop(dev.get_i2c_devices_list(&lines));
    I2CDevice* copies[quarn::i2c::kMaxDevices] = {};
    drop(dev.get_i2c_devices_list(copies));
    for (I2CDevice* c : copies) delete c;
    // A few devices are enough to route and transfer through every protocol kind.
    for (int slot = 0; slot < 8 && dev.getDevice(slot); ++slot) {
        I2CDevice* d = dev.getDevice(slot);
        std::string path;
        drop(dev.get_i2c_device_path(d->get_Name().c_str(), &path));
        int values[64];
        int count = 0;
        drop(dev.read(d->get_Name().c_str(), slot, slot + 3, values, &count, 64));
        int bytes[4] = {1, 2, 3, 4};
        drop(dev.write(d->get_Bus(), d->get_Address(), slot * 17, bytes, 4, &count));
        if (d->IsSwitch()) drop(dev.mux_test(d->get_Name().c_str()));
    }
    return 0;
}
