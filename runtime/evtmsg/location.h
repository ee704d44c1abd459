// Display names and location texts of storage objects, made from an
// object's type code and nexus and checked against the served model. The
// naming scheme is data/NAMES.md. Runtime-private: evtmsg.cc answers
// evtmsg_getObjLocationStrings with it.
#ifndef KELP_RUNTIME_EVTMSG_LOCATION_H
#define KELP_RUNTIME_EVTMSG_LOCATION_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kelp::rt::evtmsg {

// The longest nexus any type has: five numbers of up to ten digits and the
// four backslashes between them. A longer text is malformed whatever it
// holds, so a caller need not read further than one byte past this.
inline constexpr size_t kLongestNexus = 5 * 10 + 4;

struct LocationTexts {
    std::string location1;   // the controller or top-level device the object belongs to
    std::string location2;   // what it sits in below that; empty when nothing
    std::string displayName; // the object's own name
    std::string detail;      // the nexus's numbers joined with the separator
};

enum : uint32_t { kLocationFound = 0, kLocationNotFound = 2, kLocationMalformed = 5 };

// The texts of the object with type code `type` and nexus `nexus`.
// - 0: the served model has an object of that type with that nexus.
// - 2: it has none, or no model is served. The texts are still made from
//   the nexus; location1 carries the controller's Name only when that
//   controller is in the model.
// - 5: `type` is not a type code, or `nexus` does not have one of the
//   type's shapes (count of numbers, fixed markers, canonical decimal
//   numbers, at most kLongestNexus bytes); every text is left empty.
// Texts are not cut here. Takes the model store's lock only to take a
// snapshot of the served model. Throws std::bad_alloc when memory runs out.
uint32_t objectLocation(uint32_t type, std::string_view nexus, std::string_view separator,
                        LocationTexts *texts);

} // namespace kelp::rt::evtmsg

#endif // KELP_RUNTIME_EVTMSG_LOCATION_H
