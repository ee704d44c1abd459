// mibdef.cc - kelpMibDefinition, written as one row per registered group and
// expanded at compile time into the framework's group and column records.
// A row reads like the registration table: the group's arcs below the root,
// its shape, its column count, then lists of columns ("1, 3-5") and of
// "column:limit" pairs. Columns not listed as strings are INTEGER.
#include <algorithm>
#include <array>
#include <iterator>
#include <optional>
#include <string_view>

#include "mib/mibdef.h"

namespace {

enum class Shape { scalars, table };

struct GroupRow {
    std::string_view below; // arcs below the root, dotted; "" is the root
    Shape shape;
    uint32_t columns;
    std::string_view strings;   // OCTET STRING columns
    std::string_view intLimits; // column:largest value, integer columns only
    std::string_view lengths;   // column:largest length, strings not of 255
    std::string_view writable;  // columns that carry the writable access bit
};

constexpr Shape S = Shape::scalars;
constexpr Shape T = Shape::table;

// clang-format off
constexpr GroupRow kGroupRows[] = {
    {"",         S,  5, "1, 3-5", "2:4", "1:32, 3:32, 4:64, 5:128", ""},
    {"100",      S,  4, "1-4", "", "", ""},
    {"110",      S, 15, "7-8, 10-12",
     "1:5, 2:5, 4:10000, 5:10000, 6:10000, 9:2, 13:6, 14:6, 15:2", "", ""},
    {"130.1.1",  T, 55, "2-3, 8, 13, 19-20, 24, 26-27, 33-35, 39, 41, 44-45",
     "1:255, 4:6, 5:6, 6:3, 17:4, 18:1, 25:21, 32:21, 37:6, 38:6, 40:3, 43:3, 52:3, 53:4",
     "", "45, 48, 52-53"},
    {"130.2.1",  T, 12, "2, 9-10", "1:255, 3:6, 4:3, 5:3, 7:6, 8:6, 11:8", "", "7"},
    {"130.3.1",  T, 30, "2-3, 7-15, 17, 21, 25-26, 28-29",
     "1:255, 4:6, 5:3, 16:8, 18:3, 20:2, 23:6, 24:6", "", ""},
    {"130.4.1",  T, 34, "2-3, 6-9, 25-27, 32-34",
     "1:1000000000, 4:41, 5:3, 21:8, 22:99, 23:6, 24:6, 31:2", "", "28, 30-31"},
    {"130.5.1",  T,  7, "2, 4, 6", "1:1000000000", "", ""},
    {"130.6.1",  T,  7, "2, 4, 6", "1:1000000000", "", ""},
    {"130.7.1",  T, 18, "2-3, 6-13, 16, 18", "1:1000000000, 4:21, 5:3, 14:6, 15:6", "", ""},
    {"130.8.1",  T,  5, "2, 4", "1:255", "", ""},
    {"130.9.1",  T, 12, "2-3, 6-7, 10, 12", "1:255, 4:21, 5:3, 8:6, 9:6", "", ""},
    {"130.10.1", T,  5, "2, 4", "1:255", "", "5"},
    {"130.11.1", T, 14, "2-3, 6, 14", "1:255, 4:21, 5:3, 12:6, 13:6", "", ""},
    {"130.12.1", T,  5, "2, 4", "1:255", "", ""},
    {"130.13.1", T, 14, "2-3, 6, 8-9, 12, 14", "1:255, 4:21, 5:3, 7:2, 10:6, 11:6", "", ""},
    {"130.14.1", T,  5, "2, 4", "1:255", "", ""},
    {"130.15.1", T, 14, "2-3, 9", "1:255, 4:37, 5:6, 6:6, 12:5", "", ""},
    {"130.16.1", T,  5, "2, 4", "1:255", "", ""},
    {"140.1.1",  T, 22, "2-3, 21",
     "1:100000000, 4:36, 5:3, 10:5, 11:5, 12:99, 13:23, 19:6, 20:6, 22:4", "", ""},
    {"140.3.1",  T,  7, "2, 4, 6", "1:1000000000", "", ""},
    {"200",      S,  8, "2-6", "7:6, 8:6", "2:64, 5:64, 6:64", ""},
};
// clang-format on

constexpr uint32_t kDefaultStringLength = 255;
constexpr uint32_t kFrameworkAreaBytes = 64;
constexpr size_t kMaxGroupArcs = kelpMibRootLength + 3;

static_assert(std::size(kGroupRows) == kelpMibGroupCount, "one row per registered group");

// ---- Reading the list texts -------------------------------------------------

// One item of a list: "a", "a-b" (range) or "a:b" (pair).
struct Item {
    uint32_t a = 0;
    uint32_t b = 0;
    char sep = '\0';
};

constexpr bool readNumber(std::string_view &s, uint32_t &out)
{
    uint64_t v = 0;
    size_t i = 0;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
        v = v * 10 + static_cast<uint64_t>(s[i] - '0');
        if (v > UINT32_MAX)
            return false;
    }
    if (i == 0)
        return false;
    out = static_cast<uint32_t>(v);
    s.remove_prefix(i);
    return true;
}

// Calls f for every item of a ", "-separated list; false on malformed text.
template <typename F> constexpr bool forEachItem(std::string_view list, F f)
{
    while (!list.empty()) {
        Item item;
        if (!readNumber(list, item.a))
            return false;
        item.b = item.a;
        if (!list.empty() && (list[0] == '-' || list[0] == ':')) {
            item.sep = list[0];
            list.remove_prefix(1);
            if (!readNumber(list, item.b))
                return false;
        }
        f(item);
        if (list.empty())
            break;
        if (!list.starts_with(", "))
            return false;
        list.remove_prefix(2);
    }
    return true;
}

constexpr bool inList(std::string_view list, uint32_t column)
{
    bool found = false;
    forEachItem(list, [&](const Item &i) { found = found || (column >= i.a && column <= i.b); });
    return found;
}

constexpr std::optional<uint32_t> pairFor(std::string_view pairs, uint32_t column)
{
    std::optional<uint32_t> value;
    forEachItem(pairs, [&](const Item &i) {
        if (i.a == column)
            value = i.b;
    });
    return value;
}

// Every list parses and names only columns of its group: strings and the
// writable list as columns or ascending ranges, limits as pairs, lengths only
// on string columns and integer limits only on integer columns.
constexpr bool rowIsWellFormed(const GroupRow &row)
{
    bool ok = true;
    auto columnsOnly = [&](const Item &i) {
        ok = ok && i.sep != ':' && i.a >= 1 && i.a <= i.b && i.b <= row.columns;
    };
    auto pairsOn = [&](bool wantString) {
        return [&, wantString](const Item &i) {
            ok = ok && i.sep == ':' && i.a >= 1 && i.a <= row.columns &&
                 inList(row.strings, i.a) == wantString;
        };
    };
    ok = forEachItem(row.strings, columnsOnly) && ok;
    ok = forEachItem(row.writable, columnsOnly) && ok;
    ok = forEachItem(row.intLimits, pairsOn(false)) && ok;
    ok = forEachItem(row.lengths, pairsOn(true)) && ok;
    return ok && row.columns >= 1;
}

static_assert(std::all_of(std::begin(kGroupRows), std::end(kGroupRows), rowIsWellFormed),
              "a group row names a column it does not have or is malformed");

// ---- Group OIDs ---------------------------------------------------------------

struct GroupOid {
    std::array<uint32_t, kMaxGroupArcs> arcs{};
    uint32_t count = 0;
};

constexpr GroupOid groupOid(const GroupRow &row)
{
    GroupOid oid;
    for (uint32_t arc : kelpMibRootArcs)
        oid.arcs[oid.count++] = arc;
    std::string_view below = row.below;
    while (!below.empty() && oid.count < kMaxGroupArcs) {
        if (!readNumber(below, oid.arcs[oid.count++]))
            return GroupOid{};
        if (below.starts_with('.'))
            below.remove_prefix(1);
    }
    return below.empty() ? oid : GroupOid{};
}

constexpr auto kGroupOids = [] {
    std::array<GroupOid, kelpMibGroupCount> oids{};
    for (size_t g = 0; g < kelpMibGroupCount; ++g)
        oids[g] = groupOid(kGroupRows[g]);
    return oids;
}();

// Scalar groups sit right below the root (or are the root); table entries are
// root.G.T.1. Rows are in OID order, which catches a mistyped arc.
constexpr bool groupOidsAreSound()
{
    for (size_t g = 0; g < kelpMibGroupCount; ++g) {
        const GroupOid &oid = kGroupOids[g];
        if (kGroupRows[g].shape == Shape::table) {
            if (oid.count != kelpMibRootLength + 3 || oid.arcs[oid.count - 1] != 1)
                return false;
        } else if (oid.count == 0 || oid.count > kelpMibRootLength + 1) {
            return false;
        }
        if (g > 0 &&
            !std::lexicographical_compare(kGroupOids[g - 1].arcs.begin(),
                                          kGroupOids[g - 1].arcs.begin() + kGroupOids[g - 1].count,
                                          oid.arcs.begin(), oid.arcs.begin() + oid.count))
            return false;
    }
    return true;
}
static_assert(groupOidsAreSound(), "group OIDs out of shape or out of order");

// ---- Column records -------------------------------------------------------------

constexpr SMMibColumnDef columnDef(const GroupRow &row, uint32_t column)
{
    const uint32_t writable = inList(row.writable, column) ? SM_MIB_ACCESS_WRITE : 0;
    SMMibColumnDef def{};
    def.column = column;
    if (inList(row.strings, column)) {
        def.valueClass = SM_MIB_CLASS_STRING;
        def.asnType = SM_ASN_OCTET_STRING;
        def.hasLimit = 1;
        def.limit = pairFor(row.lengths, column).value_or(kDefaultStringLength);
        def.access = SM_MIB_ACCESS_READ | writable;
    } else {
        const auto limit = pairFor(row.intLimits, column);
        def.valueClass = SM_MIB_CLASS_INTEGER;
        def.asnType = SM_ASN_INTEGER;
        def.hasLimit = limit ? 1 : 0;
        def.limit = limit.value_or(0);
        def.access = SM_MIB_ACCESS_READ | SM_MIB_ACCESS_INTEGER | writable;
    }
    return def;
}

// All column arrays live in one array; each group's run starts with its
// all-zero entry 0.
constexpr auto kColumnStart = [] {
    std::array<size_t, kelpMibGroupCount + 1> start{};
    for (size_t g = 0; g < kelpMibGroupCount; ++g)
        start[g + 1] = start[g] + kGroupRows[g].columns + 1;
    return start;
}();

constexpr auto kColumns = [] {
    std::array<SMMibColumnDef, kColumnStart[kelpMibGroupCount]> columns{};
    for (size_t g = 0; g < kelpMibGroupCount; ++g) {
        for (uint32_t c = 1; c <= kGroupRows[g].columns; ++c)
            columns[kColumnStart[g] + c] = columnDef(kGroupRows[g], c);
    }
    return columns;
}();

// The index column of a table is a record of its own, equal to column 1.
constexpr auto kIndexColumns = [] {
    std::array<SMMibColumnDef, kelpMibGroupCount> index{};
    for (size_t g = 0; g < kelpMibGroupCount; ++g)
        if (kGroupRows[g].shape == Shape::table)
            index[g] = kColumns[kColumnStart[g] + 1];
    return index;
}();

static_assert(std::all_of(std::begin(kGroupRows), std::end(kGroupRows),
                          [](const GroupRow &row) {
                              return row.shape == Shape::scalars ||
                                     columnDef(row, 1).valueClass == SM_MIB_CLASS_INTEGER;
                          }),
              "every table is indexed by an INTEGER column 1");

// ---- Group records ----------------------------------------------------------------

// The framework's per-group scratch areas, zero at load. Written only by the
// framework, on its own terms; the module never reads or writes them.
alignas(16) unsigned char frameworkAreas[kelpMibGroupCount][kFrameworkAreaBytes];

constexpr auto kGroups = [] {
    std::array<SMMibGroupDef, kelpMibGroupCount> groups{};
    for (size_t g = 0; g < kelpMibGroupCount; ++g) {
        const bool table = kGroupRows[g].shape == Shape::table;
        SMMibGroupDef &def = groups[g];
        def.frameworkArea = frameworkAreas[g];
        def.arcCount = kGroupOids[g].count;
        def.arcs = kGroupOids[g].arcs.data();
        def.indexCount = table ? 1 : 0;
        def.indexColumn = table ? &kIndexColumns[g] : nullptr;
        def.columnCount = kGroupRows[g].columns;
        def.columns = &kColumns[kColumnStart[g]];
    }
    return groups;
}();

} // namespace

extern "C" const SMMibGroupDef *const kelpMibDefinition[kelpMibGroupCount + 1] = {
    &kGroups[0],  &kGroups[1],  &kGroups[2],  &kGroups[3],  &kGroups[4],  &kGroups[5],
    &kGroups[6],  &kGroups[7],  &kGroups[8],  &kGroups[9],  &kGroups[10], &kGroups[11],
    &kGroups[12], &kGroups[13], &kGroups[14], &kGroups[15], &kGroups[16], &kGroups[17],
    &kGroups[18], &kGroups[19], &kGroups[20], &kGroups[21], nullptr,
};
