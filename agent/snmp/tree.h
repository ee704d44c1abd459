// The tree the plug-in serves below kMibRoot, as the agent knows it: the
// scalar instances and the 24 tables with the columns a walk visits. The
// plug-in answers well-formed names only, so the agent decides here which
// names are instances at all, and from which name the plug-in is asked for
// the successor of any name. Free of net-snmp and of the plug-in.
#ifndef KELP_AGENT_SNMP_TREE_H
#define KELP_AGENT_SNMP_TREE_H

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>

#include "fixed_name.h"

namespace kelp::agent {

// The tree the plug-in serves, registered as one subtree.
inline constexpr uint32_t kMibRoot[] = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20};
inline constexpr size_t kMibRootLength = std::size(kMibRoot);
// root.G.T.1.C.R: the longest name of an instance.
inline constexpr size_t kCellLength = kMibRootLength + 5;

// A set of column numbers below 128, as a mask.
struct ColumnSet {
    uint64_t bits[2] = {0, 0};

    constexpr bool contains(uint64_t column) const
    {
        return column < 128 && ((bits[column / 64] >> (column % 64)) & 1) != 0;
    }
};

constexpr ColumnSet columnSet(std::initializer_list<uint32_t> columns)
{
    ColumnSet set;
    for (const uint32_t column : columns) {
        set.bits[column / 64] |= uint64_t{1} << (column % 64);
    }
    return set;
}

// A table: its objects are root.group.table.1.column.row.
struct ServedTable {
    uint32_t group;
    uint32_t table;
    // A walk visits columns 1..columns, each with its rows in index order.
    uint32_t columns;
    // The plug-in answers GetNext from columns 1..startColumns; from a
    // later column it ends its walk, so the agent starts those elsewhere.
    uint32_t startColumns;
    // Numbers in 1..columns that name no column: the plug-in answers no
    // cell there, and the MIB defines no object.
    ColumnSet absent = {};

    constexpr bool hasColumn(uint64_t column) const
    {
        return column >= 1 && column <= columns && !absent.contains(column);
    }
};

// In walk order, which is also the order of their names.
inline constexpr ServedTable kServedTables[] = {
    {130, 1, 73, 73, columnSet({6,  13, 14, 17, 18, 19, 20, 21, 22, 23, 24, 25,
                                26, 27, 28, 29, 30, 31, 32, 33, 34, 35, 36})},
    {130, 2, 11, 11, columnSet({4})},
    {130, 3, 34, 34, columnSet({5, 7, 13, 14, 15, 17})},
    {130, 4, 53, 53, columnSet({5, 37, 38, 39})},
    {130, 5, 7, 7},
    {130, 6, 7, 7},
    {130, 7, 17, 17, columnSet({5, 6, 7, 8, 9, 10, 13})},
    {130, 8, 5, 5},
    {130, 9, 11, 11, columnSet({5, 7})},
    {130, 10, 6, 6},
    {130, 11, 14, 14, columnSet({5})},
    {130, 12, 5, 5},
    {130, 13, 13, 13, columnSet({5})},
    {130, 14, 5, 5},
    {130, 15, 15, 15},
    {130, 16, 5, 5},
    {130, 17, 8, 8},
    {130, 18, 28, 28},
    {140, 1, 28, 28, columnSet({5, 8, 9, 16, 18})},
    {140, 2, 6, 6},
    {140, 3, 7, 6, columnSet({6, 7})},
    {140, 4, 16, 16},
    {140, 5, 10, 10},
    {140, 6, 8, 8},
};

// The scalar instances, below the root, in name order: the root's own
// scalars, the information group and the global group's columns with
// values. All of them sort before the first table.
struct ServedScalar {
    uint32_t arcs[3];
    uint32_t count;
};
inline constexpr ServedScalar kServedScalars[] = {
    {{1, 0}, 2},       {{2, 0}, 2},       {{3, 0}, 2},       {{4, 0}, 2},       {{5, 0}, 2},
    {{100, 1, 0}, 3},  {{100, 2, 0}, 3},  {{100, 3, 0}, 3},  {{110, 3, 0}, 3},  {{110, 4, 0}, 3},
    {{110, 5, 0}, 3},  {{110, 6, 0}, 3},  {{110, 11, 0}, 3}, {{110, 12, 0}, 3}, {{110, 13, 0}, 3},
    {{110, 14, 0}, 3}, {{110, 15, 0}, 3},
};

// What a name is in the served tree.
enum class NameKind {
    kInstance,    // a scalar instance, or root.G.T.1.C.R with a served column
    kUnderObject, // a served scalar or column, but not one of its instances
    kNoObject,    // anything else: the root, a group, a table, an entry,
                  // an unserved column, a name outside the tree
};

NameKind classifyName(std::span<const uint64_t> name);

// True when `name` lies in kMibRoot's subtree (the root included).
bool insideRoot(std::span<const uint32_t> name);

// The name from which the plug-in's GetNext answers the first served
// instance after `name` (or, for a name in a column the plug-in does not
// start from, an instance of that table at or before it: the caller asks
// on from there). nullopt when no served instance sorts after `name`.
// Arcs above 2^32-1 are taken as the names they sort among.
std::optional<PluginName> cursorAfter(std::span<const uint64_t> name);

// Where to go on when the plug-in has nothing after `name` (a name inside
// the root): the first table root that sorts after it, or nullopt after
// the last table.
std::optional<PluginName> nextTableRoot(std::span<const uint32_t> name);

} // namespace kelp::agent

#endif // KELP_AGENT_SNMP_TREE_H
