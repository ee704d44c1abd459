// One control connection driven by hand over a socket pair: a line that
// arrives in pieces, bytes after it, the deadlines (sending the line, taking
// the answer, closing after it), a change run on the command worker, and a
// client that goes away.
#include "control/connection.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>

#include "control/command_worker.h"
#include "control/control_testing.h"
#include "control/words.h"
#include "datastore/identities.h"
#include "datastore/model_store.h"

namespace {

using namespace std::chrono_literals;
using kelp::ctl::Connection;

class ConnectionTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        int ends[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        server_ = ends[0];
        client_ = kelp::rt::UniqueFd(ends[1]);
        std::string error;
        ASSERT_TRUE(kelp::ds::loadModelText(kelp::ctl::testing::kModel, "test-model", &error))
            << error;
    }
    void TearDown() override { kelp::ds::unloadModel(); }

    Connection open(kelp::ctl::CommandWorker *worker = nullptr)
    {
        return Connection(kelp::rt::UniqueFd(server_), 5s, start_, worker);
    }
    void send(const std::string &bytes) const
    {
        ASSERT_EQ(::send(client_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(bytes.size()));
    }
    // What the server has written so far.
    std::string received() const
    {
        std::string text;
        char chunk[4096];
        ssize_t n = 0;
        while ((n = read(client_.get(), chunk, sizeof chunk)) > 0)
            text.append(chunk, size_t(n));
        return text;
    }

    int server_ = -1;
    kelp::rt::UniqueFd client_;
    const Connection::Clock::time_point start_ = Connection::Clock::now();
};

TEST_F(ConnectionTest, LineInPiecesRunsOnceWholeAndIsAnswered)
{
    Connection c = open();
    EXPECT_EQ(c.events(), POLLIN);
    send("ready ");
    EXPECT_TRUE(c.advance(POLLIN, start_));
    EXPECT_EQ(received(), "");
    EXPECT_NE(kelp::ctl::testing::readyAnswer().find("<Code>0</Code>"), std::string::npos);
    send("off\nready on\n");
    EXPECT_TRUE(c.advance(POLLIN, start_)) << "answered whole; reads on until the client closes";
    EXPECT_EQ(received(), "ok\n");
    EXPECT_EQ(kelp::ctl::testing::readyAnswer().find("<Code>0</Code>"), std::string::npos)
        << "only the first line ran";
    shutdown(client_.get(), SHUT_WR);
    EXPECT_FALSE(c.advance(POLLIN, start_)) << "the client has said all it will";
}

// Bytes after the line, there at once or sent later, are read and dropped:
// the client gets its answer and then its end, and may send on meanwhile.
TEST_F(ConnectionTest, BytesAfterTheLineAreDroppedUntilTheClientCloses)
{
    Connection c = open();
    send("status\nxyz");
    EXPECT_TRUE(c.advance(POLLIN, start_));
    EXPECT_EQ(c.events(), POLLIN);
    const std::string answer = received();
    EXPECT_TRUE(answer.starts_with("model: test-model\n")) << answer;
    EXPECT_TRUE(answer.ends_with("\nok\n")) << answer;
    char byte = 0;
    EXPECT_EQ(read(client_.get(), &byte, 1), 0) << "the answer is followed by its end";
    send("more\nlines\n");
    EXPECT_TRUE(c.advance(POLLIN, start_));
    EXPECT_EQ(c.deadline(), Connection::Clock::time_point(start_ + 5s))
        << "5 s from the end of the answer (written at start_ here)";
    client_.reset();
    EXPECT_FALSE(c.advance(POLLIN | POLLHUP, start_));
}

TEST_F(ConnectionTest, ClientThatNeverClosesAfterItsAnswerIsLetGoAtItsDeadline)
{
    Connection c = open();
    send("status\n");
    EXPECT_TRUE(c.advance(POLLIN, start_));
    EXPECT_TRUE(received().ends_with("\nok\n"));
    EXPECT_TRUE(c.advance(0, c.deadline() - 1ms));
    EXPECT_FALSE(c.advance(0, c.deadline()));
}

TEST_F(ConnectionTest, SilentClientIsAnsweredAtItsDeadline)
{
    Connection c = open();
    send("ready of");
    EXPECT_TRUE(c.advance(POLLIN, start_));
    EXPECT_EQ(c.deadline(), start_ + 5s);
    EXPECT_TRUE(c.advance(0, start_ + 4999ms));
    EXPECT_EQ(received(), "");
    EXPECT_FALSE(c.advance(0, start_ + 5s));
    EXPECT_EQ(received(), "error: no complete command line within 5 s\n");
}

TEST_F(ConnectionTest, ClientThatNeverTakesItsAnswerIsGivenUpAtItsDeadline)
{
    // A control byte is echoed as four ("\x01"), so this answer is four times
    // the longest line: more than the socket holds.
    int small = 4096;
    ASSERT_EQ(setsockopt(server_, SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    Connection c = open();
    const std::string bytes = std::string(kelp::ctl::kMaxLineBytes, '\x01') + "\n";
    size_t sent = 0;
    for (int round = 0; round < 10000 && c.events() == POLLIN; ++round) {
        if (sent < bytes.size()) {
            ssize_t n = ::send(client_.get(), bytes.data() + sent, bytes.size() - sent, 0);
            sent += n > 0 ? size_t(n) : 0;
        }
        ASSERT_TRUE(c.advance(POLLIN, start_));
    }
    EXPECT_EQ(c.events(), POLLOUT);
    const auto deadline = c.deadline();
    EXPECT_GE(deadline, start_ + 5s);
    EXPECT_TRUE(c.advance(POLLOUT, deadline - 1ms)) << "still waiting for the client";
    EXPECT_FALSE(c.advance(POLLOUT, deadline));
}

// Waits until the worker has finished a command (it writes the eventfd).
bool workerDone(int doneFd)
{
    pollfd p{doneFd, POLLIN, 0};
    if (poll(&p, 1, 30000) != 1)
        return false;
    uint64_t count = 0;
    return read(doneFd, &count, sizeof count) == sizeof count;
}

TEST_F(ConnectionTest, AChangeRunsOnTheWorkerAndIsAnsweredOnceDone)
{
    kelp::rt::UniqueFd done(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    kelp::ctl::CommandWorker worker(done.get());
    Connection c = open(&worker);
    {
        // A set Nexus swaps its model in under this lock: held here, the
        // command cannot end before the connection has been looked at.
        std::lock_guard identities(kelp::ds::identityMutex());
        send("set 20 Nexus n20\n");
        EXPECT_TRUE(c.advance(POLLIN, start_));
        EXPECT_EQ(c.events(), 0) << "nothing to poll for while the command runs";
        EXPECT_EQ(c.deadline(), Connection::Clock::time_point::max());
        EXPECT_TRUE(c.advance(0, start_ + 1h)) << "no deadline while it runs";
        EXPECT_EQ(received(), "");
    }
    ASSERT_TRUE(workerDone(done.get()));
    EXPECT_NE(kelp::ctl::testing::singleObject(20).find("<Nexus>n20</Nexus>"), std::string::npos);
    EXPECT_TRUE(c.advance(0, start_));
    EXPECT_EQ(received(), "ok\n");
}

TEST_F(ConnectionTest, WhatChangesNothingIsAnsweredAtOnceBesideAWorker)
{
    kelp::rt::UniqueFd done(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    kelp::ctl::CommandWorker worker(done.get());
    Connection c = open(&worker);
    send("status\n");
    EXPECT_TRUE(c.advance(POLLIN, start_));
    EXPECT_TRUE(received().ends_with("\nok\n"));
}

TEST_F(ConnectionTest, ClientGoneWhileItsChangeRunsIsDroppedAndTheChangeIsMade)
{
    kelp::rt::UniqueFd done(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    kelp::ctl::CommandWorker worker(done.get());
    Connection c = open(&worker);
    send("ready off\n");
    EXPECT_TRUE(c.advance(POLLIN, start_));
    client_.reset();
    EXPECT_FALSE(c.advance(POLLHUP, start_));
    ASSERT_TRUE(workerDone(done.get()));
    EXPECT_EQ(kelp::ctl::testing::readyAnswer().find("<Code>0</Code>"), std::string::npos);
}

TEST_F(ConnectionTest, ClientGoneBeforeItsLineIsDropped)
{
    Connection c = open();
    client_.reset();
    EXPECT_FALSE(c.advance(POLLIN | POLLHUP, start_));
}

} // namespace

namespace {

// A stop lets the change that runs end, and answers those waiting, and any
// submitted after it, that the host stops.
TEST_F(ConnectionTest, AStopEndsTheRunningChangeAndRefusesTheWaitingOnes)
{
    kelp::rt::UniqueFd done(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    kelp::ctl::CommandWorker worker(done.get());
    const auto submit = [&worker](const std::string &line) {
        kelp::ctl::Request request;
        std::string error;
        EXPECT_TRUE(kelp::ctl::prepareLine(line, &request, &error)) << error;
        return worker.submit(std::move(request));
    };
    std::vector<std::shared_ptr<const kelp::ctl::PendingAnswer>> answers;
    std::atomic<bool> stopping{false};
    std::thread stopper;
    {
        // The first change waits for this lock, and the others behind it.
        std::lock_guard identities(kelp::ds::identityMutex());
        for (int i = 0; i < 3; i++)
            answers.push_back(submit("set 20 Nexus s" + std::to_string(i)));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        stopper = std::thread([&] {
            stopping = true;
            worker.stop();
        });
        while (!stopping)
            std::this_thread::yield();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    stopper.join();
    const std::string refused = "error: the agent is stopping: the command did not run\n";
    for (size_t i = 0; i < answers.size(); i++) {
        ASSERT_NE(answers[i], nullptr);
        ASSERT_TRUE(answers[i]->done()) << i;
        ASSERT_TRUE(answers[i]->text().has_value()) << i;
        EXPECT_EQ(*answers[i]->text(), i == 0 ? "ok\n" : refused) << i;
    }
    EXPECT_NE(kelp::ctl::testing::singleObject(20).find("<Nexus>s0</Nexus>"), std::string::npos);
    const auto late = submit("ready off");
    ASSERT_NE(late, nullptr);
    ASSERT_TRUE(late->done());
    EXPECT_EQ(late->text().value_or(""), refused);
}

// A command stays queued when its client leaves, so clients that send a
// change and hang up could queue work and memory without end: past
// kMaxWaiting waiting changes, the next is refused at once.
TEST_F(ConnectionTest, AChangeBeyondTheWaitingOnesIsRefusedAsBusy)
{
    kelp::rt::UniqueFd done(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    kelp::ctl::CommandWorker worker(done.get());
    std::vector<std::shared_ptr<const kelp::ctl::PendingAnswer>> queued;
    {
        // The first change waits for this lock, and the others behind it.
        std::lock_guard identities(kelp::ds::identityMutex());
        // The one running is not counted: changes are refused until the
        // worker has taken the first, which then waits for the lock, and
        // kMaxWaiting wait behind it.
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (queued.size() <= kelp::ctl::CommandWorker::kMaxWaiting &&
               std::chrono::steady_clock::now() < end) {
            kelp::ctl::Request request;
            std::string error;
            ASSERT_TRUE(kelp::ctl::prepareLine("set 20 Nexus n" + std::to_string(queued.size()),
                                               &request, &error))
                << error;
            auto answer = worker.submit(std::move(request));
            if (answer == nullptr)
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            else
                queued.push_back(std::move(answer));
        }
        ASSERT_EQ(queued.size(), kelp::ctl::CommandWorker::kMaxWaiting + 1);

        Connection c = open(&worker);
        send("ready off\n");
        EXPECT_TRUE(c.advance(POLLIN, start_));
        EXPECT_EQ(received(), "error: busy: 64 changes wait to be made; try again when they are\n");
    }
    // Once they are made, changes are taken again.
    for (const auto &answer : queued) {
        while (!answer->done())
            ASSERT_TRUE(workerDone(done.get()));
    }
    EXPECT_NE(kelp::ctl::testing::singleObject(20).find(
                  "<Nexus>n" + std::to_string(queued.size() - 1) + "</Nexus>"),
              std::string::npos);
    kelp::ctl::Request request;
    std::string error;
    ASSERT_TRUE(kelp::ctl::prepareLine("ready off", &request, &error)) << error;
    EXPECT_NE(worker.submit(std::move(request)), nullptr);
}

} // namespace
