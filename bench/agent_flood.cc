// The latency of a polite manager (one Get at a time, every 5 ms, from
// 127.0.0.1) of a running kelpagent, first alone and then while a second
// source (127.0.0.2) floods the agent with GETBULK requests for the whole
// tree, sent as fast as one thread can and never read.
//
//   agent_flood PORT [COMMUNITY [GETS]]
//
// bench/agent_flood.sh starts the agent and runs this. One line per phase:
// the Gets asked and answered (each waits 1 s for its answer and is sent
// again once), the median, 99th percentile and worst latency of the
// answered ones, and the flooder's requests per second.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "snmpload.h"
#include "testkit.h"

namespace {

using namespace std::chrono_literals;
using kelp::test::Flooder;
using kelp::test::PoliteRun;

void print(const char *phase, const PoliteRun &run, double floodRate)
{
    std::printf("%-12s gets %4d answered %4d retries %3d median %8.3f ms p99 %8.3f ms max %8.3f "
                "ms flood %9.0f req/s\n",
                phase, run.requests, run.answered, run.retries, run.median(), run.p99(), run.max(),
                floodRate);
    std::fflush(stdout);
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: agent_flood PORT [COMMUNITY [GETS]]\n");
        return 2;
    }
    const int port = std::atoi(argv[1]);
    const std::string community = argc > 2 ? argv[2] : "public";
    const int gets = argc > 3 ? std::atoi(argv[3]) : 400;
    const std::string name = std::string(kelp::test::kRoot) + ".3.0";

    print("alone", kelp::test::politeGets("127.0.0.1", port, community, name, gets, 5ms, 1s, 1), 0);

    Flooder flooder("127.0.0.2", port, community);
    if (!flooder.ok()) {
        std::fprintf(stderr, "agent_flood: cannot send from 127.0.0.2\n");
        return 1;
    }
    // The agent's socket is full before the first Get.
    std::this_thread::sleep_for(200ms);
    const auto start = std::chrono::steady_clock::now();
    const uint64_t before = flooder.sent();
    const PoliteRun flooded =
        kelp::test::politeGets("127.0.0.1", port, community, name, gets, 5ms, 1s, 1);
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    flooder.stop();
    print("flooded", flooded, double(flooder.sent() - before) / seconds);
    return 0;
}
