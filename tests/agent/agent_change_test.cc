// Walks while the model changes under them: four walkers and a Get loop run
// for a minute while a script loads models, adds and removes objects and
// queues events. Every walk must increase strictly and either complete or
// end in a lock time-out (a rescan holding the tables); every Get of an
// object that exists in every model answers a value or a lock time-out.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "testkit.h"

namespace kelp::test {
namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

// KELP_CHANGE_TEST_SECONDS shortens or lengthens the run (60 s by default).
std::chrono::seconds runTime()
{
    const char *text = std::getenv("KELP_CHANGE_TEST_SECONDS");
    const int seconds = text != nullptr ? std::atoi(text) : 0;
    return std::chrono::seconds(seconds > 0 ? seconds : 60);
}

struct Tally {
    std::mutex mutex;
    int complete = 0;
    int lockTimeOuts = 0;
    std::vector<std::string> failures;

    int completed()
    {
        std::lock_guard lock(mutex);
        return complete;
    }

    void fail(const std::string &what)
    {
        std::lock_guard lock(mutex);
        if (failures.size() < 10) {
            failures.push_back(what);
        }
    }
};

TEST(AgentChange, WalksAndGetsDuringModelChangesEndOnlyInALockTimeOut)
{
    AgentUnderTest agent;
    const std::string sample = sourcePath("data/models/sample.xml");
    std::vector<std::string> models = {sample};
    for (const char *disks : {"24", "40"}) {
        const std::string model = agent.dir() / (std::string("gen-") + disks + ".xml");
        const RunResult made =
            run({KELPGEN_PATH, "--disks", disks, "--disks-per-controller", "8", "--out", model}, {},
                agent.dir());
        ASSERT_EQ(made.status, 0) << made.err;
        models.push_back(model);
    }
    std::string why;
    ASSERT_TRUE(agent.start(sample, {}, &why)) << why;

    std::atomic<bool> stop{false};
    Tally walks;
    Tally gets;
    std::vector<std::thread> threads;
    for (int walker = 0; walker < 4; walker++) {
        threads.emplace_back([&, walker] {
            const std::string tool = walker % 2 == 0 ? "snmpwalk" : "snmpbulkwalk";
            while (!stop) {
                // No retries: a request that times out is a failure.
                const RunResult walk = agent.snmp(tool, {"-r", "0", "-t", "3", kRoot});
                if (walk.status == 0 && walk.err.empty()) {
                    std::lock_guard lock(walks.mutex);
                    walks.complete++;
                } else if (walk.err.find("genErr") != std::string::npos ||
                           walk.err.find("genError") != std::string::npos) {
                    std::lock_guard lock(walks.mutex);
                    walks.lockTimeOuts++;
                } else {
                    walks.fail(tool + ": " + walk.err.substr(0, 300));
                }
            }
        });
    }
    threads.emplace_back([&] {
        // Objects every model has: the scalars and the first controller.
        const std::vector<std::string> names = {"-Cf",
                                                "-r",
                                                "0",
                                                "-t",
                                                "3",
                                                std::string(kRoot) + ".1.0",
                                                std::string(kRoot) + ".130.1.1.1.1",
                                                std::string(kRoot) + ".130.1.1.2.1"};
        while (!stop) {
            const RunResult get = agent.snmp("snmpget", names);
            if (get.status == 0 && get.out.find("No Such") == std::string::npos &&
                get.err.empty()) {
                std::lock_guard lock(gets.mutex);
                gets.complete++;
            } else if (get.err.find("genErr") != std::string::npos ||
                       get.err.find("genError") != std::string::npos) {
                std::lock_guard lock(gets.mutex);
                gets.lockTimeOuts++;
            } else {
                gets.fail(get.out.substr(0, 300) + get.err.substr(0, 300));
            }
            std::this_thread::sleep_for(50ms);
        }
    });

    // The script: loads, additions, removals, events, with and without the
    // rescan pair, until the time is up.
    const Clock::time_point until = Clock::now() + runTime();
    for (int step = 0; Clock::now() < until; step++) {
        switch (step % 6) {
        case 0:
            agent.kelpctl({"load", models[static_cast<size_t>(step / 6) % models.size()]});
            break;
        case 1:
            agent.kelpctl({"add", "--xml",
                           "<object id=\"" + std::to_string(900000 + step) +
                               "\" type=\"fans\"><Nexus>0\\0\\0\\1\\" + std::to_string(50 + step) +
                               "</Nexus></object>"});
            break;
        case 2:
            agent.kelpctl({"remove", std::to_string(900000 + step - 1)});
            break;
        case 3:
            agent.kelpctl({"event", "2048", "--object", "1"});
            break;
        case 4:
            agent.kelpctl(
                {"load", "--no-events", models[static_cast<size_t>(step / 6 + 1) % models.size()]});
            break;
        default:
            agent.kelpctl({"remove", "32"});
            break;
        }
        std::this_thread::sleep_for(700ms);
        if (step % 6 == 5) {
            // Loads and removals move ids, and each is made under the
            // plug-in's rescan lock: where a whole walk takes longer than a
            // cycle (ThreadSanitizer), the walkers get a quiet spell to end
            // one in.
            const int before = walks.completed();
            waitFor([&] { return walks.completed() > before; }, 30s);
        }
    }
    stop = true;
    for (std::thread &thread : threads) {
        thread.join();
    }

    for (const std::string &failure : walks.failures) {
        ADD_FAILURE() << "walk: " << failure;
    }
    for (const std::string &failure : gets.failures) {
        ADD_FAILURE() << "get: " << failure;
    }
    EXPECT_GT(walks.complete, 0);
    EXPECT_GT(gets.complete, 0);
    // Every genErr was the lock's: the agent logs the cause of each.
    const std::string log = agent.process()->err();
    EXPECT_TRUE(genErrsWereTheLocks(log)) << log;
    std::printf("walks: %d complete, %d ended by a lock time-out; gets: %d answered, %d lock "
                "time-outs\n",
                walks.complete, walks.lockTimeOuts, gets.complete, gets.lockTimeOuts);
    EXPECT_TRUE(agent.process()->running());
}

} // namespace
} // namespace kelp::test
