// instance.cc - decoding of instance names against a MIB group definition:
// scalar names g.c.0 and table cells g.c.i[.j[.k]], and the Set-type check.
// Only the arcs the framework's own decoder looks at are compared, so a name
// under a different prefix of the same length decodes alike.
#include "mpi/internal.h"
#include "mpi/mpi.h"

using kelp::mpi::arcsOf;

namespace {

// The column arc c of `arcs` at position P, when 1 <= c <= n.
const SMMibColumnDef *columnAt(std::span<const uint32_t> arcs, const SMMibGroupDef &g)
{
    const uint32_t c = arcs[g.arcCount];
    if (c < 1 || c > g.columnCount)
        return nullptr;
    return &g.columns[c];
}

// Table cell with indexCount trailing indexes, written in order to indexOut[].
uint32_t decodeTableCell(const SMSnmpOID *name, const SMMibGroupDef *g,
                         const SMMibColumnDef **columnOut, uint32_t *const *indexOut,
                         uint32_t indexCount)
{
    if (name == nullptr || g == nullptr || columnOut == nullptr || g->columns == nullptr ||
        g->arcs == nullptr)
        return SM_SNMP_GENERR;
    for (uint32_t i = 0; i < indexCount; ++i) {
        if (indexOut[i] == nullptr)
            return SM_SNMP_GENERR;
    }
    const auto arcs = arcsOf(name);
    const uint64_t p = g->arcCount;
    if (p == 0 || arcs.size() != p + 1 + indexCount)
        return SM_SNMP_NOSUCHNAME;
    if (arcs[p - 1] != g->arcs[p - 1])
        return SM_SNMP_NOSUCHNAME;
    const SMMibColumnDef *column = columnAt(arcs, *g);
    if (column == nullptr)
        return SM_SNMP_NOSUCHNAME;
    *columnOut = column;
    for (uint32_t i = 0; i < indexCount; ++i) {
        *indexOut[i] = arcs[p + 1 + i];
        if (*indexOut[i] == 0)
            return SM_SNMP_NOSUCHNAME;
    }
    return SM_SNMP_NOERROR;
}

} // namespace

extern "C" uint32_t MPIMibGetScalarColumn(const SMSnmpOID *name, const SMMibGroupDef *g,
                                          const SMMibColumnDef **columnOut)
{
    if (name == nullptr || g == nullptr || columnOut == nullptr || g->columns == nullptr)
        return SM_SNMP_GENERR;
    const auto arcs = arcsOf(name);
    const uint64_t p = g->arcCount;
    if (arcs.size() != p + 2 || arcs[p + 1] != 0)
        return SM_SNMP_NOSUCHNAME;
    const SMMibColumnDef *column = columnAt(arcs, *g);
    if (column == nullptr)
        return SM_SNMP_NOSUCHNAME;
    *columnOut = column;
    return SM_SNMP_NOERROR;
}

extern "C" uint32_t MPIMibGetTableIndex1(const SMSnmpOID *name, const SMMibGroupDef *g,
                                         const SMMibColumnDef **columnOut, uint32_t *index1Out)
{
    uint32_t *const out[] = {index1Out};
    return decodeTableCell(name, g, columnOut, out, 1);
}

extern "C" uint32_t MPIMibGetTableIndex2(const SMSnmpOID *name, const SMMibGroupDef *g,
                                         const SMMibColumnDef **columnOut, uint32_t *index1Out,
                                         uint32_t *index2Out)
{
    uint32_t *const out[] = {index1Out, index2Out};
    return decodeTableCell(name, g, columnOut, out, 2);
}

extern "C" uint32_t MPIMibGetTableIndex3(const SMSnmpOID *name, const SMMibGroupDef *g,
                                         const SMMibColumnDef **columnOut, uint32_t *index1Out,
                                         uint32_t *index2Out, uint32_t *index3Out)
{
    uint32_t *const out[] = {index1Out, index2Out, index3Out};
    return decodeTableCell(name, g, columnOut, out, 3);
}

extern "C" uint32_t MPIMibCheckSetValue(const SMSnmpValue *binding, const SMMibColumnDef *column)
{
    if (binding == nullptr || column == nullptr)
        return SM_SNMP_GENERR;
    if ((column->access & SM_MIB_ACCESS_WRITE) == 0)
        return SM_SNMP_NOSUCHNAME;
    return binding->type == column->asnType ? SM_SNMP_NOERROR : SM_SNMP_BADVALUE;
}
