// varbind.cc - filling, summing and freeing variable bindings. The setters
// stamp the column's type into the binding, so a getter cannot answer a
// column with a type the MIB definition does not declare for it.
#include <cstring>

#include "mpi/internal.h"
#include "mpi/mpi.h"

using kelp::mpi::smAlloc;
using kelp::mpi::SMOwned;

extern "C" uint32_t MPIVarBindSetScalarName(SMSnmpValue *binding, const SMMibGroupDef *g,
                                            uint32_t columnArc)
{
    if (binding == nullptr || g == nullptr || (g->arcCount != 0 && g->arcs == nullptr))
        return SM_SNMP_GENERR;
    const uint64_t count = uint64_t{g->arcCount} + 2;
    auto arcs = count <= UINT32_MAX ? smAlloc<uint32_t>(4 * count) : SMOwned<uint32_t>();
    if (!arcs) {
        binding->name.count = 0;
        binding->name.arcs = nullptr;
        return SM_SNMP_GENERR;
    }
    if (g->arcCount != 0)
        std::memcpy(arcs.get(), g->arcs, 4 * uint64_t{g->arcCount});
    arcs.get()[g->arcCount] = columnArc;
    arcs.get()[g->arcCount + 1] = 0;
    binding->name.arcs = arcs.release();
    binding->name.count = static_cast<uint32_t>(count);
    return SM_SNMP_NOERROR;
}

extern "C" uint32_t MPIVarBindSetValueInt(SMSnmpValue *binding, const SMMibColumnDef *column,
                                          uint32_t value)
{
    if (binding == nullptr || column == nullptr)
        return SM_SNMP_GENERR;
    binding->type = column->asnType;
    binding->value = value;
    return SM_SNMP_NOERROR;
}

extern "C" uint32_t MPIVarBindSetValueOctStr(SMSnmpValue *binding, const SMMibColumnDef *column,
                                             const void *data, uint32_t length, uint32_t allocate)
{
    if (binding == nullptr || column == nullptr)
        return SM_SNMP_GENERR;
    if (length != 0) {
        if (allocate == 1) {
            // Checked before allocating so that a failed call leaves no block
            // behind in a binding whose type would not let it be freed.
            if (data == nullptr)
                return SM_SNMP_GENERR;
            void *buffer = SMAllocMem(length);
            if (buffer == nullptr)
                return SM_SNMP_GENERR;
            binding->buffer = buffer;
            binding->value = length;
        }
        if (length > binding->value) {
            binding->value = length;
            return SM_SNMP_TOOBIG;
        }
        if (data == nullptr || binding->buffer == nullptr)
            return SM_SNMP_GENERR;
        std::memcpy(binding->buffer, data, length);
    }
    binding->type = column->asnType;
    binding->value = length;
    return SM_SNMP_NOERROR;
}

extern "C" uint32_t MPIVarBindSetValueOID(SMSnmpValue *binding, const SMMibColumnDef *column,
                                          const SMSnmpOID *oid, uint32_t allocate)
{
    if (oid == nullptr || oid->count == 0 || oid->arcs == nullptr)
        return SM_SNMP_GENERR;
    // The byte length has to fit the 32-bit value field.
    if (oid->count > UINT32_MAX / 4)
        return SM_SNMP_GENERR;
    const uint32_t status =
        MPIVarBindSetValueOctStr(binding, column, oid->arcs, 4 * oid->count, allocate);
    if (status == SM_SNMP_NOERROR)
        binding->value = oid->count;
    return status;
}

extern "C" uint32_t MPIVarBindSetValueUCS2Str(SMSnmpValue *binding, const SMMibColumnDef *column,
                                              const uint16_t *text)
{
    if (binding == nullptr || column == nullptr || text == nullptr || binding->buffer == nullptr)
        return SM_SNMP_GENERR;
    uint32_t size = binding->value;
    switch (SMUCS2StrToUTF8Str(static_cast<char *>(binding->buffer), &size, text)) {
    case SM_STATUS_SUCCESS:
        // The size counts the terminating NUL; the length field does not.
        binding->value = size != 0 ? size - 1 : 0;
        binding->type = column->asnType;
        return SM_SNMP_NOERROR;
    case SM_STATUS_BUFFER_TOO_SMALL:
        binding->value *= 2;
        return SM_SNMP_TOOBIG;
    default:
        return SM_SNMP_GENERR;
    }
}

namespace {

// Types whose value lives in a buffer that the binding owns.
bool ownsBuffer(uint32_t type)
{
    return type == SM_ASN_OCTET_STRING || type == SM_ASN_OBJECT_ID || type == SM_ASN_IPADDRESS ||
           type == SM_ASN_OPAQUE;
}

uint32_t byteSum(const void *data, uint64_t length)
{
    const auto *bytes = static_cast<const unsigned char *>(data);
    uint32_t sum = 0;
    for (uint64_t i = 0; i < length; ++i)
        sum += bytes[i];
    return sum;
}

} // namespace

extern "C" uint32_t MPIVarBindFreeValue(SMSnmpValue *binding)
{
    if (binding == nullptr)
        return SM_SNMP_GENERR;
    MPIOIDFree(&binding->name, 0);
    if (ownsBuffer(binding->type) && binding->buffer != nullptr)
        SMFreeMem(binding->buffer);
    binding->type = 0;
    binding->value = 0;
    binding->buffer = nullptr;
    return SM_SNMP_NOERROR;
}

extern "C" uint32_t MPIVarBindValueChecksum(const SMSnmpValue *binding, uint32_t *sumOut)
{
    if (binding == nullptr || sumOut == nullptr)
        return SM_SNMP_GENERR;
    uint64_t bytes = 0;
    uint32_t sum = 0;
    switch (binding->type) {
    case SM_ASN_INTEGER:
    case SM_ASN_COUNTER32:
    case SM_ASN_GAUGE32:
    case SM_ASN_TIMETICKS:
        sum = binding->value;
        break;
    case SM_ASN_OCTET_STRING:
    case SM_ASN_IPADDRESS:
    case SM_ASN_OPAQUE:
        bytes = binding->value;
        break;
    case SM_ASN_OBJECT_ID:
        bytes = uint64_t{4} * binding->value;
        break;
    default:
        return SM_SNMP_BADVALUE;
    }
    if (bytes != 0) {
        if (binding->buffer == nullptr)
            return SM_SNMP_GENERR;
        sum = byteSum(binding->buffer, bytes);
    }
    // A checksum is never 0.
    *sumOut = sum != 0 ? sum : 1;
    return SM_SNMP_NOERROR;
}
