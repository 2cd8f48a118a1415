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
    "dimm0-temp 9 0x30 temperature JEDEC TSE2004av\n"
    "dimm1-temp 9 0x32 temperature JEDEC TSE2004av\n"
    "dimm2-temp a 0x30 temperature JEDEC TSE2004av\n"
    "dimm3-temp a 0x32 temperature JEDEC TSE2004av\n"
    "psu0 3 0xb0 psu Delta DPS-550AB\n"
    "psu1 4 0xb0 psu Delta DPS-550AB\n"
    "bbu0 5 0x16 battery TI bq40z50\n"
    "vpd0 2 0xa8 vpd Atmel AT24C64\n"
    "bp-vpd 7 0xae vpd Atmel AT24C64\n"
    "bp-temp 8 0x9c temperature Maxim MAX6659\n"
    "\n"
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
    "99=pmbus_block 9a=pmbus_block 9b=pmbus_block 9e=pmbus_block\n";

// PMBus LINEAR11: value = mantissa x 2^exponent, both two's complement.
uint16_t linear11(int exponent, int mantissa) {
    return static_cast<uint16_t>(((exponent & 0x1F) << 11) | (mantissa & 0x7FF));
}

std::shared_ptr<SmbusDeviceModel> makeMax6657(int localC, int remoteC) {
    auto m = std::make_shared<SmbusDeviceModel>();
    m->setByte(0x00, static_cast<uint8_t>(localC));   // local temperature
    m->setByte(0x01, static_cast<uint8_t>(remoteC));  // remote temperature
    m->setByte(0x02, 0x00);                           // status
    m->setByte(0x03, 0x00);                           // configuration (read)
    m->setByte(0x04, 0x08);                           // conversion rate (read)
    m->setByte(0x05, 0x46);                           // local high limit 70 C
    m->setByte(0x07, 0x64);                           // remote high limit 100 C
    m->setByte(0x10, 0x00);                           // remote extended temperature
    m->setByte(0xFE, 0x4D);                           // manufacturer: Maxim
    for (uint8_t r : {0x00, 0x01, 0x02, 0x10, 0xFE}) m->setReadOnly(r);
    return m;
}

// TSE2004av registers are 16 bits, most significant byte first on the wire.
std::shared_ptr<SmbusDeviceModel> makeTsod(double celsius) {
    auto m = std::make_shared<SmbusDeviceModel>();
    auto be = [&](uint8_t reg, uint16_t v) {
        m->setReply(reg, {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v & 0xFF)});
    };
    be(0x00, 0x00EF);  // capabilities
    be(0x01, 0x0000);  // configuration
    be(0x02, 0x0000);  // high limit
    be(0x03, 0x0000);  // low limit
    be(0x04, 0x0550);  // critical limit 85 C
    be(0x05, static_cast<uint16_t>(static_cast<int>(celsius * 16) & 0x1FFF));
    be(0x06, 0x0054);  // manufacturer
    be(0x07, 0x2201);  // device and revision
    m->setReadOnly(0x05);
    return m;
}

std::shared_ptr<SmbusDeviceModel> makePsu(const char* serial, int tempC) {
    auto m = std::make_shared<SmbusDeviceModel>();
    m->setByte(0x00, 0x00);                 // PAGE
    m->setByte(0x01, 0x80);                 // OPERATION: on
    m->setByte(0x19, 0xB0);                 // CAPABILITY
    m->setWord(0x79, 0x0000);               // STATUS_WORD
    m->setWord(0x88, linear11(-1, 460));    // READ_VIN 230 V
    m->setWord(0x89, linear11(-6, 128));    // READ_IIN 2 A
    m->setWord(0x8B, 0x0180);               // READ_VOUT (LINEAR16, exponent -7 below) 3 x 128
    m->setWord(0x8C, linear11(-3, 200));    // READ_IOUT 25 A
    m->setWord(0x8D, linear11(-2, tempC * 4));  // READ_TEMPERATURE_1
    m->setWord(0x90, linear11(0, 6200));    // READ_FAN_SPEED_1
    m->setWord(0x96, linear11(0, 300));     // READ_POUT
    m->setByte(0x20, 0x19);                 // VOUT_MODE: LINEAR16, exponent -7
    m->setByte(0x98, 0x22);                 // PMBUS_REVISION 1.2
    m->setBlock(0x99, "DELTA");
    m->setBlock(0x9A, "DPS-550AB-40 A");
    m->setBlock(0x9B, "S1F");
    m->setBlock(0x9E, serial);
    return m;
}

std::shared_ptr<SmbusDeviceModel> makeBq40z50() {
    auto m = std::make_shared<SmbusDeviceModel>();
    m->setWord(0x08, 2981);   // Temperature, 0.1 K
    m->setWord(0x09, 12600);  // Voltage, mV
    m->setWord(0x0A, 0);      // Current, mA
    m->setWord(0x0D, 95);     // RelativeStateOfCharge, %
    m->setWord(0x0F, 2280);   // RemainingCapacity, mAh
    m->setWord(0x10, 2400);   // FullChargeCapacity, mAh
    m->setWord(0x16, 0x00E0); // BatteryStatus
    m->setWord(0x17, 12);     // CycleCount
    m->setWord(0x18, 2400);   // DesignCapacity
    m->setWord(0x19, 10800);  // DesignVoltage
    m->setWord(0x1B, 0x4C56); // ManufactureDate
    m->setWord(0x1C, 0x0123); // SerialNumber
    m->setBlock(0x20, "Texas Inst.");
    m->setBlock(0x21, "bq40z50");
    m->setBlock(0x22, "LION");
    m->setBlock(0x23, "");
    return m;
}

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
    max6657 = makeMax6657(41, 52);
    smbus0.attach(0x4C, max6657);
    for (int i = 0; i < 2; ++i) {
        psu[i] = makePsu(i == 0 ? "DPS1A2B3C4" : "DPS1A2B3C5", 33 + i);
        mux0->channel(i).attach(0x58, psu[i]);
    }
    battery = makeBq40z50();
    mux0->channel(2).attach(0x0B, battery);
    mux1 = std::make_shared<Pca9548Model>();
    mux0->channel(3).attachSwitch(0x72, mux1);
    backplaneVpd = std::make_shared<VpdEepromModel>();
    writeText(*backplaneVpd, 0, "BP-12G-SAS-8 rev B");
    mux1->channel(0).attach(0x57, backplaneVpd);
    backplaneTemp = makeMax6657(36, 39);
    mux1->channel(1).attach(0x4E, backplaneTemp);

    mux2 = std::make_shared<Pca9548Model>();
    smbus1.attachSwitch(0x71, mux2);
    for (int d = 0; d < kDimms; ++d) {
        const uint8_t addr = static_cast<uint8_t>(0x50 + (d % 2));
        spd[d] = std::make_shared<Ddr4SpdModel>(addr);
        spd[d]->load(makeDdr4RdimmSpd(0x3A1B0000u + static_cast<uint32_t>(d)));
        spd[d]->attachTo(mux2->channel(d / 2), spd[d]);
        dimmTemp[d] = makeTsod(38.5 + d);
        mux2->channel(d / 2).attach(static_cast<uint8_t>(0x18 + (d % 2)), dimmTemp[d]);
    }

    vpd = std::make_shared<VpdEepromModel>();
    writeText(*vpd, 0, "VELTRAX QUARN-SC1 controller");
    i2c2.attach(0x54, vpd);

    board.writeFile("/etc/quarn/I2C_profile.ini", kI2cProfile);
    board.writeFile("/etc/quarn/PMBus_protocol.ini", kPmbusProtocol);
}

}  // namespace quarn::vboard
