// One interface to every LED of the board: a name starts with its module ("ctrl",
// "eth", "psu", "sas"), and the module's device object serves it.
#pragma once

#include <list>
#include <string>

#include "api/BaseClass.h"

enum LED_MODULE_INDEX {
    LED_MODULE_CONTROLLER = 0,
    LED_MODULE_ETHERNET = 2,
    LED_MODULE_PSU = 3,
    LED_MODULE_SAS = 4,
};

class QUARN_EXPORT LEDDAPI : public BaseClassDAPI {
public:
    explicit LEDDAPI(const char* name);
    ~LEDDAPI() override;

    // The LEDs of the controller and the Ethernet ports (Ethernet names get "eth_").
    ErrorMsg* getDeviceList(std::list<std::string>* names);
    ErrorMsg* getLEDStatus(std::string name, std::string* state);
    ErrorMsg* setLEDStatus(std::string name, std::string state);

    // The leading run of letters; empty when the name is nothing but letters.
    std::string getModuleName(std::string name);
    // A new device object of the module (owned by the caller), or null.
    BaseClassDDAPI* createModuleClassByName(std::string module);
    BaseClassDDAPI* createModuleClassByID(LED_MODULE_INDEX index);
};
