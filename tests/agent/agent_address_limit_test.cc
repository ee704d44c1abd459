// kelpagent under limits of address space (prlimit --as), from too little to
// start to enough to serve: at every one it serves, or it ends with its
// reason and exit status 1. A limit never kills it: an allocation or a
// thread that fails is caught where it fails, or ends the agent with a
// line that says so, never through std::terminate.
#include <signal.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testkit.h"

namespace kelp::test {
namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true; // shadow memory needs terabytes of address space
#else
constexpr bool kSanitized = false;
#endif

struct Outcome {
    std::optional<int> status;
    bool served = false;
    std::string err;
};

// kelpagent on the sample model under `mebibytes` of address space: what
// it did within 20 s, then stopped with SIGTERM if it still runs.
Outcome underLimit(int mebibytes)
{
    TempDir dir;
    const int port = freeUdpPort();
    // A stop held by a plug-in thread that never started ends after 2 s,
    // not 30.
    std::vector<std::string> environment = agentEnv();
    environment.push_back("KELP_STOP_TIMEOUT=2");
    Process agent({"/usr/bin/prlimit", "--as=" + std::to_string(mebibytes * 1048576L), "--",
                   kelpagentPath(), "--allow-root", "--state-dir", dir / "state", "--listen",
                   "udp:127.0.0.1:" + std::to_string(port), "--module", modulePath(), "--model",
                   sourcePath("data/models/sample.xml")},
                  environment, dir / "agent.out", dir / "agent.err");
    Outcome outcome;
    waitFor(
        [&] {
            return !agent.running() ||
                   agent.err().find("kelpagent: answering on") != std::string::npos;
        },
        20s);
    if (agent.running()) {
        // Whatever it answers, it answers without dying.
        snmp(dir, "snmpget", "2c", "public", port, {std::string(kRoot) + ".3.0"});
        outcome.served = agent.running();
        agent.signal(SIGTERM);
    }
    outcome.status = agent.wait(15s);
    outcome.err = agent.err();
    return outcome;
}

TEST(AgentAddressLimit, UnderEveryLimitTheAgentServesOrEndsWithItsReason)
{
    if (kSanitized) {
        GTEST_SKIP() << "a sanitizer's shadow memory does not fit under a limit of address space";
    }
    if (access("/usr/bin/prlimit", X_OK) != 0) {
        GTEST_SKIP() << "no /usr/bin/prlimit (util-linux)";
    }
    int served = 0;
    int ended = 0;
    // Fine steps where the start runs short, coarser ones up to what a
    // machine with larger thread stacks or libraries needs to serve.
    for (int mebibytes = 24; mebibytes <= 512; mebibytes += mebibytes < 128 ? 8 : 32) {
        const Outcome outcome = underLimit(mebibytes);
        ASSERT_TRUE(outcome.status) << mebibytes << " MiB: did not stop\n" << outcome.err;
        // Too little for the dynamic loader to map the libraries: not the
        // agent's code yet.
        if (*outcome.status == 127 &&
            outcome.err.find("error while loading shared libraries") != std::string::npos) {
            continue;
        }
        EXPECT_EQ(outcome.err.find("terminate called"), std::string::npos) << mebibytes << " MiB\n"
                                                                           << outcome.err;
        if (outcome.served) {
            // Stopped, or a plug-in thread that never started held the stop
            // and the agent ended it.
            EXPECT_TRUE(
                *outcome.status == 0 ||
                (*outcome.status == 1 &&
                 outcome.err.find("kelpagent: stopping takes too long") != std::string::npos))
                << mebibytes << " MiB: exit status " << *outcome.status << "\n"
                << outcome.err;
            EXPECT_NE(outcome.err.find("the agent's threads share one heap"), std::string::npos)
                << mebibytes << " MiB\n"
                << outcome.err;
            served++;
        } else {
            EXPECT_EQ(*outcome.status, 1) << mebibytes << " MiB\n" << outcome.err;
            ended++;
        }
    }
    EXPECT_GT(served, 0) << "no limit up to 512 MiB let the agent serve";
    RecordProperty("served", served);
    RecordProperty("ended", ended);
}

} // namespace
} // namespace kelp::test
