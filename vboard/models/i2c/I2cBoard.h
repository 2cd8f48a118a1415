// The board's I2C population: adapters, switches and devices, and the I2C profile
// "/etc/quarn/I2C_profile.ini" that describes them (map in docs/i2c.md).
#pragma once

#include <memory>

#include "vboard/VirtualBoard.h"
#include "vboard/models/i2c/I2cBusModel.h"
#include "vboard/models/i2c/I2cDeviceModels.h"
#include "vboard/models/bbu/BatteryModels.h"
#include "vboard/models/psu/PmbusSupplyModel.h"
#include "vboard/models/temperature/ThermalSensorModels.h"

namespace quarn::vboard {

struct I2cBoard {
    static constexpr int kBuses = 3;
    static constexpr int kDimms = 4;

    std::shared_ptr<I2cAdapterModel> adapter[kBuses];  // /dev/i2c-0..2
    std::shared_ptr<Pca9548Model> mux0;   // bus 0, 0xE0: supplies, battery, backplane
    std::shared_ptr<Pca9548Model> mux1;   // behind mux0 channel 3, 0xE4: backplane
    std::shared_ptr<Pca9548Model> mux2;   // bus 1, 0xE2: memory channels
    std::shared_ptr<Max6657Model> max6657;
    std::shared_ptr<Ddr4SpdModel> spd[kDimms];
    std::shared_ptr<Tse2004Model> dimmTemp[kDimms];
    std::shared_ptr<PmbusSupplyModel> psu[2];
    std::shared_ptr<Bq40z50Model> battery;
    // The battery's charge/discharge register block (BAR 0 of PCI 72:00.0, see Board).
    std::shared_ptr<ChargeControlModel> chargeControl;
    std::shared_ptr<VpdEepromModel> vpd;
    std::shared_ptr<VpdEepromModel> backplaneVpd;
    std::shared_ptr<Max6657Model> backplaneTemp;  // MAX6659

    // Builds the models, adds "/dev/i2c-N" to board and writes the profile files.
    explicit I2cBoard(VirtualBoard& board);
};

// The profile text the board writes.
extern const char kI2cProfile[];

}  // namespace quarn::vboard
