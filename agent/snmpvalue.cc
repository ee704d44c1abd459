// Values into net-snmp variables. The plug-in's type numbers are the ASN.1
// tags net-snmp uses, which the asserts below pin.
#include "snmpvalue.h"

#include <type_traits>
#include <vector>

namespace kelp::agent {
namespace {

static_assert(SM_ASN_INTEGER == ASN_INTEGER && SM_ASN_OCTET_STRING == ASN_OCTET_STR &&
                  SM_ASN_OBJECT_ID == ASN_OBJECT_ID && SM_ASN_IPADDRESS == ASN_IPADDRESS &&
                  SM_ASN_COUNTER32 == ASN_COUNTER && SM_ASN_GAUGE32 == ASN_GAUGE &&
                  SM_ASN_TIMETICKS == ASN_TIMETICKS && SM_ASN_OPAQUE == ASN_OPAQUE,
              "the plug-in's type numbers are ASN.1 tags");

// A value laid out as net-snmp's setters take it.
struct Raw {
    long integer = 0;
    u_long unsignedInteger = 0;
    std::vector<oid> arcs;
    const void *data = nullptr;
    size_t size = 0;
};

void layOut(const Value &value, Raw *raw)
{
    switch (value.shape) {
    case ValueShape::kSigned32:
        raw->integer = static_cast<long>(value.integer);
        raw->data = &raw->integer;
        raw->size = sizeof raw->integer;
        break;
    case ValueShape::kUnsigned32:
        raw->unsignedInteger = static_cast<u_long>(value.integer);
        raw->data = &raw->unsignedInteger;
        raw->size = sizeof raw->unsignedInteger;
        break;
    case ValueShape::kBytes:
        raw->data = value.bytes.data();
        raw->size = value.bytes.size();
        break;
    case ValueShape::kArcs:
        raw->arcs.assign(value.arcs.begin(), value.arcs.end());
        raw->data = raw->arcs.data();
        raw->size = raw->arcs.size() * sizeof(oid);
        break;
    }
}

} // namespace

bool setVarValue(netsnmp_variable_list *var, const Value &value)
{
    Raw raw;
    layOut(value, &raw);
    return snmp_set_var_typed_value(var, static_cast<u_char>(value.type),
                                    static_cast<const u_char *>(raw.data), raw.size) == 0;
}

bool appendVar(netsnmp_variable_list **list, std::span<const uint32_t> name, const Value &value)
{
    Raw raw;
    layOut(value, &raw);
    const std::vector<oid> arcs(name.begin(), name.end());
    return snmp_varlist_add_variable(list, arcs.data(), arcs.size(),
                                     static_cast<u_char>(value.type), raw.data,
                                     raw.size) != nullptr;
}

} // namespace kelp::agent
