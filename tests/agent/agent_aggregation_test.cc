// Aggregation of repeated events over the wire, for an event that is sent as
// two traps: 2164 (controller firmware too old) raises trap 101 first and then
// its main trap 753. With aggregation on, both go out at the first occurrence,
// and the repeats are counted for each trap, so the aggregation pass sends
// both again with their counts. The agent runs its clocks fast
// (KELP_TIME_SCALE).
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testkit.h"

namespace kelp::test {
namespace {

using namespace std::chrono_literals;

constexpr const char *kTrapPrefix = "1.3.6.1.4.1.61234.20571.1.20.200";
constexpr const char *kCounted = "This has been logged 3 times in the last 0 minutes.";

// The snmpTrapOID of a v2c notification of specific number `specific`,
// followed by the next binding, so that 101 does not match 1010.
std::string trapOid(uint32_t specific)
{
    return ".1.3.6.1.6.3.1.1.4.1.0 = OID: ." + std::string(kTrapPrefix) + ".0." +
           std::to_string(specific) + "\t";
}

// The lines of `log` that hold `needle`.
std::vector<std::string> linesWith(const std::string &log, const std::string &needle)
{
    std::vector<std::string> found;
    std::istringstream lines(log);
    for (std::string line; std::getline(lines, line);) {
        if (line.find(needle) != std::string::npos) {
            found.push_back(line);
        }
    }
    return found;
}

// How many of `lines` hold `needle`.
size_t countWith(const std::vector<std::string> &lines, const std::string &needle)
{
    size_t n = 0;
    for (const std::string &line : lines) {
        n += line.find(needle) != std::string::npos ? 1u : 0u;
    }
    return n;
}

class AgentAggregation : public ::testing::Test {
  protected:
    // An interval of 0 makes every wake-up of the aggregation thread a pass:
    // one when it starts, then one every 55 s, 11 s with the clock five
    // times as fast. Events queued right after the start are well before
    // the second pass, which counts them all.
    void start(const std::string &ini)
    {
        ASSERT_TRUE(receiver.ready());
        writeFile(dir / "kelp.ini", ini);
        std::string why;
        ASSERT_TRUE(agent.start(sourcePath("data/models/sample.xml"),
                                {"--trap-sink", receiver.sink(), "--ini", dir / "kelp.ini"}, &why,
                                {"KELP_TIME_SCALE=5"}))
            << why;
    }

    void firmwareEvent()
    {
        // Controller 1 of the sample (nexus 0).
        const RunResult result = agent.kelpctl({"event", "2164", "--object", "1"});
        ASSERT_EQ(result.status, 0) << result.out << result.err;
    }

    // The trap lines of specific number `specific`, once `done` holds for
    // them or `limit` passed.
    std::vector<std::string>
    trapsOf(uint32_t specific, const std::function<bool(const std::vector<std::string> &)> &done,
            std::chrono::milliseconds limit = 60s)
    {
        std::vector<std::string> lines;
        waitFor(
            [&] {
                lines = linesWith(receiver.log(), trapOid(specific));
                return done(lines);
            },
            limit);
        return lines;
    }

    TempDir dir;
    TrapReceiver receiver{dir};
    AgentUnderTest agent;
};

TEST_F(AgentAggregation, WithoutAggregationTheEventSendsBothTraps)
{
    start("");
    firmwareEvent();
    auto any = [](const std::vector<std::string> &lines) { return !lines.empty(); };
    const std::vector<std::string> extra = trapsOf(101, any, 20s);
    const std::vector<std::string> main = trapsOf(753, any, 20s);
    ASSERT_EQ(extra.size(), 1u) << receiver.log() << agent.process()->err();
    ASSERT_EQ(main.size(), 1u) << receiver.log() << agent.process()->err();
    EXPECT_NE(main[0].find("INTEGER: 2164"), std::string::npos) << main[0];
}

TEST_F(AgentAggregation, BothTrapsGoOutAtOnceAndTheirRepeatsAreCountedApart)
{
    start("[vcsipe]\nAggregateEvents=On\nEventAggregateInteval=0\n");
    firmwareEvent();
    // The first occurrence sends the extra trap and then the main one, each
    // as a first occurrence of its own: no count in either.
    auto any = [](const std::vector<std::string> &lines) { return !lines.empty(); };
    const std::vector<std::string> firstExtra = trapsOf(101, any, 20s);
    const std::vector<std::string> firstMain = trapsOf(753, any, 20s);
    ASSERT_FALSE(firstExtra.empty()) << receiver.log() << agent.process()->err();
    ASSERT_FALSE(firstMain.empty()) << "the main trap was held back as a repeat of the extra one\n"
                                    << receiver.log() << agent.process()->err();
    EXPECT_EQ(firstExtra[0].find("This has been logged"), std::string::npos) << firstExtra[0];
    EXPECT_EQ(firstMain[0].find("This has been logged"), std::string::npos) << firstMain[0];

    firmwareEvent();
    firmwareEvent();
    // The pass sends each trap once more, with the count of its own
    // occurrences; the repeats themselves send nothing.
    auto counted = [](const std::vector<std::string> &lines) {
        return countWith(lines, kCounted) > 0;
    };
    const std::vector<std::string> extra = trapsOf(101, counted);
    const std::vector<std::string> main = trapsOf(753, counted);
    EXPECT_EQ(countWith(extra, kCounted), 1u) << receiver.log() << agent.process()->err();
    EXPECT_EQ(countWith(main, kCounted), 1u) << receiver.log() << agent.process()->err();
    EXPECT_EQ(extra.size(), 2u) << receiver.log();
    EXPECT_EQ(main.size(), 2u) << receiver.log();
    for (const std::string &line : main) {
        EXPECT_NE(line.find("INTEGER: 2164"), std::string::npos) << line;
    }
}

} // namespace
} // namespace kelp::test
