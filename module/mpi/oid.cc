// oid.cc - allocation, copy, comparison and parsing of object identifiers.
// The comparison results are raw 32-bit differences because the GetNext walk
// and the root-prefix gate read them as signed numbers.
#include <algorithm>
#include <cstring>

#include "mpi/internal.h"
#include "mpi/mpi.h"

using kelp::mpi::arcsOf;
using kelp::mpi::smAlloc;
using kelp::mpi::SMOwned;

extern "C" SMSnmpOID *MPIOIDAlloc(void)
{
    auto *oid = static_cast<SMSnmpOID *>(SMAllocMem(sizeof(SMSnmpOID)));
    if (oid != nullptr)
        *oid = SMSnmpOID{};
    return oid;
}

extern "C" uint32_t MPIOIDCopy(const SMSnmpOID *source, SMSnmpOID *destination)
{
    if (source == nullptr || destination == nullptr)
        return SM_SNMP_GENERR;
    const auto arcs = arcsOf(source);
    if (arcs.empty()) {
        destination->arcs = nullptr;
        destination->count = 0;
        return SM_SNMP_NOERROR;
    }
    auto copy = smAlloc<uint32_t>(uint64_t{4} * arcs.size());
    if (!copy) {
        destination->arcs = nullptr;
        return SM_SNMP_GENERR;
    }
    std::memcpy(copy.get(), arcs.data(), arcs.size_bytes());
    destination->arcs = copy.release();
    destination->count = static_cast<uint32_t>(arcs.size());
    return SM_SNMP_NOERROR;
}

extern "C" SMSnmpOID *MPIOIDDuplicate(const SMSnmpOID *source)
{
    if (source == nullptr)
        return nullptr;
    SMOwned<SMSnmpOID> oid(MPIOIDAlloc());
    if (!oid || MPIOIDCopy(source, oid.get()) != SM_SNMP_NOERROR)
        return nullptr;
    return oid.release();
}

extern "C" void MPIOIDFree(SMSnmpOID *oid, uint32_t flags)
{
    if (oid == nullptr)
        return;
    if (oid->arcs != nullptr)
        SMFreeMem(oid->arcs);
    oid->arcs = nullptr;
    oid->count = 0;
    if ((flags & 0xFFFFu) == 1)
        SMFreeMem(oid);
}

extern "C" uint32_t MPIOIDComparePrefix(const SMSnmpOID *a, const SMSnmpOID *b, uint32_t n)
{
    const auto arcsA = arcsOf(a);
    const auto arcsB = arcsOf(b);
    size_t limit = n;
    limit = std::min({limit, arcsA.size(), arcsB.size()});
    for (size_t i = 0; i < limit; ++i) {
        if (arcsA[i] != arcsB[i])
            return arcsA[i] - arcsB[i];
    }
    return 0;
}

extern "C" uint32_t MPIOIDCompare(const SMSnmpOID *a, const SMSnmpOID *b)
{
    const auto countA = static_cast<uint32_t>(arcsOf(a).size());
    const auto countB = static_cast<uint32_t>(arcsOf(b).size());
    const uint32_t prefix = MPIOIDComparePrefix(a, b, std::min(countA, countB));
    return prefix != 0 ? prefix : countA - countB;
}

namespace {

constexpr unsigned kMaxArcDigits = 10;

} // namespace

extern "C" uint32_t MPIOIDFromString(uint32_t *arcsOut, uint32_t *countInOut, const char *text)
{
    if (arcsOut == nullptr || countInOut == nullptr || text == nullptr || *countInOut == 0)
        return SM_SNMP_GENERR;
    if (*text == '\0')
        return SM_SNMP_BADVALUE;

    const uint32_t capacity = *countInOut;
    uint32_t count = 0;
    uint64_t arc = 0; // ten decimal digits always fit; the store truncates
    unsigned digits = 0;
    char previous = '\0';

    // Closes the arc being collected; false when there is no room for it.
    auto closeArc = [&]() -> bool {
        if (digits == 0)
            return true;
        if (count == capacity)
            return false;
        // Truncation to 32 bits is the wrap that a "%u" conversion gives.
        arcsOut[count++] = static_cast<uint32_t>(arc);
        arc = 0;
        digits = 0;
        return true;
    };

    for (const char *p = text; *p != '\0'; previous = *p++) {
        if (*p >= '0' && *p <= '9') {
            if (++digits > kMaxArcDigits)
                return SM_SNMP_BADVALUE;
            arc = arc * 10 + static_cast<uint64_t>(*p - '0');
        } else if (*p == '.') {
            if (previous == '.')
                return SM_SNMP_BADVALUE;
            if (!closeArc())
                return SM_SNMP_BADVALUE;
        } else {
            return SM_SNMP_BADVALUE;
        }
    }
    if (!closeArc() || count == 0)
        return SM_SNMP_BADVALUE;
    *countInOut = count;
    return SM_SNMP_NOERROR;
}
