// Diagnostic layer of the SAS expanders: prints device lists, link data and PHY error
// counters for the front end, resets expanders and clears PHY errors.
#pragma once

#include <string>

#include "api/BaseClass.h"
#include "ddapi/expander/ExpanderDDAPI.h"

class QUARN_EXPORT ExpanderDAPI : public BaseClassDAPI {
public:
    explicit ExpanderDAPI(const char* name);
    ~ExpanderDAPI() override;

    // Each name of the kind on its own line, or "NONE".
    ErrorMsg* listDevice(EXP_DEVICE kind);
    ErrorMsg* getLogicalIDByName(std::string name, unsigned int* id);
    // "ATTACHED TYPE     : ..." and the like, one element or all four (EXP_DATA_ALL).
    ErrorMsg* showData(unsigned int id, EXP_DATAELEMENT element);
    ErrorMsg* showErrorData(unsigned int id, EXP_ERRORELEMENT element);
    ErrorMsg* reset(unsigned int id);
    ErrorMsg* clearPHYError();

    ExpanderDDAPI* device() { return m_device; }

private:
    ExpanderDDAPI* m_device;
};
