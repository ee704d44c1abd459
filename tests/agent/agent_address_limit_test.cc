// kelpagent under limits of address space (prlimit --as), from too little to
// start to enough to serve: at every one it serves, or it ends with its
// reason and exit status 1. A limit never kills it: an allocation or a
// thread that fails is caught where it fails, or ends the agent with a
// line that says so, never through std::terminate.
#include <signal.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
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

// kelpagent on the sample model under `mebibytes` of address space, in
// `dir`, answering on `port`.
Process startUnderLimit(const TempDir &dir, int mebibytes, int port)
{
    // A stop held by a plug-in thread that never started ends after 2 s,
    // not 60.
    std::vector<std::string> environment = agentEnv();
    environment.push_back("KELP_STOP_TIMEOUT=2");
    return Process({"/usr/bin/prlimit", "--as=" + std::to_string(mebibytes * 1048576L), "--",
                    kelpagentPath(), "--allow-root", "--state-dir", dir / "state", "--listen",
                    "udp:127.0.0.1:" + std::to_string(port), "--module", modulePath(), "--model",
                    sourcePath("data/models/sample.xml")},
                   environment, dir / "agent.out", dir / "agent.err");
}

// kelpagent on the sample model under `mebibytes` of address space: what
// it did within 20 s, then stopped with SIGTERM if it still runs.
Outcome underLimit(int mebibytes)
{
    TempDir dir;
    const int port = freeUdpPort();
    Process agent = startUnderLimit(dir, mebibytes, port);
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

// Skips where no limit of address space can be set on kelpagent.
class AgentAddressLimit : public ::testing::Test {
  protected:
    void SetUp() override
    {
        if (kSanitized) {
            GTEST_SKIP()
                << "a sanitizer's shadow memory does not fit under a limit of address space";
        }
        if (access("/usr/bin/prlimit", X_OK) != 0) {
            GTEST_SKIP() << "no /usr/bin/prlimit (util-linux)";
        }
    }
};

TEST_F(AgentAddressLimit, UnderEveryLimitTheAgentServesOrEndsWithItsReason)
{
    int served = 0;
    int ended = 0;
    // Fine steps where the start runs short, coarser ones up to what a
    // machine with larger thread stacks or libraries needs to serve.
    for (int mebibytes = 24; mebibytes <= 512; mebibytes += mebibytes < 48    ? 2
                                                            : mebibytes < 128 ? 8
                                                                              : 32) {
        const Outcome outcome = underLimit(mebibytes);
        ASSERT_TRUE(outcome.status) << mebibytes << " MiB: did not stop\n" << outcome.err;
        // Too little for the dynamic loader to map the libraries, to
        // relocate them (it then prints "out of memory" alone, with no
        // program name) or to give the first thread its thread-local
        // storage: not the agent's code yet. Which of these a limit meets
        // depends on where the kernel places the mappings.
        if (*outcome.status == 127 &&
            (outcome.err.find("error while loading shared libraries") != std::string::npos ||
             outcome.err.starts_with("out of memory\n") ||
             outcome.err.starts_with("cannot allocate TLS data structures for initial thread"))) {
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
            // The port is free: a transport that did not open for want of
            // memory is not blamed on it.
            EXPECT_EQ(outcome.err.find("the port is in use"), std::string::npos)
                << mebibytes << " MiB\n"
                << outcome.err;
            ended++;
        }
    }
    EXPECT_GT(served, 0) << "no limit up to 512 MiB let the agent serve";
    RecordProperty("served", served);
    RecordProperty("ended", ended);
}

struct Mapping {
    uint64_t start = 0;
    uint64_t end = 0;
};

// The process's mappings, from /proc/PID/maps.
std::vector<Mapping> mappingsOf(pid_t pid)
{
    std::vector<Mapping> mappings;
    std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
    std::string line;
    while (std::getline(maps, line)) {
        Mapping m;
        if (std::sscanf(line.c_str(), "%lx-%lx", &m.start, &m.end) == 2) {
            mappings.push_back(m);
        }
    }
    return mappings;
}

// The stack pointers of the process's threads other than its first, from
// /proc/PID/task/TID/syscall (its next-to-last field); empty when they
// cannot be read.
std::vector<uint64_t> threadStackPointers(pid_t pid)
{
    std::vector<uint64_t> pointers;
    const std::filesystem::path tasks = "/proc/" + std::to_string(pid) + "/task";
    std::error_code error;
    for (const auto &task : std::filesystem::directory_iterator(tasks, error)) {
        if (task.path().filename() == std::to_string(pid)) {
            continue;
        }
        std::ifstream syscall(task.path() / "syscall");
        std::string text;
        std::getline(syscall, text);
        std::istringstream fields(text);
        std::vector<std::string> words;
        for (std::string word; fields >> word;) {
            words.push_back(word);
        }
        if (words.size() < 3) {
            continue; // "running", or not readable
        }
        pointers.push_back(std::stoull(words[words.size() - 2], nullptr, 16));
    }
    return pointers;
}

TEST_F(AgentAddressLimit, UnderALimitTheThreadsTakeStacksOfOneMebibyte)
{
    TempDir dir;
    Process agent = startUnderLimit(dir, 256, freeUdpPort());
    ASSERT_TRUE(waitFor(
        [&] { return agent.err().find("kelpagent: answering on") != std::string::npos; }, 20s))
        << agent.err();
    EXPECT_NE(agent.err().find("share one heap and take stacks of 1 MiB"), std::string::npos)
        << agent.err();
    const std::vector<uint64_t> pointers = threadStackPointers(agent.pid());
    if (pointers.empty()) {
        agent.signal(SIGTERM);
        agent.wait(15s);
        GTEST_SKIP() << "the threads' stack pointers cannot be read here";
    }
    // The request reader and worker, the control server and its worker, the
    // plug-in's threads.
    EXPECT_GE(pointers.size(), 5u);
    const std::vector<Mapping> mappings = mappingsOf(agent.pid());
    // A stack of 1 MiB and the guard page glibc adds below it.
    const uint64_t largest = (uint64_t{1} << 20) + uint64_t(sysconf(_SC_PAGESIZE));
    size_t small = 0;
    for (uint64_t sp : pointers) {
        for (const Mapping &m : mappings) {
            // One the kernel did not merge with a mapping above it.
            if (m.start <= sp && sp < m.end && m.end - m.start <= largest) {
                small++;
            }
        }
    }
    // One stack may share its mapping with a neighbour's.
    EXPECT_GE(small + 1, pointers.size()) << small << " of " << pointers.size();
    agent.signal(SIGTERM);
    EXPECT_EQ(agent.wait(15s), 0) << agent.err();
}

} // namespace
} // namespace kelp::test
