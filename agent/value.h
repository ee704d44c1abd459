// Values as the plug-in's binding records carry them, copied into memory the
// agent owns. Shared by the request answers and by the trap sender; knows
// nothing of net-snmp, whose ASN.1 tags are the same numbers.
#ifndef KELP_AGENT_VALUE_H
#define KELP_AGENT_VALUE_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "platform/smsnmp.h"

namespace kelp::agent {

// How a value of one ASN.1 type sits in an SMSnmpValue record.
enum class ValueShape {
    kSigned32,   // field 20 is the value, read as signed
    kUnsigned32, // field 20 is the value
    kBytes,      // field 20 is the length of the bytes in the buffer
    kArcs,       // field 20 is the arc count of the uint32_t arcs in the buffer
};

// One owned value: `type` is the ASN.1 tag (SM_ASN_*); `integer` holds the two
// integer shapes, `bytes` the byte shape, `arcs` the OBJECT IDENTIFIER.
struct Value {
    uint32_t type = 0;
    ValueShape shape = ValueShape::kSigned32;
    int64_t integer = 0;
    std::string bytes;
    std::vector<uint32_t> arcs;
};

// The outcome of reading a record's value.
enum class ValueRead {
    kValue, // *out holds the value
    kEmpty, // type 0: nothing was answered
    kBad,   // an unknown type, a length beyond the readable bytes, a null buffer
};

// Longest OBJECT IDENTIFIER value accepted (net-snmp's own limit).
inline constexpr uint32_t kMaxValueArcs = 128;

// Copies the value of `record` into *out. At most `readable` bytes of the
// record's buffer are read: a length beyond it is kBad, never an overread.
ValueRead readValue(const SMSnmpValue &record, size_t readable, Value *out);

// The ASN.1 name of a type this agent serves ("INTEGER", ...), or null for a
// type it does not know.
const char *valueTypeName(uint32_t type);

// Three-way comparison of two names in SNMP order (arc by arc, a prefix
// first); the arcs may be of different widths.
template <typename A, typename B> int compareNames(std::span<const A> a, std::span<const B> b)
{
    const size_t n = a.size() < b.size() ? a.size() : b.size();
    for (size_t i = 0; i < n; i++) {
        if (a[i] != b[i]) {
            return a[i] < b[i] ? -1 : 1;
        }
    }
    return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

} // namespace kelp::agent

#endif // KELP_AGENT_VALUE_H
