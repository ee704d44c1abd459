// The integration tests' shared helpers.
#include "testkit.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

extern char **environ;

namespace kelp::test {

TempDir::TempDir()
{
    char pattern[] = "/tmp/kelp-agent-XXXXXX";
    const char *made = mkdtemp(pattern);
    path_ = made != nullptr ? made : "/tmp";
}

TempDir::~TempDir()
{
    std::error_code ignored;
    if (path_ != "/tmp") {
        std::filesystem::remove_all(path_, ignored);
    }
}

namespace {

int freeLoopbackPort(int type)
{
    const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof addr;
    int port = 0;
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 &&
        getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &length) == 0) {
        port = ntohs(addr.sin_port);
    }
    if (fd >= 0) {
        close(fd);
    }
    return port;
}

} // namespace

size_t countOf(const std::string &text, const std::string &needle)
{
    size_t count = 0;
    for (size_t at = text.find(needle); at != std::string::npos;
         at = text.find(needle, at + needle.size())) {
        count++;
    }
    return count;
}

int freeUdpPort()
{
    return freeLoopbackPort(SOCK_DGRAM);
}

int freeTcpPort()
{
    return freeLoopbackPort(SOCK_STREAM);
}

std::string readFile(const std::string &path)
{
    std::ifstream in(path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeFile(const std::string &path, const std::string &text)
{
    std::ofstream(path) << text;
}

bool waitFor(const std::function<bool()> &done, std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(50ms);
    }
    return true;
}

Process::Process(const std::vector<std::string> &argv, const std::vector<std::string> &env,
                 const std::string &outFile, const std::string &errFile)
    : outFile_(outFile), errFile_(errFile)
{
    std::vector<std::string> environment;
    for (char **entry = environ; *entry != nullptr; entry++) {
        const std::string text = *entry;
        const std::string name = text.substr(0, text.find('=') + 1);
        bool replaced = false;
        for (const std::string &own : env) {
            replaced = replaced || own.starts_with(name);
        }
        if (!replaced) {
            environment.push_back(text);
        }
    }
    environment.insert(environment.end(), env.begin(), env.end());
    std::vector<char *> args, envp;
    for (const std::string &arg : argv) {
        args.push_back(const_cast<char *>(arg.c_str()));
    }
    args.push_back(nullptr);
    for (const std::string &entry : environment) {
        envp.push_back(const_cast<char *>(entry.c_str()));
    }
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    posix_spawn_file_actions_addopen(&actions, 2, errFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0600);
    if (posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), envp.data()) != 0) {
        pid_ = -1;
        status_ = 127;
    }
    posix_spawn_file_actions_destroy(&actions);
}

Process::~Process()
{
    if (running()) {
        kill(pid_, SIGKILL);
        wait(10s);
    }
}

bool Process::running()
{
    return !wait(0ms).has_value();
}

void Process::signal(int sig)
{
    if (running()) {
        kill(pid_, sig);
    }
}

std::optional<int> Process::wait(std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!status_) {
        int raw = 0;
        const pid_t done = waitpid(pid_, &raw, WNOHANG);
        if (done == pid_) {
            status_ = WIFEXITED(raw) ? WEXITSTATUS(raw) : 128 + WTERMSIG(raw);
        } else if (done < 0) {
            status_ = 127;
        } else if (std::chrono::steady_clock::now() >= end) {
            return std::nullopt;
        } else {
            std::this_thread::sleep_for(10ms);
        }
    }
    return status_;
}

RunResult run(const std::vector<std::string> &argv, const std::vector<std::string> &env,
              const TempDir &dir, std::chrono::milliseconds limit)
{
    // Atomic: tests run commands from several threads at once, and two runs
    // given one number would write the same output files.
    static std::atomic<int> counter{0};
    const std::string base = dir / ("run" + std::to_string(counter.fetch_add(1)));
    Process process(argv, env, base + ".out", base + ".err");
    RunResult result;
    const std::optional<int> status = process.wait(limit);
    if (!status) {
        process.signal(SIGKILL);
        process.wait(10s);
    }
    result.status = status.value_or(-1);
    result.out = process.out();
    result.err = process.err();
    return result;
}

std::vector<std::string> snmpEnv(const TempDir &dir)
{
    const std::string conf = dir / "snmpconf";
    std::filesystem::create_directories(conf);
    writeFile(conf + "/snmp.conf", "mibs :\n");
    return {"SNMPCONFPATH=" + conf, "SNMP_PERSISTENT_DIR=" + (dir / "snmppersist"), "MIBS="};
}

std::vector<std::string> agentEnv()
{
    // Leak checking stays on for the agents the tests start: the agent and
    // the plug-in release everything by the time the process exits.
    return {"LSAN_OPTIONS=detect_leaks=1"};
}

std::string kelpagentPath()
{
    return KELPAGENT_PATH;
}

std::string kelpctlPath()
{
    return KELPCTL_PATH;
}

std::string modulePath()
{
    // Another build of the plug-in can be put under test without rebuilding.
    const char *other = std::getenv("KELP_TEST_MODULE");
    return other != nullptr && other[0] != '\0' ? other : KELP_MODULE_PATH;
}

std::string sourcePath(const std::string &relative)
{
    return std::string(KELP_SOURCE_DIR) + "/" + relative;
}

RunResult snmp(const TempDir &dir, const std::string &tool, const std::string &version,
               const std::string &community, int port, const std::vector<std::string> &args)
{
    return snmpAt(dir, tool, version, community, "127.0.0.1:" + std::to_string(port), args);
}

RunResult snmpAt(const TempDir &dir, const std::string &tool, const std::string &version,
                 const std::string &community, const std::string &target,
                 const std::vector<std::string> &args)
{
    std::vector<std::string> argv{tool,  "-v", version, "-c", community, "-On",
                                  "-Oe", "-t", "2",     "-r", "1",       target};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv, snmpEnv(dir), dir, 30s);
}

bool haveIpv6Loopback()
{
    const int fd = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    sockaddr_in6 addr{};
    addr.sin6_family = AF_INET6;
    addr.sin6_addr = in6addr_loopback;
    const bool bound = bind(fd, reinterpret_cast<const sockaddr *>(&addr), sizeof addr) == 0;
    close(fd);
    return bound;
}

AgentUnderTest::~AgentUnderTest()
{
    if (process_ && process_->running()) {
        stop();
    }
    // The agent's log names the cause of a failure its answers only show
    // (a genErr, a timeout), and the temporary dir that holds it goes
    // next: print its end with the failed test.
    if (process_ && ::testing::Test::HasFailure()) {
        constexpr size_t kLogTail = 8192;
        const std::string log = process_->err();
        std::cerr << "kelpagent's log" << (log.size() > kLogTail ? " (its last 8 KiB)" : "")
                  << ":\n"
                  << (log.size() > kLogTail ? log.substr(log.size() - kLogTail) : log) << "\n";
    }
}

bool AgentUnderTest::start(const std::string &model, const std::vector<std::string> &extra,
                           std::string *why, const std::vector<std::string> &env)
{
    std::vector<std::string> args;
    if (!model.empty()) {
        args.push_back("--model");
        args.push_back(model);
    }
    args.insert(args.end(), extra.begin(), extra.end());
    return startWith(args, why, env);
}

bool AgentUnderTest::startWith(const std::vector<std::string> &args, std::string *why,
                               const std::vector<std::string> &env)
{
    // A free port can be taken by another test between the look-up and the
    // agent's bind: then try another one.
    for (int attempt = 0; attempt < 3; attempt++) {
        port_ = freeUdpPort();
        std::vector<std::string> argv{kelpagentPath(), "--allow-root", "--state-dir", stateDir(),
                                      "--listen",      listen(port_),  "--module",    modulePath()};
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<std::string> environment = agentEnv();
        environment.insert(environment.end(), env.begin(), env.end());
        process_ =
            std::make_unique<Process>(argv, environment, dir_ / "agent.out", dir_ / "agent.err");
        const bool up = waitFor(
            [&] {
                return !process_->running() ||
                       process_->err().find("kelpagent: answering on") != std::string::npos;
            },
            20s);
        if (up && process_->running()) {
            break;
        }
        if (process_->err().find("cannot listen on") == std::string::npos || attempt == 2) {
            *why = "kelpagent did not come up:\n" + process_->err();
            return false;
        }
    }
    // Until the plug-in has built its tables every Get answers genErr.
    const bool built = waitFor(
        [&] {
            const RunResult get =
                snmp("snmpget", {std::string(kRoot) + ".3.0"}, "2c", startCommunity);
            return get.err.find("genError") == std::string::npos &&
                   get.err.find("Timeout") == std::string::npos;
        },
        20s);
    if (!built) {
        *why = "kelpagent answers nothing but genErr or times out:\n" + process_->err();
        return false;
    }
    return true;
}

int AgentUnderTest::stop(int sig)
{
    process_->signal(sig);
    return process_->wait(15s).value_or(-1);
}

RunResult AgentUnderTest::snmp(const std::string &tool, const std::vector<std::string> &args,
                               const std::string &version, const std::string &community)
{
    // The first address the agent listens on.
    const std::string addresses = listen(port_);
    return snmpAt(dir_, tool, version, community, addresses.substr(0, addresses.find(',')), args);
}

TrapReceiver::TrapReceiver(const TempDir &dir) : dir_(dir), port_(freeUdpPort())
{
    writeFile(dir / "snmptrapd.conf", "disableAuthorization yes\n");
    process_ = std::make_unique<Process>(
        std::vector<std::string>{"snmptrapd", "-f", "-Lf", dir / "traps.log", "-On", "-C", "-c",
                                 dir / "snmptrapd.conf", "-F", "v=%s gen=%w specific=%q vbs=%v\n",
                                 "udp:127.0.0.1:" + std::to_string(port_)},
        snmpEnv(dir), dir / "trapd.out", dir / "trapd.err");
    ready_ = waitFor([&] { return log().find("NET-SNMP version") != std::string::npos; },
                     std::chrono::seconds(20));
}

TrapReceiver::~TrapReceiver()
{
    process_->signal(SIGTERM);
    process_->wait(std::chrono::seconds(15));
}

std::string TrapReceiver::log() const
{
    return readFile(dir_ / "traps.log");
}

RunResult AgentUnderTest::kelpctl(const std::vector<std::string> &words)
{
    std::vector<std::string> argv{kelpctlPath(), "--control", stateDir() + "/control.sock"};
    argv.insert(argv.end(), words.begin(), words.end());
    return run(argv, {}, dir_, std::chrono::seconds(30));
}

std::string AgentUnderTest::control(const std::vector<std::string> &words) const
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return {};
    }
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::string path = stateDir() + "/control.sock";
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    std::string answer;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
        std::string line;
        for (const std::string &word : words) {
            line += line.empty() ? "\"" : " \"";
            for (char c : word) {
                if (c == '"' || c == '\\') {
                    line += '\\';
                }
                line += c == '\n' ? std::string("\\n") : std::string(1, c);
            }
            line += "\"";
        }
        line += "\n";
        if (write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size())) {
            char buffer[4096];
            pollfd entry{fd, POLLIN, 0};
            while (poll(&entry, 1, 10000) > 0) {
                const ssize_t n = read(fd, buffer, sizeof buffer);
                if (n <= 0) {
                    break;
                }
                answer.append(buffer, static_cast<size_t>(n));
            }
        }
    }
    close(fd);
    return answer;
}

bool AgentUnderTest::moduleAnswersValues()
{
    return snmp("snmpget", {std::string(kRoot) + ".3.0"}).out.find("\"Vorn Inc.\"") !=
           std::string::npos;
}

bool genErrsWereTheLocks(const std::string &log)
{
    return log.find("the plug-in failed to answer") == std::string::npos;
}

std::string journalStream(const AgentUnderTest &agent)
{
    const std::string err = agent.dir() / "agent.err";
    writeFile(err, "");
    struct stat st {};
    if (stat(err.c_str(), &st) != 0)
        return "JOURNAL_STREAM=";
    return "JOURNAL_STREAM=" + std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
}

} // namespace kelp::test
