// The trap names: sorted and unique, found by number, and the same as the
// NOTIFICATION-TYPEs of mibs/KELP-STORAGE-MIB.txt where the tree has it.
#include "traps/trapnames.h"

#include <fstream>
#include <map>
#include <regex>
#include <string>

#include <gtest/gtest.h>

namespace kelp::agent {
namespace {

TEST(TrapNames, AreSortedUniqueAndNamed)
{
    const std::span<const TrapName> names = trapNames();
    ASSERT_FALSE(names.empty());
    for (size_t i = 0; i < names.size(); i++) {
        EXPECT_NE(names[i].name, nullptr);
        EXPECT_NE(std::string(names[i].name), "");
        if (i > 0) {
            EXPECT_LT(names[i - 1].number, names[i].number) << names[i].name;
        }
    }
}

TEST(TrapNames, AreFoundByNumber)
{
    struct Case {
        uint32_t number;
        const char *name;
    };
    for (const Case &c : {Case{101, "versionUnsupportedAlert"}, Case{904, "arrayDiskCriticalAlert"},
                          Case{90400, "arrayDiskCriticalAlertExt"}, Case{0, nullptr},
                          Case{905, nullptr}, Case{4294967295u, nullptr}}) {
        const char *found = trapName(c.number);
        if (c.name == nullptr) {
            EXPECT_EQ(found, nullptr) << c.number;
        } else {
            ASSERT_NE(found, nullptr) << c.number;
            EXPECT_STREQ(found, c.name);
        }
    }
}

// NAME NOTIFICATION-TYPE ... ::= { kelpAlertsPrefix N }, from the module.
std::map<uint32_t, std::string> notificationsOf(const std::string &path)
{
    std::ifstream in(path);
    std::map<uint32_t, std::string> found;
    const std::regex declared(R"(^([a-zA-Z][a-zA-Z0-9]*)\s+NOTIFICATION-TYPE\s*$)");
    const std::regex placed(R"(::=\s*\{\s*kelpAlertsPrefix\s+(\d+)\s*\})");
    std::string name;
    for (std::string line; std::getline(in, line);) {
        std::smatch match;
        if (std::regex_search(line, match, declared)) {
            name = match[1];
        } else if (!name.empty() && std::regex_search(line, match, placed)) {
            found[static_cast<uint32_t>(std::stoul(match[1]))] = name;
            name.clear();
        }
    }
    return found;
}

TEST(TrapNames, AreTheNotificationsOfTheStorageMib)
{
    const std::string path = std::string(KELP_SOURCE_DIR) + "/mibs/KELP-STORAGE-MIB.txt";
    if (!std::ifstream(path).good()) {
        GTEST_SKIP() << path << " is not in this tree";
    }
    const std::map<uint32_t, std::string> mib = notificationsOf(path);
    std::map<uint32_t, std::string> ours;
    for (const TrapName &row : trapNames()) {
        ours[row.number] = row.name;
    }
    EXPECT_EQ(ours, mib);
}

} // namespace
} // namespace kelp::agent
