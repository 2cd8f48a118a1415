// The board's I2C population and its I2C profile.
#include "vboard/models/i2c/I2cBoard.h"

#include <string>

namespace quarn::vboard {

const char kI2cProfile[] =
    "# I2C topology of the storage-controller board.\n"
    "# [BUS] name number(hex) frequency(kHz) master\n"
    "[BUS]\n"
    "smbus0 0 100 pch-smbus\n"
    "smbus1 1 100 imc-smbus\n"
    "i2c2 2 400 fpga-i2c\n"
    "\n"
    "# [Topology] name bus(hex) address(8-bit hex) type [vendor model | mux channel buses]\n"
    "[Topology]\n"
    "mux0 0 0xe0 mux 3 4 5 6\n"
    "max6657 0 0x98 temperature Maxim MAX6657\n"
    "mux1 6 0xe4 mux 7 8\n"
    "mux2 1 0xe2 mux 9 a\n"
    "spd-dimm0 9 0xa0 spd_ddr4 Samsung M393A2K40BB2-CTD\n"
    "spd-dimm1 9 0xa2 spd_ddr4 Samsung M393A2K40BB2-CTD\n"
    "spd-dimm2 a 0xa0 spd_ddr4 Samsung M393A2K40BB2-CTD\n"
    "spd-dimm3 a 0xa2 spd_ddr4 Samsung M393A2K40BB2-CTD\n"
    "dimm0-temp 9 0x30 temperature JEDEC SPDTMP\n"
    "dimm1-temp 9 0x32 temperature JEDEC SPDTMP\n"
    "dimm2-temp a 0x30 temperature JEDEC SPDTMP\n"
    "dimm3-temp a 0x32 temperature JEDEC SPDTMP\n"
    "psu0 3 0xb0 psu Delta DPS-550AB\n"
    "psu1 4 0xb0 psu Delta DPS-550AB\n"
    "bbu0 5 0x16 battery TI bq40z50\n"
    "vpd0 2 0xa8 vpd Atmel AT24C64\n"
    "bp-vpd 7 0xae vpd Atmel AT24C64\n"
    "bp-temp 8 0x9c temperature Maxim MAX6657\n"
    "\n"
    "# The DIMM sensors (TSE2004av) are driven as SPDTMP, the MAX6659 as its MAX6657 subset.\n"
    "# [Protocol] name key=value...; registers not named are byte_data\n"
    "[Protocol]\n"
    "mux0 all=byte\n"
    "mux1 all=byte\n"
    "mux2 all=byte\n"
    "dimm0-temp all=word\n"
    "dimm1-temp all=word\n"
    "dimm2-temp all=word\n"
    "dimm3-temp all=word\n"
    "psu0 file=PMBus_protocol.ini\n"
    "psu1 file=PMBus_protocol.ini\n"
    "bbu0 all=word 20=block 21=block 22=block 23=block\n"
    "vpd0 all=vpd_block_data\n"
    "bp-vpd all=vpd_block_data\n";

namespace {
const char kPmbusProtocol[] =
    "# PMBus command protocols of the power supplies\n"
    "all=word 0=byte_data 1=byte_data 3=byte 19=byte_data 78=byte_data 7a=byte_data "
    "7b=byte_data 7c=byte_data 7d=byte_data 7e=byte_data 81=byte_data 98=byte_data "
    "99=pmbus_block 9a=pmbus_block 9b=pmbus_block 9e=pmbus_block d5=pmbus_block ee=pmbus_block "
    "f2=byte_data f5=pmbus_block f6=pmbus_block f8=pmbus_block\n";

void writeText(VpdEepromModel& e, size_t at, const std::string& text) {
    for (size_t i = 0; i < text.size() && at + i < e.bytes().size(); ++i)
        e.bytes()[at + i] = static_cast<uint8_t>(text[i]);
}
}  // namespace

I2cBoard::I2cBoard(VirtualBoard& board) {
    for (int n = 0; n < kBuses; ++n) {
        adapter[n] = std::make_shared<I2cAdapterModel>();
        board.addDevice("/dev/i2c-" + std::to_string(n), adapter[n]);
    }
    I2cSegment& smbus0 = adapter[0]->segment();
    I2cSegment& smbus1 = adapter[1]->segment();
    I2cSegment& i2c2 = adapter[2]->segment();

    mux0 = std::make_shared<Pca9548Model>();
    smbus0.attachSwitch(0x70, mux0);
    max6657 = std::make_shared<Max6657Model>(41, 52);
    smbus0.attach(0x4C, max6657);
    for (int i = 0; i < 2; ++i) {
        PmbusSupplyConfig config;
        config.serial = i == 0 ? "DPS1A2B3C4" : "DPS1A2B3C5";
        config.temperature0 = 33 + i;
        psu[i] = std::make_shared<PmbusSupplyModel>(config);
        mux0->channel(i).attach(0x58, psu[i]);
    }
    chargeControl = std::make_shared<ChargeControlModel>();
    battery = std::make_shared<Bq40z50Model>(0x0B, &board.clock(), chargeControl);
    mux0->channel(2).attach(0x0B, battery);
    mux1 = std::make_shared<Pca9548Model>();
    mux0->channel(3).attachSwitch(0x72, mux1);
    backplaneVpd = std::make_shared<VpdEepromModel>();
    writeText(*backplaneVpd, 0, "BP-12G-SAS-8 rev B");
    mux1->channel(0).attach(0x57, backplaneVpd);
    backplaneTemp = std::make_shared<Max6657Model>(36, 39, true);
    mux1->channel(1).attach(0x4E, backplaneTemp);

    mux2 = std::make_shared<Pca9548Model>();
    smbus1.attachSwitch(0x71, mux2);
    for (int d = 0; d < kDimms; ++d) {
        const uint8_t addr = static_cast<uint8_t>(0x50 + (d % 2));
        spd[d] = std::make_shared<Ddr4SpdModel>(addr);
        spd[d]->load(makeDdr4RdimmSpd(0x3A1B0000u + static_cast<uint32_t>(d)));
        spd[d]->attachTo(mux2->channel(d / 2), spd[d]);
        dimmTemp[d] = std::make_shared<Tse2004Model>(38.5 + d);
        mux2->channel(d / 2).attach(static_cast<uint8_t>(0x18 + (d % 2)), dimmTemp[d]);
    }

    vpd = std::make_shared<VpdEepromModel>();
    writeText(*vpd, 0, "VELTRAX QUARN-SC1 controller");
    i2c2.attach(0x54, vpd);

    board.writeFile("/etc/quarn/I2C_profile.ini", kI2cProfile);
    board.writeFile("/etc/quarn/PMBus_protocol.ini", kPmbusProtocol);
}

}  // namespace quarn::vboard
