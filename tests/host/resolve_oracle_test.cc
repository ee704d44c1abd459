// The agent's name resolution against an oracle: the plug-in's own walk of
// the tree, loaded in-process from a model. The reference walk asks the
// plug-in's dispatch for GetNext from the root on, and goes on from the next
// table's root whenever the plug-in has nothing more. Then every name of
// interest (every prefix of a walked name, every walked name with one arc
// raised or lowered, with 0 or 2^32-1 in place of an arc, and random names)
// must get, through the agent's answerGetNext, the first walked name after
// it, and through answerGet its walked value or a noSuch answer.
#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <limits>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "pluginhost.h"
#include "records.h"
#include "snmp/resolve.h"

namespace kelp::agent {
namespace {

using Name = std::vector<uint64_t>;
constexpr uint64_t kMax = std::numeric_limits<uint32_t>::max();

Name below(std::initializer_list<uint64_t> tail)
{
    Name name = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20};
    name.insert(name.end(), tail);
    return name;
}

// The tables in walk order, as the reference walk goes on with them: the
// test's own list, so that it checks the agent's rather than repeats it.
const std::pair<uint32_t, uint32_t> kTables[] = {
    {130, 1},  {130, 2},  {130, 3},  {130, 4},  {130, 5},  {130, 6},  {130, 7},  {130, 8},
    {130, 9},  {130, 10}, {130, 11}, {130, 12}, {130, 13}, {130, 14}, {130, 15}, {130, 16},
    {130, 17}, {130, 18}, {140, 1},  {140, 2},  {140, 3},  {140, 4},  {140, 5},  {140, 6}};

int compare(const Name &a, const Name &b)
{
    return compareNames(std::span<const uint64_t>(a), std::span<const uint64_t>(b));
}

bool sameValue(const Value &a, const Value &b)
{
    return a.type == b.type && a.integer == b.integer && a.bytes == b.bytes && a.arcs == b.arcs;
}

std::string text(std::span<const uint64_t> name)
{
    std::string out;
    for (uint64_t arc : name) {
        out += (out.empty() ? "" : ".") + std::to_string(arc);
    }
    return out;
}

struct Walked {
    Name name;
    Value value;
};

// Whether a name has the shape of a table cell: root.G.T.1.C.R of one of
// the tables, C at least 1. With `walk`, C must also be no larger than the
// largest column walked in that table.
bool cellShaped(const Name &name, const std::vector<Walked> *walk = nullptr)
{
    const Name root = below({});
    if (name.size() != 15 || !std::equal(root.begin(), root.end(), name.begin()) || name[12] != 1 ||
        name[13] < 1 || name[14] > kMax ||
        std::none_of(std::begin(kTables), std::end(kTables),
                     [&](auto t) { return name[10] == t.first && name[11] == t.second; })) {
        return false;
    }
    if (walk == nullptr) {
        return true;
    }
    uint64_t columns = 0;
    for (const Walked &w : *walk) {
        if (w.name.size() == 15 && w.name[10] == name[10] && w.name[11] == name[11]) {
            columns = std::max(columns, w.name[13]);
        }
    }
    return name[13] <= columns;
}

// Whether a name has the shape of a scalar instance: root.S.0 or root.G.C.0.
bool scalarShaped(const Name &name)
{
    const Name root = below({});
    return (name.size() == 12 || name.size() == 13) &&
           std::equal(root.begin(), root.end(), name.begin()) && name.back() == 0;
}

class ResolveOracle : public ::testing::Test {
  protected:
    static void SetUpTestSuite()
    {
        char pattern[] = "/tmp/kelp-oracle-XXXXXX";
        dir_ = mkdtemp(pattern);
        setenv("KELP_INI", (dir_ + "/kelp.ini").c_str(), 1);
        unsetenv("KELP_DEBUG_FILE");
        unsetenv("KELP_CONTROL");
    }
    static void TearDownTestSuite() { std::filesystem::remove_all(dir_); }

    void TearDown() override
    {
        if (host_.isOpen()) {
            uint32_t used = 0;
            host_.call(SM_CMD_STOP_MONITOR, nullptr, 0, nullptr, 0, &used);
            host_.unload();
            host_.close();
        }
    }

    // Loads the plug-in serving `model` and waits until its tables are
    // built (a Get is no longer genErr).
    void start(const std::string &model)
    {
        setenv("KELP_MODEL", model.c_str(), 1);
        ASSERT_TRUE(host_.open(KELP_PLUGIN_PATH)) << host_.error();
        void *services[SM_SERVICE_COUNT] = {};
        ASSERT_EQ(host_.load(services, 1), 0u);
        uint32_t used = 0;
        ASSERT_EQ(host_.call(SM_CMD_START_MONITOR, nullptr, 0, nullptr, 0, &used), 0u);
        dispatch_ = [this](uint32_t command, void *in, uint32_t inSize, void *out, uint32_t outSize,
                           uint32_t *outUsed) {
            calls_++;
            return host_.call(command, in, inSize, out, outSize, outUsed);
        };
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(60);
        while (answerGet(dispatch_, below({3, 0})).outcome != Outcome::kValue) {
            ASSERT_LT(std::chrono::steady_clock::now(), until) << "the tables are never built";
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }

    // The plug-in's walk from the root, through its dispatch alone.
    std::vector<Walked> referenceWalk()
    {
        std::vector<Walked> walk;
        const Name root = below({});
        std::vector<uint32_t> from(root.begin(), root.end());
        for (;;) {
            PluginName fromName;
            fromName.assign(std::span<const uint32_t>(from));
            RequestRecord request(fromName);
            ReplyRecord reply;
            uint32_t used = 0;
            const uint32_t status =
                host_.call(SM_CMD_GETNEXT, request.record(), sizeof(SMSnmpValue), reply.record(),
                           sizeof(SMSnmpValue), &used);
            EXPECT_TRUE(status == 0 || status == 2)
                << "status " << status << " after "
                << dottedOid(from.data(), static_cast<uint32_t>(from.size()));
            const auto next = reply.name();
            const bool forward = status == 0 && next && next->size() >= 10 &&
                                 std::equal(from.begin(), from.begin() + 10, next->begin()) &&
                                 compareNames(*next, std::span<const uint32_t>(from)) > 0;
            if (forward) {
                Value value;
                const ValueRead read = reply.readValue(&value);
                EXPECT_NE(read, ValueRead::kBad);
                from.assign(next->begin(), next->end());
                if (read == ValueRead::kValue) {
                    walk.push_back({Name(from.begin(), from.end()), value});
                }
                continue;
            }
            // Nothing after this: the next table's root, if one is left.
            const auto later = std::find_if(std::begin(kTables), std::end(kTables), [&](auto t) {
                const std::vector<uint32_t> table = {1,     3,     6, 1,  4,       1,
                                                     61234, 20571, 1, 20, t.first, t.second};
                return compareNames(std::span<const uint32_t>(table),
                                    std::span<const uint32_t>(from)) > 0;
            });
            if (later == std::end(kTables)) {
                break;
            }
            from = {1, 3, 6, 1, 4, 1, 61234, 20571, 1, 20, later->first, later->second};
        }
        return walk;
    }

    // Every name of interest around the walk: prefixes, one arc up or down,
    // 0 and 2^32-1 in place of each arc (for every `stride`-th walked name),
    // and `randomNames` random names near the tree and far from it.
    static std::set<Name> probes(const std::vector<Walked> &walk, size_t stride, int randomNames)
    {
        std::set<Name> names;
        for (size_t i = 0; i < walk.size(); i++) {
            const Name &name = walk[i].name;
            for (size_t length = 0; length <= name.size(); length++) {
                names.insert(Name(name.begin(), name.begin() + static_cast<long>(length)));
            }
            if (i % stride != 0 && i + 1 != walk.size()) {
                continue;
            }
            for (size_t at = 0; at < name.size(); at++) {
                Name changed = name;
                changed[at] = name[at] + 1;
                names.insert(changed);
                if (name[at] > 0) {
                    changed[at] = name[at] - 1;
                    names.insert(changed);
                }
                changed[at] = 0;
                names.insert(changed);
                changed[at] = kMax;
                names.insert(changed);
            }
        }
        std::mt19937_64 random(20571);
        for (int i = 0; i < randomNames; i++) {
            const Name &base = walk[random() % walk.size()].name;
            Name name(base.begin(), base.begin() + static_cast<long>(random() % (base.size() + 1)));
            const size_t more = random() % 6;
            for (size_t k = 0; k < more; k++) {
                switch (random() % 4) {
                case 0:
                    name.push_back(random() % 4);
                    break;
                case 1:
                    name.push_back(random() % 200);
                    break;
                case 2:
                    name.push_back(random() & kMax);
                    break;
                default:
                    name.push_back(random() % (kMax + 2));
                    break;
                }
            }
            names.insert(name);
        }
        return names;
    }

    // GetNext (both flavours) and Get of every probe against the walk.
    void checkAgainst(const std::vector<Walked> &walk, const std::set<Name> &names)
    {
        size_t wrong = 0;
        for (const Name &name : names) {
            const auto after = std::upper_bound(
                walk.begin(), walk.end(), name,
                [](const Name &n, const Walked &w) { return compare(n, w.name) < 0; });
            const Answer next = answerGetNext(dispatch_, name, false);
            if (after == walk.end()) {
                if (next.outcome != Outcome::kEndOfSubtree && wrong++ < 20) {
                    ADD_FAILURE() << "GetNext " << text(name) << ": expected the end, got "
                                  << static_cast<int>(next.outcome) << " " << text(next.name);
                }
            } else if ((next.outcome != Outcome::kValue || next.name != after->name ||
                        !sameValue(next.value, after->value)) &&
                       wrong++ < 20) {
                ADD_FAILURE() << "GetNext " << text(name) << ": expected " << text(after->name)
                              << ", got " << static_cast<int>(next.outcome) << " "
                              << text(next.name);
            }

            const bool walked = after != walk.begin() && std::prev(after)->name == name;
            const Answer inclusive = answerGetNext(dispatch_, name, true);
            const auto atOrAfter = walked ? std::prev(after) : after;
            const bool inclusiveRight =
                atOrAfter == walk.end()
                    ? inclusive.outcome == Outcome::kEndOfSubtree
                    : inclusive.outcome == Outcome::kValue && inclusive.name == atOrAfter->name;
            if (!inclusiveRight && wrong++ < 20) {
                ADD_FAILURE() << "inclusive GetNext " << text(name) << ": got "
                              << static_cast<int>(inclusive.outcome) << " " << text(inclusive.name);
            }

            const unsigned long callsBefore = calls_;
            const Answer get = answerGet(dispatch_, name);
            if (walked) {
                if ((get.outcome != Outcome::kValue ||
                     !sameValue(get.value, std::prev(after)->value)) &&
                    wrong++ < 20) {
                    ADD_FAILURE() << "Get " << text(name) << " is not its walked value";
                }
            } else if (!cellShaped(name, &walk)) {
                // Not an instance of the walk: noSuch, and without asking
                // the plug-in unless the name has an instance's shape.
                const bool noSuch = get.outcome == Outcome::kNoSuchObject ||
                                    get.outcome == Outcome::kNoSuchInstance;
                const bool asked = calls_ != callsBefore;
                if ((!noSuch || (asked && !cellShaped(name) && !scalarShaped(name))) &&
                    wrong++ < 20) {
                    ADD_FAILURE() << "Get " << text(name) << ": outcome "
                                  << static_cast<int>(get.outcome) << " after "
                                  << calls_ - callsBefore << " plug-in calls";
                }
            }
        }
        EXPECT_EQ(wrong, 0u) << "of " << names.size() << " names";
    }

    PluginHost host_;
    Dispatch dispatch_;
    unsigned long calls_ = 0;
    static std::string dir_;
};
std::string ResolveOracle::dir_;

TEST_F(ResolveOracle, EveryNameAroundTheSampleModelsWalkGetsTheWalksAnswer)
{
    start(std::string(KELP_SOURCE_DIR) + "/data/models/sample.xml");
    const std::vector<Walked> walk = referenceWalk();
    ASSERT_GT(walk.size(), 500u);
    for (size_t i = 1; i < walk.size(); i++) {
        ASSERT_LT(compare(walk[i - 1].name, walk[i].name), 0) << "the walk must increase";
    }
    // Every table of the sample has rows in the walk.
    for (const auto &[group, table] : kTables) {
        EXPECT_TRUE(std::any_of(walk.begin(), walk.end(),
                                [&](const Walked &w) {
                                    return w.name.size() == 15 && w.name[10] == group &&
                                           w.name[11] == table;
                                }))
            << group << "." << table;
    }
    checkAgainst(walk, probes(walk, 1, 20000));
}

TEST_F(ResolveOracle, EveryNameAroundAGeneratedModelsWalkGetsTheWalksAnswer)
{
    const std::string model = dir_ + "/generated.xml";
    const std::string command =
        std::string(KELPGEN_PATH) + " --disks 48 --disks-per-controller 16 --out " + model;
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    start(model);
    const std::vector<Walked> walk = referenceWalk();
    ASSERT_GT(walk.size(), 1000u);
    checkAgainst(walk, probes(walk, 7, 20000));
}

} // namespace
} // namespace kelp::agent
