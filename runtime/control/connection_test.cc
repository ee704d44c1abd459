// One control connection driven by hand over a socket pair: a line that
// arrives in pieces, the two deadlines (sending the line, taking the
// answer), and a client that goes away.
#include "control/connection.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <string>

#include "control/control_testing.h"
#include "control/words.h"
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

    Connection open() { return Connection(kelp::rt::UniqueFd(server_), 5s, start_); }
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
    EXPECT_FALSE(c.advance(POLLIN, start_)) << "answered whole, so finished";
    EXPECT_EQ(received(), "ok\n");
    EXPECT_EQ(kelp::ctl::testing::readyAnswer().find("<Code>0</Code>"), std::string::npos)
        << "only the first line ran";
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

TEST_F(ConnectionTest, ClientGoneBeforeItsLineIsDropped)
{
    Connection c = open();
    client_.reset();
    EXPECT_FALSE(c.advance(POLLIN | POLLHUP, start_));
}

} // namespace
