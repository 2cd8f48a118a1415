// The controller board itself: its activity and fault LEDs (bits of the FPGA's LED
// registers) and its slot ID (a chipset GPIO strap).
#pragma once

#include <list>
#include <string>

#include "api/BaseClass.h"

class QUARN_EXPORT ControllerDDAPI : public BaseClassDDAPI {
public:
    ControllerDDAPI();
    ~ControllerDDAPI() override;

    // ctrl_act_led and ctrl_fault_led.
    ErrorMsg* getLEDList(std::list<std::string>* names) override;
    // state "on" or "off".
    ErrorMsg* getLEDStatus(std::string name, std::string* state) override;
    ErrorMsg* setLEDStatus(std::string name, std::string state) override;
    // 0 or 1, from the GPIO pin SLT_AB_PCH.
    ErrorMsg* getSlotID(unsigned int* id);
};
