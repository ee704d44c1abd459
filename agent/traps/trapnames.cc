// The names KELP-STORAGE-MIB gives the storage traps (its NOTIFICATION-TYPEs
// under kelpAlertsPrefix, root.200.0), by specific number, for the agent's
// log. trapnames_test checks this table against mibs/KELP-STORAGE-MIB.txt
// wherever the tree has the module, so that a renamed or added alert fails
// the build's tests instead of logging a stale name.
#include "traps/trapnames.h"

#include <algorithm>
#include <iterator>

namespace kelp::agent {
namespace {

// Sorted by number (checked by trapnames_test).
constexpr TrapName kTrapNames[] = {
    {101, "versionUnsupportedAlert"},
    {103, "configurationChangeAlert"},
    {751, "controllerInfoAlert"},
    {752, "controllerNormalAlert"},
    {753, "controllerWarningAlert"},
    {754, "controllerCriticalAlert"},
    {801, "channelInfoAlert"},
    {802, "channelNormalAlert"},
    {803, "channelWarningAlert"},
    {804, "channelCriticalAlert"},
    {851, "enclosureInfoAlert"},
    {852, "enclosureNormalAlert"},
    {853, "enclosureWarningAlert"},
    {854, "enclosureCriticalAlert"},
    {901, "arrayDiskInfoAlert"},
    {902, "arrayDiskNormalAlert"},
    {903, "arrayDiskWarningAlert"},
    {904, "arrayDiskCriticalAlert"},
    {951, "emmInfoAlert"},
    {952, "emmNormalAlert"},
    {953, "emmWarningAlert"},
    {954, "emmCriticalAlert"},
    {1001, "powerSupplyInfoAlert"},
    {1002, "powerSupplyNormalAlert"},
    {1003, "powerSupplyWarningAlert"},
    {1004, "powerSupplyCriticalAlert"},
    {1051, "temperatureProbeInfoAlert"},
    {1052, "temperatureProbeNormalAlert"},
    {1053, "temperatureProbeWarningAlert"},
    {1054, "temperatureProbeCriticalAlert"},
    {1101, "fanInfoAlert"},
    {1102, "fanNormalAlert"},
    {1103, "fanWarningAlert"},
    {1104, "fanCriticalAlert"},
    {1151, "batteryInfoAlert"},
    {1152, "batteryNormalAlert"},
    {1153, "batteryWarningAlert"},
    {1154, "batteryCriticalAlert"},
    {1201, "virtualDiskInfoAlert"},
    {1202, "virtualDiskNormalAlert"},
    {1203, "virtualDiskWarningAlert"},
    {1204, "virtualDiskCriticalAlert"},
    {1304, "monitoringLostContactAlert"},
    {1305, "monitoringStartedAlert"},
    {1306, "monitoringStoppingAlert"},
    {1401, "deviceType788InfoAlert"},
    {1403, "deviceType788WarningAlert"},
    {1404, "deviceType788CriticalAlert"},
    {1501, "partitionInfoAlert"},
    {1503, "partitionWarningAlert"},
    {1504, "partitionCriticalAlert"},
    {1601, "tidalCacheInfoAlert"},
    {1603, "tidalCacheWarningAlert"},
    {1604, "tidalCacheCriticalAlert"},
    {1701, "deviceType787InfoAlert"},
    {1703, "deviceType787WarningAlert"},
    {1704, "deviceType787CriticalAlert"},
    {10100, "versionUnsupportedAlertExt"},
    {10300, "configurationChangeAlertExt"},
    {75100, "controllerInfoAlertExt"},
    {75200, "controllerNormalAlertExt"},
    {75300, "controllerWarningAlertExt"},
    {75400, "controllerCriticalAlertExt"},
    {80100, "channelInfoAlertExt"},
    {80200, "channelNormalAlertExt"},
    {80300, "channelWarningAlertExt"},
    {80400, "channelCriticalAlertExt"},
    {85100, "enclosureInfoAlertExt"},
    {85200, "enclosureNormalAlertExt"},
    {85300, "enclosureWarningAlertExt"},
    {85400, "enclosureCriticalAlertExt"},
    {90100, "arrayDiskInfoAlertExt"},
    {90200, "arrayDiskNormalAlertExt"},
    {90300, "arrayDiskWarningAlertExt"},
    {90400, "arrayDiskCriticalAlertExt"},
    {95100, "emmInfoAlertExt"},
    {95200, "emmNormalAlertExt"},
    {95300, "emmWarningAlertExt"},
    {95400, "emmCriticalAlertExt"},
    {100100, "powerSupplyInfoAlertExt"},
    {100200, "powerSupplyNormalAlertExt"},
    {100300, "powerSupplyWarningAlertExt"},
    {100400, "powerSupplyCriticalAlertExt"},
    {105100, "temperatureProbeInfoAlertExt"},
    {105200, "temperatureProbeNormalAlertExt"},
    {105300, "temperatureProbeWarningAlertExt"},
    {105400, "temperatureProbeCriticalAlertExt"},
    {110100, "fanInfoAlertExt"},
    {110200, "fanNormalAlertExt"},
    {110300, "fanWarningAlertExt"},
    {110400, "fanCriticalAlertExt"},
    {115100, "batteryInfoAlertExt"},
    {115200, "batteryNormalAlertExt"},
    {115300, "batteryWarningAlertExt"},
    {115400, "batteryCriticalAlertExt"},
    {120100, "virtualDiskInfoAlertExt"},
    {120200, "virtualDiskNormalAlertExt"},
    {120300, "virtualDiskWarningAlertExt"},
    {120400, "virtualDiskCriticalAlertExt"},
    {130400, "monitoringLostContactAlertExt"},
    {130500, "monitoringStartedAlertExt"},
    {130600, "monitoringStoppingAlertExt"},
    {140100, "deviceType788InfoAlertExt"},
    {140300, "deviceType788WarningAlertExt"},
    {140400, "deviceType788CriticalAlertExt"},
    {150100, "partitionInfoAlertExt"},
    {150300, "partitionWarningAlertExt"},
    {150400, "partitionCriticalAlertExt"},
    {160100, "tidalCacheInfoAlertExt"},
    {160300, "tidalCacheWarningAlertExt"},
    {160400, "tidalCacheCriticalAlertExt"},
    {170100, "deviceType787InfoAlertExt"},
    {170300, "deviceType787WarningAlertExt"},
    {170400, "deviceType787CriticalAlertExt"},
};

} // namespace

std::span<const TrapName> trapNames()
{
    return kTrapNames;
}

const char *trapName(uint32_t specific)
{
    const auto found =
        std::lower_bound(std::begin(kTrapNames), std::end(kTrapNames), specific,
                         [](const TrapName &row, uint32_t number) { return row.number < number; });
    return found != std::end(kTrapNames) && found->number == specific ? found->name : nullptr;
}

} // namespace kelp::agent
