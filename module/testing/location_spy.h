// A recording stand-in for the runtime's location-string service, linked
// into a test program in the service's place: each call of
// evtmsg_getObjLocationStrings made by the module objects is recorded and
// forwarded to the real service, so tests see the real answers and can
// check which type code and nexus a getter handed over. A test can also make
// the service fail, which the real one does only for a bad call.
#ifndef KELP_MODULE_TESTING_LOCATION_SPY_H
#define KELP_MODULE_TESTING_LOCATION_SPY_H

#include <cstdint>
#include <string>
#include <vector>

namespace locationspy {

struct LocationCall {
    uint32_t objType;
    std::string nexus;
    std::string separator;
    std::string language;
};

// The calls made in this program since the last clear().
std::vector<LocationCall> &calls();

// While one lives, every call is recorded and answered with `status` and
// every given area empty, without asking the real service.
class FailingService {
  public:
    explicit FailingService(uint32_t status);
    ~FailingService();
    FailingService(const FailingService &) = delete;
    FailingService &operator=(const FailingService &) = delete;
};

} // namespace locationspy

#endif // KELP_MODULE_TESTING_LOCATION_SPY_H
