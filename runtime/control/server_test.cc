// The control socket as a client meets it: the socket file (mode, stale and
// foreign files), lines that are half-written, too long or late or followed
// by more, clients that stay idle or never read their answer while others
// are served, loads that delay no other client, the connection limit,
// prompt stopping, and the start from KELP_CONTROL when the runtime loads.
#include "control/server.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "control/control_testing.h"
#include "control/words.h"
#include "datastore/large_models_testing.h"
#include "datastore/model_store.h"
#include "kelp/runtime.h"
#include "support/fifo_testing.h"
#include "support/unique_fd.h"

namespace {

using namespace kelp::ctl::testing;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

class ControlServerTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        std::string error;
        ASSERT_TRUE(kelp::ds::loadModelText(kModel, "test-model", &error)) << error;
    }
    void TearDown() override
    {
        kelpRuntimeStopControl();
        kelp::ds::unloadModel();
    }
    // Starts the runtime's control socket at path; the error text otherwise.
    static std::string start(const std::string &path)
    {
        char message[256] = "unchanged";
        if (kelpRuntimeStartControl(path.c_str(), message, sizeof message) == 0)
            return "";
        return message;
    }

    TempDir dir_;
    std::string socket_ = dir_.file("control.sock");
};

TEST_F(ControlServerTest, SocketFileHasMode0600WhateverTheUmask)
{
    mode_t old = umask(0);
    std::string error = start(socket_);
    umask(old);
    ASSERT_EQ(error, "");
    struct stat st {};
    ASSERT_EQ(lstat(socket_.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0600u);
}

// What a client running as `uid` gets for "status": 0 when the server
// closes without an answer, 1 when it answers, 2 when the client cannot
// connect at all. The client is a forked child that becomes `uid`.
int askAsUser(const std::string &path, uid_t uid)
{
    const pid_t child = fork();
    if (child == 0) {
        // Only async-signal-safe calls from here: the parent has threads.
        if (setgroups(0, nullptr) != 0 || setgid(uid) != 0 || setuid(uid) != 0)
            _exit(3);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) != 0)
            _exit(2);
        // The server may close before the line is sent: no SIGPIPE then.
        const char line[] = "status\n";
        [[maybe_unused]] const ssize_t sent = send(fd, line, sizeof line - 1, MSG_NOSIGNAL);
        char answer[64];
        _exit(read(fd, answer, sizeof answer) > 0 ? 1 : 0);
    }
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status))
        return -1;
    return WEXITSTATUS(status);
}

TEST_F(ControlServerTest, APeerOfAnotherUserIsRefusedEvenWhenTheFileLetsItIn)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to run a client as another user";
    const passwd *nobody = getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    ASSERT_EQ(start(socket_), "");
    // Someone loosened the modes: the file no longer keeps other users out.
    ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(socket_.c_str(), 0666), 0);
    EXPECT_EQ(askAsUser(socket_, nobody->pw_uid), 0);
    // Root and this process's own user are served.
    EXPECT_EQ(askAsUser(socket_, 0), 1);
    EXPECT_TRUE(ask(socket_, "status").ends_with("\nok\n"));
}

TEST_F(ControlServerTest, AnotherUserCannotEvenConnectThroughTheFileMode)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to run a client as another user";
    const passwd *nobody = getpwnam("nobody");
    ASSERT_NE(nobody, nullptr);
    ASSERT_EQ(start(socket_), "");
    ASSERT_EQ(chmod(dir_.path().c_str(), 0755), 0);
    EXPECT_EQ(askAsUser(socket_, nobody->pw_uid), 2);
}

TEST_F(ControlServerTest, StopIsPromptAndRemovesTheSocketFile)
{
    ASSERT_EQ(start(socket_), "");
    // A silent client holds the server in its read; stop must not wait for it.
    int silent = connectTo(socket_);
    std::this_thread::sleep_for(50ms);
    auto begin = Clock::now();
    kelpRuntimeStopControl();
    EXPECT_LT(Clock::now() - begin, 2s);
    EXPECT_NE(access(socket_.c_str(), F_OK), 0);
    close(silent);
    kelpRuntimeStopControl(); // stopping twice is harmless
}

TEST_F(ControlServerTest, StaleSocketFileIsReplaced)
{
    {
        std::string error;
        auto old = kelp::ctl::ControlServer::start(socket_, 1s, &error);
        ASSERT_NE(old, nullptr) << error;
        // Leave the file behind as a crashed server would.
        ASSERT_EQ(rename(socket_.c_str(), dir_.file("moved").c_str()), 0);
    }
    ASSERT_EQ(rename(dir_.file("moved").c_str(), socket_.c_str()), 0);
    ASSERT_EQ(start(socket_), "");
    EXPECT_TRUE(ask(socket_, "status").ends_with("\nok\n"));
}

TEST_F(ControlServerTest, PathThatIsNotASocketIsAnErrorAndStaysAsItIs)
{
    dir_.write("control.sock", "precious");
    std::string error = start(socket_);
    EXPECT_NE(error.find("is not a socket"), std::string::npos) << error;
    std::ifstream in(socket_);
    std::string text;
    in >> text;
    EXPECT_EQ(text, "precious");
}

TEST_F(ControlServerTest, SocketSomeoneStillServesIsNotTakenOver)
{
    std::string error;
    auto other = kelp::ctl::ControlServer::start(socket_, 1s, &error);
    ASSERT_NE(other, nullptr) << error;
    error = start(socket_);
    EXPECT_NE(error.find("another server is listening on " + socket_), std::string::npos) << error;
    EXPECT_TRUE(ask(socket_, "status").ends_with("\nok\n"));
}

TEST_F(ControlServerTest, UnusablePathsAreErrors)
{
    EXPECT_NE(start("").find("empty"), std::string::npos);
    EXPECT_NE(start(dir_.file(std::string(120, 'x'))).find("more than a socket address holds"),
              std::string::npos);
    EXPECT_NE(start(dir_.file("no-such-dir/control.sock")).find("No such file"), std::string::npos);
    char message[64];
    EXPECT_NE(kelpRuntimeStartControl(nullptr, message, sizeof message), 0);
    EXPECT_NE(kelpRuntimeStartControl("", nullptr, 0), 0);
    // An error is cut to the buffer, NUL included.
    char tiny[8];
    EXPECT_NE(kelpRuntimeStartControl("", tiny, sizeof tiny), 0);
    EXPECT_EQ(std::string(tiny), "the con");
}

TEST_F(ControlServerTest, StartingAgainMovesTheSocket)
{
    ASSERT_EQ(start(socket_), "");
    ASSERT_EQ(start(dir_.file("second.sock")), "");
    EXPECT_NE(access(socket_.c_str(), F_OK), 0);
    EXPECT_TRUE(ask(dir_.file("second.sock"), "status").ends_with("\nok\n"));
    ASSERT_EQ(start(dir_.file("second.sock")), ""); // the same path again
    EXPECT_TRUE(ask(dir_.file("second.sock"), "status").ends_with("\nok\n"));
}

TEST_F(ControlServerTest, HalfWrittenLineIsAnErrorAndRunsNothing)
{
    ASSERT_EQ(start(socket_), "");
    EXPECT_EQ(sendAndRead(socket_, "ready off"),
              "error: command line not ended by a newline when the client stopped sending\n");
    EXPECT_EQ(sendAndRead(socket_, ""),
              "error: no command line: the client stopped sending before it sent one\n");
    EXPECT_NE(readyAnswer().find("<Code>0</Code>"), std::string::npos);
}

TEST_F(ControlServerTest, OverLongLineIsAnErrorAndTheLongestLineIsServed)
{
    ASSERT_EQ(start(socket_), "");
    std::string longest = "ready off" + std::string(kelp::ctl::kMaxLineBytes - 9, ' ');
    ASSERT_EQ(longest.size(), kelp::ctl::kMaxLineBytes);
    EXPECT_EQ(sendAndRead(socket_, longest + " \n"),
              "error: command line longer than 65536 bytes\n");
    // Far more than the limit, without a newline: refused without reading it all.
    EXPECT_EQ(sendAndRead(socket_, std::string(4 << 20, 'x')),
              "error: command line longer than 65536 bytes\n");
    EXPECT_NE(readyAnswer().find("<Code>0</Code>"), std::string::npos);
    EXPECT_EQ(sendAndRead(socket_, longest + "\n"), "ok\n");
    EXPECT_EQ(readyAnswer().find("<Code>0</Code>"), std::string::npos);
}

TEST_F(ControlServerTest, OnlyTheFirstLineRuns)
{
    ASSERT_EQ(start(socket_), "");
    std::string answer = sendAndRead(socket_, "ready on\nready off\n");
    EXPECT_EQ(answer, "ok\n");
    EXPECT_NE(readyAnswer().find("<Code>0</Code>"), std::string::npos);
}

TEST_F(ControlServerTest, MalformedLinesAreErrorsOnOneLine)
{
    ASSERT_EQ(start(socket_), "");
    for (const std::string &line :
         {std::string(""), std::string("\"open"), std::string("a\0b", 3), std::string("\"\\q\""),
          std::string("set 20 \"a\\nb\" 1"), std::string("\xff\xfe")}) {
        std::string answer = sendAndRead(socket_, line + "\n");
        EXPECT_TRUE(answer.starts_with("error: ")) << answer;
        EXPECT_EQ(answer.find('\n'), answer.size() - 1) << answer;
    }
}

TEST_F(ControlServerTest, LoadOfAFifoOrADeviceIsAnErrorAndTheNextClientIsServed)
{
    ASSERT_EQ(start(socket_), "");
    const std::string fifo = dir_.file("model.fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string &path : {fifo, std::string("/dev/zero")}) {
        std::string answer;
        EXPECT_TRUE(returnsPromptly(fifo, [&] { answer = ask(socket_, "load " + path); })) << path;
        EXPECT_EQ(answer, "error: " + path + ": not a regular file\n");
        EXPECT_TRUE(ask(socket_, "status").starts_with("model: test-model\n"));
    }
}

TEST_F(ControlServerTest, ClientThatStaysSilentTimesOut)
{
    std::string error;
    auto server = kelp::ctl::ControlServer::start(socket_, 200ms, &error);
    ASSERT_NE(server, nullptr) << error;
    auto begin = Clock::now();
    EXPECT_EQ(sendAndRead(socket_, "ready of", false),
              "error: no complete command line within 200 ms\n");
    EXPECT_LT(Clock::now() - begin, 10s);
    // The next client is served as usual.
    EXPECT_EQ(ask(socket_, "ready on"), "ok\n");
}

TEST_F(ControlServerTest, ClientsOneAfterAnotherAndAtOnceAreAllAnswered)
{
    ASSERT_EQ(start(socket_), "");
    std::vector<std::thread> clients;
    std::vector<std::string> answers(8);
    for (size_t i = 0; i < answers.size(); ++i)
        clients.emplace_back([&, i] { answers[i] = ask(socket_, "status"); });
    for (auto &t : clients)
        t.join();
    for (const auto &answer : answers)
        EXPECT_TRUE(answer.ends_with("\nok\n")) << answer;
}

TEST_F(ControlServerTest, IdleClientsDelayNoOtherClient)
{
    ASSERT_EQ(start(socket_), "");
    std::vector<kelp::rt::UniqueFd> idle;
    for (int i = 0; i < 20; ++i)
        idle.emplace_back(connectTo(socket_));
    EXPECT_TRUE(askWithin(socket_, "status", 2s).ends_with("\nok\n"));
}

// A client that sent "status" to a server serving a model whose origin is
// 8 MiB long, more than any socket buffer holds, and never reads the answer.
kelp::rt::UniqueFd stuckClient(const std::string &path)
{
    kelp::rt::UniqueFd fd(connectTo(path));
    EXPECT_EQ(send(fd.get(), "status\n", 7, MSG_NOSIGNAL), 7);
    // Once the answer has begun, the server is blocked on this client (or
    // not). Making an 8 MiB answer takes a while in a sanitizer build on a
    // busy machine: the bound is generous, as it only orders the steps.
    pollfd p{fd.get(), POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 20000), 1);
    return fd;
}

TEST_F(ControlServerTest, ClientThatNeverReadsALargeAnswerDelaysNoOtherClient)
{
    std::string error;
    ASSERT_TRUE(kelp::ds::loadModelText(kModel, std::string(8 << 20, 'o'), &error)) << error;
    ASSERT_EQ(start(socket_), "");
    kelp::rt::UniqueFd stuck = stuckClient(socket_);
    EXPECT_EQ(askWithin(socket_, "ready off", 2s), "ok\n");
}

TEST_F(ControlServerTest, StopIsPromptWithIdleClientsAndOneThatNeverReads)
{
    std::string error;
    ASSERT_TRUE(kelp::ds::loadModelText(kModel, std::string(8 << 20, 'o'), &error)) << error;
    ASSERT_EQ(start(socket_), "");
    std::vector<kelp::rt::UniqueFd> idle;
    for (int i = 0; i < 20; ++i)
        idle.emplace_back(connectTo(socket_));
    kelp::rt::UniqueFd stuck = stuckClient(socket_);
    auto begin = Clock::now();
    kelpRuntimeStopControl();
    EXPECT_LT(Clock::now() - begin, 2s);
    EXPECT_NE(access(socket_.c_str(), F_OK), 0);
}

TEST_F(ControlServerTest, ClientPastTheConnectionLimitIsServedOnceAConnectionEnds)
{
    ASSERT_EQ(start(socket_), "");
    std::vector<kelp::rt::UniqueFd> idle;
    for (size_t i = 0; i < kelp::ctl::kMaxConnections; ++i)
        idle.emplace_back(connectTo(socket_));
    kelp::rt::UniqueFd waiting(connectTo(socket_));
    ASSERT_EQ(send(waiting.get(), "status\n", 7, MSG_NOSIGNAL), 7);
    pollfd p{waiting.get(), POLLIN, 0};
    EXPECT_EQ(poll(&p, 1, 300), 0) << "no answer while the limit is reached";
    idle.front().reset();
    EXPECT_TRUE(readAll(waiting.get(), 2s).ends_with("\nok\n"));
}

// What the server sent on fd up to and including "ok\n" or an error line,
// without waiting for its end; "" when nothing came within the limit.
std::string readAnswerLines(int fd)
{
    std::string answer;
    const auto deadline = Clock::now() + 30s;
    char chunk[4096];
    while (Clock::now() < deadline && !answer.ends_with("ok\n") &&
           answer.find("error: ") == std::string::npos) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 100) <= 0)
            continue;
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n <= 0)
            break;
        answer.append(chunk, size_t(n));
    }
    return answer;
}

TEST_F(ControlServerTest, BytesSentAfterTheAnswerAreNoBrokenPipe)
{
    ASSERT_EQ(start(socket_), "");
    kelp::rt::UniqueFd fd(connectTo(socket_));
    ASSERT_EQ(send(fd.get(), "status\n", 7, MSG_NOSIGNAL), 7);
    EXPECT_TRUE(readAnswerLines(fd.get()).ends_with("\nok\n"));
    // Long after the server has written the answer.
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(send(fd.get(), "xyz\nmore\n", 9, MSG_NOSIGNAL), 9) << std::strerror(errno);
    shutdown(fd.get(), SHUT_WR);
    EXPECT_EQ(readAll(fd.get()), "") << "after the answer only its end";
}

TEST_F(ControlServerTest, AClientThatSendsMoreLinesBeforeReadingGetsItsAnswer)
{
    ASSERT_EQ(start(socket_), "");
    // More than the socket holds: the client is still sending long after the
    // server has read the first line and answered it.
    std::string bytes = "status\n";
    while (bytes.size() < (4u << 20))
        bytes += "ready off and more lines after the first\n";
    kelp::rt::UniqueFd fd(connectTo(socket_));
    size_t sent = 0;
    while (sent < bytes.size()) {
        ssize_t n = send(fd.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0)
            break;
        sent += size_t(n);
    }
    EXPECT_EQ(sent, bytes.size()) << std::strerror(errno);
    shutdown(fd.get(), SHUT_WR);
    const std::string answer = readAll(fd.get());
    EXPECT_TRUE(answer.starts_with("model: test-model\n")) << answer;
    EXPECT_TRUE(answer.ends_with("\nok\n")) << answer;
    EXPECT_NE(readyAnswer().find("<Code>0</Code>"), std::string::npos) << "only the first line ran";
}

// A model file of `disks` disks: large enough that loading it takes a while.
std::string writeLargeModel(const TempDir &dir, size_t disks)
{
    dir.write("large.xml", kelp::ds::testing::modelWithObjectsOfAttributes(disks, 3));
    return dir.file("large.xml");
}

// While one client loads a large model, other clients and the data-store
// queries are answered as usual. The bound is relative: a status held up
// by the load would wait for most of it.
TEST_F(ControlServerTest, ALoadDelaysNoOtherClientNorQuery)
{
    const std::string large = writeLargeModel(dir_, 50000);
    ASSERT_EQ(start(socket_), "");
    std::atomic<bool> loaded{false};
    std::string loadAnswer;
    const auto begin = Clock::now();
    std::thread loader([&] {
        loadAnswer = ask(socket_, "load " + kelp::ctl::quoteWord(large));
        loaded.store(true);
    });
    int during = 0;
    Clock::duration longest{};
    while (!loaded.load()) {
        const auto asked = Clock::now();
        const std::string status = ask(socket_, "status");
        const std::string object = singleObject(1);
        const auto waited = Clock::now() - asked;
        EXPECT_TRUE(status.ends_with("\nok\n")) << status;
        EXPECT_TRUE(object.starts_with("<ObjID>1</ObjID>")) << object;
        if (!loaded.load()) {
            ++during;
            longest = std::max(longest, waited);
        }
        std::this_thread::sleep_for(2ms); // leaves the load its share of a busy machine
    }
    loader.join();
    const auto loading = Clock::now() - begin;
    EXPECT_EQ(loadAnswer, "ok\n");
    EXPECT_TRUE(ask(socket_, "status").starts_with("model: " + large + "\n"));
    const auto ms = [](Clock::duration d) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(d).count();
    };
    std::printf("load: %lld ms; status and query answered meanwhile: %d, the longest in %lld ms\n",
                static_cast<long long>(ms(loading)), during, static_cast<long long>(ms(longest)));
    EXPECT_GE(during, 3);
    EXPECT_LT(longest, loading / 4);
}

// A change asked for after a load is made to the loaded model, as the
// lines arrived: the worker runs changes one at a time, in order.
TEST_F(ControlServerTest, ChangesAreMadeInTheOrderTheirLinesArrived)
{
    const std::string large = writeLargeModel(dir_, 10000);
    ASSERT_EQ(start(socket_), "");
    kelp::rt::UniqueFd loading(connectTo(socket_));
    const std::string line = "load " + kelp::ctl::quoteWord(large) + "\n";
    ASSERT_EQ(send(loading.get(), line.data(), line.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(line.size()));
    EXPECT_EQ(ask(socket_, "set 1 Name \"after the load\""), "ok\n");
    EXPECT_EQ(readAnswerLines(loading.get()), "ok\n");
    EXPECT_NE(singleObject(1).find("<Nexus>0\\1</Nexus><A0>v1.0</A0>"), std::string::npos)
        << singleObject(1);
    EXPECT_NE(singleObject(1).find("<Name>after the load</Name>"), std::string::npos)
        << singleObject(1);
}

// Stopping while a load runs lets it end and makes no change afterwards.
TEST_F(ControlServerTest, StopWhileALoadRunsLetsItEnd)
{
    const std::string large = writeLargeModel(dir_, 20000);
    ASSERT_EQ(start(socket_), "");
    kelp::rt::UniqueFd loading(connectTo(socket_));
    const std::string line = "load " + kelp::ctl::quoteWord(large) + "\n";
    ASSERT_EQ(send(loading.get(), line.data(), line.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(line.size()));
    std::this_thread::sleep_for(50ms);
    kelpRuntimeStopControl();
    const std::string origin = kelp::ds::modelStatus().origin;
    EXPECT_TRUE(origin == large || origin == "test-model") << origin;
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(kelp::ds::modelStatus().origin, origin) << "nothing runs after the stop";
    const std::string answer = readAll(loading.get());
    EXPECT_TRUE(answer.empty() || answer == "ok\n") << answer;
}

// Run in a child process by the test below: a runtime loaded with
// KELP_CONTROL set serves that socket with no call from its host.
TEST(ControlAutoStart, ChildServesKelpControl)
{
    const char *path = std::getenv("KELP_CONTROL");
    if (std::getenv("KELP_CONTROL_TEST_CHILD") == nullptr || path == nullptr)
        GTEST_SKIP() << "runs as the child of ControlAutoStart.KelpControlStartsAndStopsTheSocket";
    struct stat st {};
    ASSERT_EQ(lstat(path, &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_TRUE(ask(path, "status").ends_with("\nok\n"));
}

TEST(ControlAutoStart, KelpControlStartsAndStopsTheSocket)
{
    TempDir dir;
    const std::string path = dir.file("auto.sock");
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        setenv("KELP_CONTROL", path.c_str(), 1);
        setenv("KELP_CONTROL_TEST_CHILD", "1", 1);
        execl("/proc/self/exe", "control_test",
              "--gtest_filter=ControlAutoStart.ChildServesKelpControl",
              static_cast<char *>(nullptr));
        _exit(127);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    // The library's destructor removed the socket as the child exited.
    EXPECT_NE(access(path.c_str(), F_OK), 0);
}

} // namespace
