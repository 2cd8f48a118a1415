// Sensor kinds: the sensors of one kind listed by name, and data requests by name.
// Every "List" operation appends its result as one text to the caller's list.
#pragma once

#include <cstdint>
#include <list>
#include <string>

#include "api/BaseClass.h"

class I2CDDAPI;
class SATADDAPI;
class SASDDAPI;
class ProcessorDDAPI;
class PSUDDAPI;

enum TEMPERATURE_DATA_ELEMENT : uint32_t {
    TEMPERATURE_ALL_INFO = 0,
    TEMPERATURE_CURRENT = 1,
    TEMPERATURE_THRESHOLD_HIGH0 = 2,
    TEMPERATURE_THRESHOLD_LOW0 = 3,
    TEMPERATURE_THRESHOLD_HIGH1 = 4,
    TEMPERATURE_THRESHOLD_LOW1 = 5,
};

class QUARN_EXPORT TemperatureGeneric : public BaseClassDDAPI {
public:
    explicit TemperatureGeneric(const char* name);
    ~TemperatureGeneric() override;

    virtual ErrorMsg* getTemperatureNameList(std::list<std::string>* list);
    virtual ErrorMsg* getDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element, std::list<std::string>* list);
    virtual ErrorMsg* setDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element, std::string value);
};

class QUARN_EXPORT Temperature_I2C : public TemperatureGeneric {
public:
    explicit Temperature_I2C(const char* name);
    ~Temperature_I2C() override;

    ErrorMsg* getTemperatureNameList(std::list<std::string>* list) override;
    ErrorMsg* getDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element, std::list<std::string>* list) override;
    ErrorMsg* setDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element, std::string value) override;

    ErrorMsg* getCurrentTemperatureList(std::string name, std::list<std::string>* list);
    ErrorMsg* getThresholdHigh0List(std::string name, std::list<std::string>* list);
    ErrorMsg* getThresholdLow0List(std::string name, std::list<std::string>* list);
    ErrorMsg* getThresholdHigh1List(std::string name, std::list<std::string>* list);
    ErrorMsg* getThresholdLow1List(std::string name, std::list<std::string>* list);
    ErrorMsg* setThresholdHigh0List(std::string name, std::string value);
    ErrorMsg* setThresholdLow0List(std::string name, std::string value);
    ErrorMsg* setThresholdHigh1List(std::string name, std::string value);
    ErrorMsg* setThresholdLow1List(std::string name, std::string value);

private:
    ErrorMsg* get(ERRORCODE code, const std::string& name, uint32_t op, std::list<std::string>* list);
    ErrorMsg* set(ERRORCODE code, const std::string& name, uint32_t op, const std::string& value);
    I2CDDAPI* m_i2c;
};

class QUARN_EXPORT Temperature_SATA : public TemperatureGeneric {
public:
    explicit Temperature_SATA(const char* name);
    ~Temperature_SATA() override;

    // Prints the drive list (the SATA layer's listDrive) and appends the drive names.
    ErrorMsg* getTemperatureNameList(std::list<std::string>* list) override;
    ErrorMsg* getDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element, std::list<std::string>* list) override;

    // The drive names, without printing.
    ErrorMsg* getDriveNames(std::list<std::string>* list);
    ErrorMsg* getCurrentTemperatureList(std::string name, std::list<std::string>* list);
    ErrorMsg* getThresholdHigh0List(std::string name, std::list<std::string>* list);
    ErrorMsg* getThresholdLow0List(std::string name, std::list<std::string>* list);
    ErrorMsg* getThresholdHigh1List(std::string name, std::list<std::string>* list);
    ErrorMsg* getThresholdLow1List(std::string name, std::list<std::string>* list);

private:
    SATADDAPI* m_sata;
};

// SAS adapters: the controller temperature of the management interface (request 7).
// Names are the SAS layer's controller names ("SAS0"), matched without regard to case.
class QUARN_EXPORT Temperature_SAS : public TemperatureGeneric {
public:
    explicit Temperature_SAS(const char* name);
    ~Temperature_SAS() override;

    ErrorMsg* getTemperatureNameList(std::list<std::string>* list) override;
    ErrorMsg* getDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element, std::list<std::string>* list) override;

    ErrorMsg* getCurrentTemperatureList(std::string name, std::list<std::string>* list);
    ErrorMsg* getThresholdHigh0List(std::string name, std::list<std::string>* list);
    ErrorMsg* getThresholdLow0List(std::string name, std::list<std::string>* list);
    ErrorMsg* getThresholdHigh1List(std::string name, std::list<std::string>* list);
    ErrorMsg* getThresholdLow1List(std::string name, std::list<std::string>* list);

private:
    SASDDAPI* m_sas;
};

class QUARN_EXPORT Temperature_CPU : public TemperatureGeneric {
public:
    explicit Temperature_CPU(const char* name);
    ~Temperature_CPU() override;

    ErrorMsg* getTemperatureNameList(std::list<std::string>* list) override;
    ErrorMsg* getDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element, std::list<std::string>* list) override;
    ErrorMsg* setDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element, std::string value) override;

    ErrorMsg* getCurrentTemperatureList(std::string name, std::list<std::string>* list);
    ErrorMsg* getThresholdHigh0List(std::string name, std::list<std::string>* list);
    ErrorMsg* getThresholdLow0List(std::string name, std::list<std::string>* list);
    ErrorMsg* getThresholdHigh1List(std::string name, std::list<std::string>* list);
    ErrorMsg* getThresholdLow1List(std::string name, std::list<std::string>* list);
    ErrorMsg* setThresholdHigh0List(std::string name, std::string value);
    ErrorMsg* setThresholdLow0List(std::string name, std::string value);
    ErrorMsg* setThresholdHigh1List(std::string name, std::string value);
    ErrorMsg* setThresholdLow1List(std::string name, std::string value);

private:
    ErrorMsg* get(const std::string& name, int op, std::list<std::string>* list);
    ProcessorDDAPI* m_cpu;
};

class QUARN_EXPORT Temperature_PSU : public TemperatureGeneric {
public:
    explicit Temperature_PSU(const char* name);
    ~Temperature_PSU() override;

    ErrorMsg* getTemperatureNameList(std::list<std::string>* list) override;
    // Thresholds are the supply's: psu0_temp0 element 2 reads psu0_over_temp_threshold,
    // element 3 psu0_under_temp_threshold.
    ErrorMsg* getDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element, std::list<std::string>* list) override;
    ErrorMsg* setDataByName(std::string name, TEMPERATURE_DATA_ELEMENT element, std::string value) override;

    ErrorMsg* getCurrentTemperatureList(std::string name, std::list<std::string>* list);
    ErrorMsg* getThresholdHigh0List(std::string name, std::list<std::string>* list);
    ErrorMsg* getThresholdLow0List(std::string name, std::list<std::string>* list);
    ErrorMsg* getThresholdHigh1List(std::string name, std::list<std::string>* list);
    ErrorMsg* getThresholdLow1List(std::string name, std::list<std::string>* list);
    ErrorMsg* setThresholdHigh0List(std::string name, std::string value);
    ErrorMsg* setThresholdLow0List(std::string name, std::string value);

private:
    PSUDDAPI* m_psu;
};
