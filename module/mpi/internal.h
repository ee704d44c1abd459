// internal.h - small pieces shared by the sources of mpi/ and nothing else:
// the owner of SMAllocMem blocks and the defensive view of an OID's arcs.
#ifndef KELP_MPI_INTERNAL_H
#define KELP_MPI_INTERNAL_H

#include <cstdint>
#include <memory>
#include <span>

#include "platform/smsnmp.h"
#include "platform/vcsupt.h"

namespace kelp::mpi {

struct SMFreeDeleter {
    void operator()(void *p) const { SMFreeMem(p); }
};

// Owns a block from SMAllocMem until release() hands it to a record.
template <typename T> using SMOwned = std::unique_ptr<T, SMFreeDeleter>;

template <typename T> SMOwned<T> smAlloc(uint64_t bytes)
{
    // SMAllocMem takes a 32-bit size; a larger request cannot be met.
    if (bytes == 0 || bytes > UINT32_MAX)
        return SMOwned<T>();
    return SMOwned<T>(static_cast<T *>(SMAllocMem(static_cast<uint32_t>(bytes))));
}

// The arcs of an OID; a null record or a null arcs pointer reads as no arcs.
inline std::span<const uint32_t> arcsOf(const SMSnmpOID *oid)
{
    if (oid == nullptr || oid->arcs == nullptr)
        return {};
    return {oid->arcs, oid->count};
}

} // namespace kelp::mpi

#endif // KELP_MPI_INTERNAL_H
