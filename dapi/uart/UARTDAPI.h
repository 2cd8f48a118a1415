// Diagnostic layer of the serial ports: the port list and the register tests.
#pragma once

#include <vector>

#include "api/BaseClass.h"
#include "ddapi/uart/UARTDDAPI.h"

class QUARN_EXPORT UARTDAPI : public BaseClassDAPI {
public:
    explicit UARTDAPI(const char* name);
    ~UARTDAPI() override;

    ErrorMsg* getUartList(std::vector<_SERIAL_INFO>* list);
    ErrorMsg* getUartInfoByName(const char* name, _SERIAL_INFO* info);
    ErrorMsg* testScratchPad(const char* name);
    // external false: the UART's own loopback path (modem control loop bit). external true
    // needs a loopback plug on the connector, which the board cannot confirm: the call
    // only reports what is left from the previous call.
    ErrorMsg* doInternalLoopbackTest(const char* name, bool external, unsigned int length,
                                     bool fixed, uint8_t pattern);

    UARTDDAPI* device() { return m_device; }

private:
    UARTDDAPI* m_device;
    ErrorMsg* m_lastError;  // chain of the last call, until it is handed back
};
