// GPIO diagnostic layer: the board's named pins, listed, read and set.
#pragma once

#include <list>
#include <string>

#include "api/BaseClass.h"

class GPIODDAPI;

class QUARN_EXPORT GPIODAPI : public BaseClassDAPI {
public:
    explicit GPIODAPI(const char* name);
    ~GPIODAPI() override;

    ErrorMsg* displayGPIOList(std::list<std::string>* list);
    ErrorMsg* getStatus(std::string name, bool* value);
    ErrorMsg* setStatus(std::string name, bool value);

private:
    GPIODDAPI* m_device;
};
