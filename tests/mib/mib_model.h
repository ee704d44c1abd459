// KELP-STORAGE-MIB as net-snmp reads it, sorted by what each object is in the
// served tree (scalar, table, column, alert object, alert), and the
// comparisons of the MIB with the agent's tree, with a walk and with the
// trap numbers the event monitor can send. Shared by the MIB tests.
#ifndef KELP_TESTS_MIB_MIB_MODEL_H
#define KELP_TESTS_MIB_MIB_MODEL_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "testkit.h"

namespace kelp::test {

using Arcs = std::vector<uint32_t>;

// The module's name, and the directories with it and with the base modules
// it imports (tests/mibs holds stand-ins for the IETF ones).
inline constexpr const char *kMibModule = "KELP-STORAGE-MIB";
std::string mibDirs();

// snmpEnv(dir), with net-snmp's persistent directories made beforehand, so
// that the tools print nothing about them.
std::vector<std::string> quietSnmpEnv(const TempDir &dir);

// net-snmp's tools with only KELP-STORAGE-MIB (and its imports) loaded:
// `tool` -M mibDirs() -m KELP-STORAGE-MIB args.
RunResult mibTool(const TempDir &dir, const std::string &tool,
                  const std::vector<std::string> &args);

// The non-empty lines of `text`.
std::vector<std::string> linesOf(const std::string &text);

// "1.3.6.1" -> {1, 3, 6, 1}; a leading dot is allowed. Empty on anything
// that is not a dotted decimal name.
Arcs parseArcs(const std::string &dotted);
std::string dotted(const Arcs &arcs);

// A (group, table) pair of the served tree: 130.T or 140.T.
using TableId = std::pair<uint32_t, uint32_t>;

// The objects of the module, by what they are below the root.
struct MibObjects {
    std::map<Arcs, std::string> names;      // every object below the root, by OID
    std::map<Arcs, std::string> scalars;    // root.S, root.100.S, root.110.S (no .0)
    std::map<TableId, std::string> tables;  // root.G.T
    std::map<TableId, std::string> entries; // root.G.T.1
    std::map<TableId, std::map<uint32_t, std::string>> columns; // root.G.T.1.C
    std::map<uint32_t, std::string> alertObjects;               // root.200.N
    std::map<uint32_t, std::string> notifications;              // root.200.0.N
    std::vector<std::string> unplaced;                          // anything else, with its OID
};

// Sorts net-snmp's -Tz listing ("name" <tabs> "oid" a line) by the served
// tree. Objects outside the root are left out; the conformance subtree
// root.300 is accepted and not listed.
MibObjects sortMib(const std::string &tzListing);

// The MIB as net-snmp reads it from mibDirs(). Fails the test (and answers an
// empty set) when snmptranslate does.
MibObjects loadMib(const TempDir &dir);

// The differences between the MIB's columns and the served columns, one
// text a difference ("130.4 column 5: in the MIB, not served"); empty when
// they are equal. `served` maps each table to its columns.
std::vector<std::string> columnDifferences(const MibObjects &mib,
                                           const std::map<TableId, std::set<uint32_t>> &served);

// Every trap number the event monitor can send, from its tables
// (events/trapnumbers.h), with the x100 form of each.
std::set<uint32_t> sendableTrapNumbers();

} // namespace kelp::test

#endif // KELP_TESTS_MIB_MIB_MODEL_H
