// Informs under way: an acknowledged one is done, an unacknowledged one is
// sent again after each timeout and given up after its last retry, a full
// window takes no more, and stray Responses change nothing.
#include "traps/informwindow.h"

#include <gtest/gtest.h>

namespace kelp::agent {
namespace {

using namespace std::chrono_literals;

const SinkClock::time_point kStart{std::chrono::hours(100)};

SinkMessage message(const std::string &text)
{
    return std::make_shared<const std::string>(text);
}

TEST(InformWindow, AnAcknowledgedInformIsDoneAndAStrayResponseChangesNothing)
{
    InformWindow window({1s, 2, 4});
    window.sent(message("a"), 10, kStart);
    window.sent(message("b"), 11, kStart);
    EXPECT_FALSE(window.acknowledge(12));
    EXPECT_TRUE(window.acknowledge(10));
    EXPECT_FALSE(window.acknowledge(10)) << "a repeated Response";
    EXPECT_EQ(window.size(), 1u);
    EXPECT_TRUE(window.acknowledge(11));
    EXPECT_TRUE(window.empty());
    EXPECT_FALSE(window.nextDeadline().has_value());
}

TEST(InformWindow, AnUnacknowledgedInformIsSentAgainEachTimeoutThenGivenUp)
{
    InformWindow window({500ms, 2, 4});
    window.sent(message("a"), 1, kStart);
    EXPECT_EQ(window.nextDeadline(), kStart + 500ms);
    EXPECT_TRUE(window.takeDue(kStart + 499ms).resend.empty()) << "not yet";

    struct Step {
        std::chrono::milliseconds at;
        size_t resent;
        int retry;
        size_t givenUp;
    };
    for (const Step &step : {Step{500ms, 1, 1, 0}, Step{1000ms, 1, 2, 0}, Step{1500ms, 0, 0, 1}}) {
        const InformWindow::Due due = window.takeDue(kStart + step.at);
        ASSERT_EQ(due.resend.size(), step.resent) << step.at.count();
        if (step.resent > 0) {
            EXPECT_EQ(*due.resend[0], "a");
            EXPECT_EQ(due.retry[0], step.retry);
            EXPECT_EQ(window.nextDeadline(), kStart + step.at + 500ms);
        }
        EXPECT_EQ(due.givenUp, step.givenUp) << step.at.count();
    }
    EXPECT_TRUE(window.empty());
    EXPECT_FALSE(window.acknowledge(1)) << "a late Response for a given-up inform";
}

TEST(InformWindow, WithoutRetriesTheFirstTimeoutGivesUp)
{
    InformWindow window({100ms, 0, 4});
    window.sent(message("a"), 1, kStart);
    const InformWindow::Due due = window.takeDue(kStart + 100ms);
    EXPECT_TRUE(due.resend.empty());
    EXPECT_EQ(due.givenUp, 1u);
}

TEST(InformWindow, AFullWindowTakesNoMoreAndEachInformKeepsItsOwnClock)
{
    InformWindow window({1s, 1, 2});
    window.sent(message("a"), 1, kStart);
    EXPECT_FALSE(window.full());
    window.sent(message("b"), 2, kStart + 300ms);
    EXPECT_TRUE(window.full());
    const InformWindow::Due first = window.takeDue(kStart + 1s);
    ASSERT_EQ(first.resend.size(), 1u);
    EXPECT_EQ(*first.resend[0], "a");
    EXPECT_EQ(window.nextDeadline(), kStart + 1300ms);
    EXPECT_TRUE(window.acknowledge(2));
    EXPECT_FALSE(window.full());
}

} // namespace
} // namespace kelp::agent
