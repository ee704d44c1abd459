// Names in the served tree: what they are, and where the plug-in's GetNext
// is asked from. The plug-in answers GetNext well from a scalar instance,
// from a table's root and from root.G.T.1.C.R with C up to the table's
// start columns; every other name is first turned into one of those.
#include "snmp/tree.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <initializer_list>
#include <limits>

#include "value.h"

namespace kelp::agent {
namespace {

constexpr uint64_t kLargestArc = std::numeric_limits<uint32_t>::max();
constexpr uint32_t kEntryArc = 1;

// The root and at most five arcs: always within a PluginName.
PluginName rootPlus(std::initializer_list<uint32_t> arcs)
{
    PluginName name;
    name.assign(std::span<const uint32_t>(kMibRoot));
    name.append(arcs);
    return name;
}

PluginName tableRoot(const ServedTable &table)
{
    return rootPlus({table.group, table.table});
}

std::span<const uint32_t> scalarArcs(const ServedScalar &scalar)
{
    return {scalar.arcs, scalar.count};
}

// True when `name` starts with `prefix`.
template <typename A, typename B>
bool startsWith(std::span<const A> name, std::span<const B> prefix)
{
    return name.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), name.begin());
}

bool underRoot(std::span<const uint64_t> name)
{
    return startsWith(name, std::span<const uint32_t>(kMibRoot));
}

constexpr size_t tableCount()
{
    return std::size(kServedTables);
}

// Positions in kServedTables by table number, for one group; kNoTable where
// the group has no such table. Built at compile time, so that a name finds
// its table in one step.
constexpr size_t kNoTable = SIZE_MAX;
constexpr uint32_t kMaxTableNumber = 31;
template <uint32_t Group> constexpr std::array<size_t, kMaxTableNumber + 1> tablesOfGroup()
{
    std::array<size_t, kMaxTableNumber + 1> positions{};
    positions.fill(kNoTable);
    for (size_t i = 0; i < std::size(kServedTables); i++) {
        if (kServedTables[i].group == Group && kServedTables[i].table <= kMaxTableNumber) {
            positions[kServedTables[i].table] = i;
        }
    }
    return positions;
}
constexpr auto kTablesOf130 = tablesOfGroup<130>();
constexpr auto kTablesOf140 = tablesOfGroup<140>();

// The position of table root.group.table in kServedTables, or kNoTable.
size_t tablePosition(uint64_t group, uint64_t table)
{
    if (table > kMaxTableNumber) {
        return kNoTable;
    }
    if (group == 130) {
        return kTablesOf130[table];
    }
    return group == 140 ? kTablesOf140[table] : kNoTable;
}

std::optional<PluginName> afterTable(size_t index)
{
    if (index + 1 >= tableCount()) {
        return std::nullopt;
    }
    return tableRoot(kServedTables[index + 1]);
}

// The first instance after every row of column c: the next column, or for
// a column the plug-in does not start from, the last row of its last start
// column (the caller passes over what lies before the request).
std::optional<PluginName> afterColumn(size_t index, uint32_t column)
{
    const ServedTable &table = kServedTables[index];
    if (column >= table.columns) {
        return afterTable(index);
    }
    if (column + 1 <= table.startColumns) {
        return rootPlus({table.group, table.table, kEntryArc, column + 1});
    }
    return rootPlus({table.group, table.table, kEntryArc, table.startColumns,
                     static_cast<uint32_t>(kLargestArc)});
}

// `rest` is what follows root.G.T in a name inside table `index`.
std::optional<PluginName> cursorInTable(size_t index, std::span<const uint64_t> rest)
{
    const ServedTable &table = kServedTables[index];
    if (rest.empty() || rest[0] == 0) {
        return tableRoot(table);
    }
    if (rest[0] > kEntryArc) {
        return afterTable(index);
    }
    if (rest.size() == 1 || rest[1] == 0) {
        return tableRoot(table);
    }
    if (rest[1] > table.columns) {
        return afterTable(index);
    }
    const auto column = static_cast<uint32_t>(rest[1]);
    if (rest.size() > 2 && rest[2] >= kLargestArc) {
        return afterColumn(index, column);
    }
    if (column > table.startColumns) {
        return afterColumn(index, column - 1);
    }
    if (rest.size() == 2) {
        return rootPlus({table.group, table.table, kEntryArc, column});
    }
    // Arcs after the row sort after the row itself and before the next one.
    return rootPlus({table.group, table.table, kEntryArc, column, static_cast<uint32_t>(rest[2])});
}

} // namespace

bool insideRoot(std::span<const uint32_t> name)
{
    return startsWith(name, std::span<const uint32_t>(kMibRoot));
}

NameKind classifyName(std::span<const uint64_t> name)
{
    if (!underRoot(name)) {
        return NameKind::kNoObject;
    }
    const std::span<const uint64_t> rel = name.subspan(kMibRootLength);
    if (!rel.empty() && rel[0] >= kServedTables[0].group) {
        if (rel.size() < 4 || rel[2] != kEntryArc) {
            return NameKind::kNoObject;
        }
        const size_t position = tablePosition(rel[0], rel[1]);
        if (position == kNoTable || !kServedTables[position].hasColumn(rel[3])) {
            return NameKind::kNoObject;
        }
        return rel.size() == 5 && rel[4] <= kLargestArc ? NameKind::kInstance
                                                        : NameKind::kUnderObject;
    }
    for (const ServedScalar &scalar : kServedScalars) {
        const std::span<const uint32_t> instance = scalarArcs(scalar);
        if (startsWith(rel, instance.first(instance.size() - 1))) {
            return std::equal(rel.begin(), rel.end(), instance.begin(), instance.end())
                       ? NameKind::kInstance
                       : NameKind::kUnderObject;
        }
    }
    return NameKind::kNoObject;
}

std::optional<PluginName> cursorAfter(std::span<const uint64_t> name)
{
    const std::span<const uint32_t> root(kMibRoot);
    if (!underRoot(name)) {
        if (compareNames(name, root) < 0) {
            return rootPlus({});
        }
        return std::nullopt;
    }
    const std::span<const uint64_t> rel = name.subspan(kMibRootLength);
    if (rel.empty()) {
        return rootPlus({});
    }
    if (rel[0] < kServedTables[0].group) {
        // The plug-in steps from one scalar instance to the next, and from
        // the last one into the tables.
        const ServedScalar *atOrBefore = nullptr;
        for (const ServedScalar &scalar : kServedScalars) {
            if (compareNames(scalarArcs(scalar), rel) > 0) {
                break;
            }
            atOrBefore = &scalar;
        }
        PluginName cursor = rootPlus({});
        if (atOrBefore != nullptr) {
            cursor.append(scalarArcs(*atOrBefore));
        }
        return cursor;
    }
    if (rel.size() >= 2) {
        const size_t position = tablePosition(rel[0], rel[1]);
        if (position != kNoTable) {
            return cursorInTable(position, rel.subspan(2));
        }
    }
    // Between tables, or past them: the first table after the name.
    for (const ServedTable &table : kServedTables) {
        const uint32_t prefix[] = {table.group, table.table};
        if (compareNames(rel, std::span<const uint32_t>(prefix)) < 0) {
            return tableRoot(table);
        }
    }
    return std::nullopt;
}

std::optional<PluginName> nextTableRoot(std::span<const uint32_t> name)
{
    for (const ServedTable &table : kServedTables) {
        PluginName root = tableRoot(table);
        if (compareNames(root.span(), name) > 0) {
            return root;
        }
    }
    return std::nullopt;
}

} // namespace kelp::agent
