// The table bench's minimal agents serve (agentx_table, minagent): ROWS rows
// and COLUMNS INTEGER columns under 1.3.6.1.4.1.61234.99.1 (entries .1.C.R,
// the value of a cell R * 100 + C), every answer worked out from the name,
// with no data behind it. Bench use only.
#ifndef KELP_BENCH_COMPUTED_TABLE_H
#define KELP_BENCH_COMPUTED_TABLE_H

#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <iterator>

namespace bench {

constexpr oid kTable[] = {1, 3, 6, 1, 4, 1, 61234, 99, 1};
constexpr size_t kTableLength = std::size(kTable);

struct Cell {
    unsigned long column = 0;
    unsigned long row = 0;
};

// The table's size, set once before the agent serves it.
struct ComputedTable {
    unsigned long rows = 0;
    unsigned long columns = 0;

    // The cell `name` names exactly, if any.
    bool exactCell(const oid *name, size_t length, Cell *cell) const
    {
        if (length != kTableLength + 3 ||
            snmp_oid_compare(name, kTableLength, kTable, kTableLength) != 0 ||
            name[kTableLength] != 1) {
            return false;
        }
        cell->column = name[kTableLength + 1];
        cell->row = name[kTableLength + 2];
        return cell->column >= 1 && cell->column <= columns && cell->row >= 1 && cell->row <= rows;
    }

    // The first cell after `name` in column-major order (at or after it when
    // `inclusive`), if any.
    bool nextCell(const oid *name, size_t length, Cell *cell, bool inclusive = false) const
    {
        if (inclusive && exactCell(name, length, cell)) {
            return true;
        }
        if (snmp_oid_compare(name, length, kTable, kTableLength) < 0) {
            *cell = {1, 1};
            return rows > 0 && columns > 0;
        }
        // Below the table: the arcs after its name.
        const oid *tail = name + kTableLength;
        const size_t arcs = length - kTableLength;
        if (arcs == 0 || tail[0] < 1) {
            *cell = {1, 1};
        } else if (tail[0] > 1) {
            return false;
        } else if (arcs == 1 || tail[1] < 1) {
            *cell = {1, 1};
        } else if (arcs == 2) {
            *cell = {tail[1], 1};
        } else {
            *cell = {tail[1], tail[2] + 1};
        }
        if (cell->row > rows) {
            *cell = {cell->column + 1, 1};
        }
        return cell->column <= columns && rows > 0;
    }

    // The value of `cell`.
    static long valueOf(const Cell &cell)
    {
        return static_cast<long>(cell.row * 100 + cell.column);
    }
};

} // namespace bench

#endif // KELP_BENCH_COMPUTED_TABLE_H
