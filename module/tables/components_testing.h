// What the component table tests share: a full object of each table (every
// attribute it reads but "Nexus") and the tables themselves.
#ifndef KELP_MODULE_TABLES_COMPONENTS_TESTING_H
#define KELP_MODULE_TABLES_COMPONENTS_TESTING_H

#include "store/tablelist.h"
#include "tables/getters.h"
#include "testing/table_fixture.h"

namespace componenttest {

using tabletest::Attributes;
using tabletest::TableUnderTest;

inline const Attributes kFanAttributes = {
    {"ObjState", "4"},   {"IsEnclosureJX33XX", "0"}, {"FanSpeed", "2"},  {"PartNo", "VN-FN120"},
    {"TreeStatus", "2"}, {"ObjStatus", "3"},         {"Revision", "A01"}};
inline const Attributes kPowerSupplyAttributes = {{"ObjState", "8"},
                                                  {"PartNo", "VN-PS600"},
                                                  {"TreeStatus", "1"},
                                                  {"ObjStatus", "4"},
                                                  {"Revision", "A03"}};
inline const Attributes kProbeAttributes = {
    {"ObjState", "2"},  {"MinWarning", "5"},   {"MinError", "2"},   {"MaxWarning", "45"},
    {"MaxError", "50"}, {"CurrentTemp", "27"}, {"TreeStatus", "3"}, {"ObjStatus", "0"}};
inline const Attributes kEmmAttributes = {{"ObjState", "16"},      {"PartNo", "VN-EM12G"},
                                          {"FirmwareVer", "3.06"}, {"MaxSCSISpeed", "12Gbps"},
                                          {"TreeStatus", "2"},     {"ObjStatus", "1"},
                                          {"Revision", "A02"}};
inline const Attributes kBatteryAttributes = {
    {"ObjState", "2048"},           {"TreeStatus", "2"},          {"ObjStatus", "1"},
    {"LSIRechargeCount", "47"},     {"MaxRechargeCount", "1100"}, {"BatteryCapacityState", "1"},
    {"NextLearnCycleTime", "1320"}, {"BatteryLearnState", "3"},   {"BatteryID", "0"},
    {"MaxLearnDelay", "168"},       {"LearnMode", "4294967295"}};

inline const TableUnderTest kFanTable{getFan, 130, 7, &fanList, "fans"};
inline const TableUnderTest kPowerSupplyTable{getPwrSupply, 130, 9, &psuList, "psupplies"};
inline const TableUnderTest kProbeTable{getTemperature, 130, 11, &tempList, "tempprobes"};
inline const TableUnderTest kEmmTable{getEMM, 130, 13, &emmList, "emms"};
inline const TableUnderTest kBatteryTable{getBattery, 130, 15, &battList, "batteries"};

} // namespace componenttest

#endif // KELP_MODULE_TABLES_COMPONENTS_TESTING_H
