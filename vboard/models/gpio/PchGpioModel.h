// The chipset's legacy GPIO block in I/O space (128 ports at the LPC bridge's GPIO
// base): use-select, direction and level registers for three banks of 32 pins. An
// output pin drives its pad with the level written; an input pin reads the board
// signal wired to it (the slot ID strap, the fan-fail line).
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>

#include "vboard/DeviceModel.h"

namespace quarn::vboard {

class VirtualBoard;
class PciBoard;

class PchGpioModel : public PortModel, public std::enable_shared_from_this<PchGpioModel> {
public:
    static constexpr uint16_t kBase = 0x500;
    static constexpr uint16_t kSize = 0x80;
    static constexpr int kPins = 96;
    // The board's wiring (pin numbers of its GPIO profile).
    static constexpr int kSlotIdPin = 40;    // SLT_AB_PCH: 0 slot A, 1 slot B
    static constexpr int kFanFailPin = 12;   // FAN_FAIL, low when a fan stopped
    static constexpr int kBiosSelectPin = 17;
    static constexpr int kHeartbeatPin = 34;
    static constexpr int kPeerResetPin = 70;

    PchGpioModel();

    // Ports, the LPC bridge's GPIO base and enable, and the GPIO profile of the board.
    void install(VirtualBoard& board, PciBoard& pci);

    uint32_t in(uint16_t port, int size) override;
    void out(uint16_t port, uint32_t value, int size) override;

    // The level on a pin's board signal (inputs read it).
    void setSignal(int pin, bool high);
    // What the pad of an output pin drives onto the board.
    bool padLevel(int pin) const;
    // Configures a pin as the firmware does: GPIO or native, input or output.
    void configure(int pin, bool gpio, bool input);

    // Fault: the pin's pad no longer follows its output latch (it keeps the level of
    // the board signal), so a write does not read back.
    void breakOutput(int pin, bool broken = true);

    // Number of level-register writes (all banks).
    unsigned levelWrites() const;

private:
    uint32_t readRegister(uint32_t offset) const;
    void writeRegister(uint32_t offset, uint32_t value, uint32_t byteMask);
    static int bankOf(uint32_t offset, uint32_t* kind);

    mutable std::mutex m_mutex;
    std::array<uint32_t, kSize / 4> m_plain{};  // registers without pin semantics
    uint32_t m_useSelect[3] = {0, 0, 0};
    uint32_t m_inputSelect[3] = {~0u, ~0u, ~0u};  // 1 = input (the reset state)
    uint32_t m_latch[3] = {0, 0, 0};
    uint32_t m_signal[3] = {0, 0, 0};
    uint32_t m_broken[3] = {0, 0, 0};
    unsigned m_levelWrites = 0;
};

extern const char kBoardGpioProfile[];

}  // namespace quarn::vboard
