// What the tests of the monitoring recipes in contrib/ share beside the agent
// test kit: where the recipes and their tools are, a free TCP port and a
// plain HTTP GET for the SNMP exporter, the exporter's text format read into
// series, and the model changes of a failed disk.
#ifndef KELP_TESTS_CONTRIB_CONTRIB_KIT_H
#define KELP_TESTS_CONTRIB_CONTRIB_KIT_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "testkit.h"

namespace kelp::test {

// A file of the checkout's contrib/ folder, e.g. "prometheus/snmp.yml".
std::string contribPath(const std::string &relative);

// Environment for net-snmp tools that resolve the storage MIB's names:
// snmpEnv(dir) with MIBDIRS naming mibs/ and the base modules of tests/mibs,
// and MIBS loading KELP-STORAGE-MIB.
std::vector<std::string> mibEnv(const TempDir &dir);

// True when `path` names an executable file.
bool executable(const std::string &path);

struct HttpAnswer {
    int status = 0; // the HTTP status code; 0 when nothing answered
    std::string body;
};

// GET http://127.0.0.1:port<target> with HTTP/1.0; waits at most `limit`
// for the whole answer. Status 0 when the connection fails or times out.
HttpAnswer httpGet(int port, const std::string &target, std::chrono::milliseconds limit = 20s);

// One sample of the Prometheus text format: name{labels} value.
struct Series {
    std::string name;
    std::map<std::string, std::string> labels;
    double value = 0;
};

// The samples of an exposition text, comment lines left out. A line that is
// not a sample ends the parse with nullopt and the line in *bad.
std::optional<std::vector<Series>> parseExposition(const std::string &text, std::string *bad);

// The samples named `name` whose labels include every pair of `labels`.
std::vector<Series> select(const std::vector<Series> &all, const std::string &name,
                           const std::map<std::string, std::string> &labels = {});

// The kelpctl set commands that turn the sample model's disk `id` into a
// failed disk: the disk's state and status, the degraded virtual disk
// `vdisk` over it, and the roll-ups of its enclosure and controller.
std::vector<std::vector<std::string>> failDisk(const std::string &id, const std::string &vdisk,
                                               const std::string &enclosure,
                                               const std::string &controller);

} // namespace kelp::test

#endif // KELP_TESTS_CONTRIB_CONTRIB_KIT_H
