// mibdef.h - the MIB definition the module registers with the framework
// (command 6): 22 groups below the root 1.3.6.1.4.1.61234.20571.1.20. The
// registration is narrower than what Get and GetNext answer: some served
// tables and columns are deliberately left out of it.
#ifndef KELP_MIB_MIBDEF_H
#define KELP_MIB_MIBDEF_H

#include <cstdint>

#include "platform/smsnmp.h"

// The root of the served MIB.
inline constexpr uint32_t kelpMibRootArcs[10] = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20};
inline constexpr uint32_t kelpMibRootLength = 10;

// Whether a name lies under the root (the root itself included).
inline bool kelpMibUnderRoot(const SMSnmpOID &name)
{
    if (name.count < kelpMibRootLength || name.arcs == nullptr) {
        return false;
    }
    for (uint32_t i = 0; i < kelpMibRootLength; i++) {
        if (name.arcs[i] != kelpMibRootArcs[i]) {
            return false;
        }
    }
    return true;
}

// Number of groups in kelpMibDefinition, not counting its null terminator.
inline constexpr uint32_t kelpMibGroupCount = 22;

// The registered groups in registration order, then a null pointer. Each
// group's 64-byte framework area is the framework's to use; the module never
// touches it. Everything else is constant.
extern "C" const SMMibGroupDef *const kelpMibDefinition[];

#endif // KELP_MIB_MIBDEF_H
