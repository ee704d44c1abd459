// KELP-STORAGE-MIB read through snmptranslate and sorted by the served tree.
#include "mib_model.h"

#include <filesystem>
#include <sstream>

#include <gtest/gtest.h>

#include "events/trapnumbers.h"

namespace kelp::test {
namespace {

constexpr uint32_t kInformation = 100;
constexpr uint32_t kGlobal = 110;
constexpr uint32_t kPhysical = 130;
constexpr uint32_t kLogical = 140;
constexpr uint32_t kAlerts = 200;
constexpr uint32_t kConformance = 300;
// The arcs below the root that hold scalars: root.1 to root.5.
constexpr uint32_t kLastRootScalar = 5;

const Arcs &rootArcs()
{
    static const Arcs root = parseArcs(kRoot);
    return root;
}

// The text between the first pair of double quotes after `from`, or "".
std::string quoted(const std::string &line, size_t *from)
{
    const size_t open = line.find('"', *from);
    const size_t close = open == std::string::npos ? open : line.find('"', open + 1);
    if (close == std::string::npos) {
        *from = std::string::npos;
        return "";
    }
    *from = close + 1;
    return line.substr(open + 1, close - open - 1);
}

// Files one object by its arcs below the root; false when it has no place.
bool place(MibObjects *mib, const Arcs &rel, const std::string &name)
{
    const size_t n = rel.size();
    const uint32_t top = rel[0];
    if (top == kConformance) {
        return true;
    }
    if (n == 1) {
        if (top >= 1 && top <= kLastRootScalar) {
            mib->scalars[rel] = name;
            return true;
        }
        return top == kInformation || top == kGlobal || top == kPhysical || top == kLogical ||
               top == kAlerts;
    }
    if ((top == kInformation || top == kGlobal) && n == 2) {
        mib->scalars[rel] = name;
        return true;
    }
    if (top == kPhysical || top == kLogical) {
        const TableId table{top, rel[1]};
        if (n == 2) {
            mib->tables[table] = name;
            return true;
        }
        if (rel[2] != 1) {
            return false;
        }
        if (n == 3) {
            mib->entries[table] = name;
            return true;
        }
        if (n == 4) {
            mib->columns[table][rel[3]] = name;
            return true;
        }
        return false;
    }
    if (top == kAlerts) {
        if (n == 2 && rel[1] == 0) {
            return true; // the notifications' prefix
        }
        if (n == 2) {
            mib->alertObjects[rel[1]] = name;
            return true;
        }
        if (n == 3 && rel[1] == 0) {
            mib->notifications[rel[2]] = name;
            return true;
        }
    }
    return false;
}

} // namespace

std::string mibDirs()
{
    return sourcePath("tests/mibs") + ":" + sourcePath("mibs");
}

std::vector<std::string> quietSnmpEnv(const TempDir &dir)
{
    // net-snmp says so on stderr when it makes its persistent directories.
    std::filesystem::create_directories(dir / "snmppersist/cert_indexes");
    return snmpEnv(dir);
}

RunResult mibTool(const TempDir &dir, const std::string &tool, const std::vector<std::string> &args)
{
    std::vector<std::string> argv{tool, "-M", mibDirs(), "-m", kMibModule};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv, quietSnmpEnv(dir), dir, std::chrono::seconds(30));
}

std::vector<std::string> linesOf(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (!line.empty()) {
            lines.push_back(line);
        }
    }
    return lines;
}

Arcs parseArcs(const std::string &text)
{
    std::string rest = text.starts_with('.') ? text.substr(1) : text;
    Arcs arcs;
    std::istringstream in(rest);
    for (std::string arc; std::getline(in, arc, '.');) {
        if (arc.empty() || arc.size() > 10 ||
            arc.find_first_not_of("0123456789") != std::string::npos) {
            return {};
        }
        const unsigned long long value = std::stoull(arc);
        if (value > UINT32_MAX) {
            return {};
        }
        arcs.push_back(static_cast<uint32_t>(value));
    }
    return arcs;
}

std::string dotted(const Arcs &arcs)
{
    std::string text;
    for (uint32_t arc : arcs) {
        text += (text.empty() ? "" : ".") + std::to_string(arc);
    }
    return text;
}

MibObjects sortMib(const std::string &listing)
{
    MibObjects mib;
    const Arcs &root = rootArcs();
    std::istringstream lines(listing);
    for (std::string line; std::getline(lines, line);) {
        size_t at = 0;
        const std::string name = quoted(line, &at);
        const std::string oid = at == std::string::npos ? "" : quoted(line, &at);
        const Arcs arcs = parseArcs(oid);
        if (arcs.size() <= root.size() || !std::equal(root.begin(), root.end(), arcs.begin())) {
            continue;
        }
        const Arcs rel(arcs.begin() + static_cast<std::ptrdiff_t>(root.size()), arcs.end());
        mib.names[rel] = name;
        if (!place(&mib, rel, name)) {
            mib.unplaced.push_back(name + " " + oid);
        }
    }
    return mib;
}

MibObjects loadMib(const TempDir &dir)
{
    const RunResult listing = mibTool(dir, "snmptranslate", {"-Tz"});
    EXPECT_EQ(listing.status, 0) << listing.err;
    EXPECT_EQ(listing.err, "");
    return sortMib(listing.out);
}

std::vector<std::string> columnDifferences(const MibObjects &mib,
                                           const std::map<TableId, std::set<uint32_t>> &served)
{
    std::vector<std::string> differences;
    auto where = [](const TableId &table, uint32_t column) {
        return std::to_string(table.first) + "." + std::to_string(table.second) + " column " +
               std::to_string(column);
    };
    for (const auto &[table, columns] : mib.columns) {
        const auto found = served.find(table);
        for (const auto &[column, name] : columns) {
            if (found == served.end() || !found->second.contains(column)) {
                differences.push_back(where(table, column) + " (" + name +
                                      "): in the MIB, not served");
            }
        }
    }
    for (const auto &[table, columns] : served) {
        const auto found = mib.columns.find(table);
        for (uint32_t column : columns) {
            if (found == mib.columns.end() || !found->second.contains(column)) {
                differences.push_back(where(table, column) + ": served, not in the MIB");
            }
        }
    }
    return differences;
}

std::set<uint32_t> sendableTrapNumbers()
{
    std::set<uint32_t> numbers;
    for (const events::EventTrap &row : events::kExtraTraps) {
        numbers.insert(row.trap);
    }
    for (const events::EventTrap &row : events::kFixedTraps) {
        numbers.insert(row.trap);
    }
    for (const events::TypeTrap &row : events::kStateChangeTraps) {
        numbers.insert(row.trap);
    }
    for (const events::TypeTrap &base : events::kTrapBases) {
        for (const events::LevelOffset &level : events::kSeverityOffsets) {
            numbers.insert(base.trap + level.offset);
        }
    }
    std::set<uint32_t> withExtended = numbers;
    for (uint32_t number : numbers) {
        withExtended.insert(number * events::kExtendedTrapFactor);
    }
    return withExtended;
}

} // namespace kelp::test
