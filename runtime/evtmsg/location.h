// Display names and location texts of storage objects, made from an
// object's type code and nexus, with the controller's Name from the served
// model. The naming scheme is data/NAMES.md. Runtime-private: evtmsg.cc
// answers evtmsg_getObjLocationStrings with it.
#ifndef KELP_RUNTIME_EVTMSG_LOCATION_H
#define KELP_RUNTIME_EVTMSG_LOCATION_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kelp::rt::evtmsg {

// How much of a caller's nexus is read. A nexus with one of a type's shapes
// has at most 54 bytes; a longer one is named by its text, and no text made
// from it can show more than its first 1024 bytes in a 256-byte area.
inline constexpr size_t kNexusReadLimit = 1024;

struct LocationTexts {
    std::string location1;   // the controller or top-level device the object belongs to
    std::string location2;   // what it sits in below that; empty when nothing
    std::string displayName; // the object's own name
    std::string detail;      // the nexus's elements joined with the separator
};

// The texts of the object with type code `type` and nexus `nexus`, whether
// or not the served model holds the object.
// - A nexus with one of the type's shapes (count of numbers, fixed markers,
//   canonical decimal numbers) is named from its numbers; location1 carries
//   the controller's Name when that controller is in the model.
// - Any other nexus (empty, letters, signs, too many numbers ...) gives the
//   displayName "KIND NEXUS" ("KIND" when empty), with every byte that is a
//   control character or not UTF-8 shown as '?'; location1 names the
//   top-level device of the first element when the model holds one with
//   that nexus, else it is empty; location2 is empty.
// False, with every text empty, when `type` is not a type code. Texts are
// not cut here. Takes the model store's lock only to take a snapshot of the
// served model. Throws std::bad_alloc when memory runs out.
bool objectLocation(uint32_t type, std::string_view nexus, std::string_view separator,
                    LocationTexts *texts);

} // namespace kelp::rt::evtmsg

#endif // KELP_RUNTIME_EVTMSG_LOCATION_H
