#include "fairqueue.h"

#include <new>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "testing/failing_new.h"

namespace kelp::agent {
namespace {

// One step: push (source, item) or pop ("" as source); what pop returns or
// push drops, "" for nothing.
struct Step {
    std::string source;
    int item;
    std::string expect; // "source:item" or ""
};

std::string text(const std::optional<std::pair<std::string, int>> &out)
{
    return out ? out->first + ":" + std::to_string(out->second) : "";
}

struct Case {
    const char *name;
    size_t capacity;
    std::vector<Step> steps;
};

TEST(FairQueue, TakesTurnsAndDropsFromTheLongest)
{
    const std::vector<Case> cases = {
        {"one source is first in, first out",
         4,
         {{"a", 1, ""}, {"a", 2, ""}, {"", 0, "a:1"}, {"", 0, "a:2"}, {"", 0, ""}}},
        {"sources take turns",
         8,
         {{"a", 1, ""},
          {"a", 2, ""},
          {"a", 3, ""},
          {"b", 10, ""},
          {"", 0, "a:1"},
          {"", 0, "b:10"},
          {"", 0, "a:2"},
          {"b", 11, ""},
          {"", 0, "a:3"},
          {"", 0, "b:11"},
          {"", 0, ""}}},
        {"a single source may fill the queue, then its newest is refused",
         3,
         {{"a", 1, ""}, {"a", 2, ""}, {"a", 3, ""}, {"a", 4, "a:4"}, {"", 0, "a:1"}}},
        {"a newcomer into a full queue takes the longest's newest place",
         3,
         {{"a", 1, ""},
          {"a", 2, ""},
          {"a", 3, ""},
          {"b", 10, "a:3"},
          {"", 0, "a:1"},
          {"", 0, "b:10"},
          {"", 0, "a:2"},
          {"", 0, ""}}},
        {"a source tied for the longest loses its own new item",
         4,
         {{"a", 1, ""},
          {"a", 2, ""},
          {"b", 10, ""},
          {"b", 11, ""},
          {"b", 12, "b:12"},
          {"a", 3, "a:3"},
          {"", 0, "a:1"},
          {"", 0, "b:10"}}},
        {"a source emptied by a drop loses its turn",
         2,
         {{"a", 1, ""},
          {"b", 10, ""},
          {"", 0, "a:1"},
          {"c", 20, ""},
          {"c", 21, "c:21"},
          {"", 0, "b:10"},
          {"", 0, "c:20"},
          {"", 0, ""}}},
        {"a capacity of zero holds one", 0, {{"a", 1, ""}, {"b", 2, "a:1"}, {"", 0, "b:2"}}},
    };
    for (const Case &c : cases) {
        FairQueue<int> queue(c.capacity);
        for (size_t i = 0; i < c.steps.size(); i++) {
            const Step &step = c.steps[i];
            const auto out =
                step.source.empty() ? queue.pop() : queue.push(step.source, int{step.item});
            EXPECT_EQ(text(out), step.expect) << c.name << ", step " << i;
            EXPECT_LE(queue.size(), queue.capacity()) << c.name << ", step " << i;
        }
    }
}

TEST(FairQueue, AFlooderGetsOneTurnPerPoliteRequest)
{
    FairQueue<int> queue(16);
    int flooderServed = 0;
    int politeServed = 0;
    int flooderDropped = 0;
    for (int round = 0; round < 1000; round++) {
        // Ten flooder requests arrive for each polite one, and one is served.
        for (int i = 0; i < 10; i++) {
            const auto dropped = queue.push("flooder", int{i});
            ASSERT_TRUE(!dropped || dropped->first == "flooder") << round;
            flooderDropped += dropped ? 1 : 0;
        }
        if (round % 2 == 0) {
            const auto dropped = queue.push("polite", int{round});
            ASSERT_TRUE(!dropped || dropped->first == "flooder") << round;
            flooderDropped += dropped ? 1 : 0;
        }
        const auto next = queue.pop();
        ASSERT_TRUE(next);
        (next->first == "polite" ? politeServed : flooderServed)++;
    }
    EXPECT_EQ(politeServed, 500);
    EXPECT_EQ(flooderServed, 500);
    EXPECT_GT(flooderDropped, 8000);
}

// Items long enough to live on the heap: one that was moved from is empty.
using Queue = FairQueue<std::string>;

std::string item(const std::string &name)
{
    return name + " - a request read from the socket";
}

// What the queue hands out, in order, as "source:item" lines, taken from a
// copy so that the queue itself stays as it is.
std::string drained(Queue queue)
{
    std::string out;
    while (const auto next = queue.pop()) {
        out += next->first + ":" + next->second + "\n";
    }
    return out;
}

// `operation` on a copy of `before`, with the n-th allocation failing for
// n = 1, 2, ... until it succeeds (the operation disarms the failure once
// the call it tests returns): each time it fails, the queue must be
// as it was and `incoming` the caller's still, and the queue must go on
// working (a later push of every source is handed out). Returns how many
// failures were tried.
template <typename Operation>
size_t failEveryAllocationOf(const Queue &before, const std::string &incoming, Operation operation,
                             const std::string &name)
{
    const std::vector<std::string> sources = {"a", "b", "c"};
    const auto thenEverySource = [&](Queue queue) {
        for (const std::string &source : sources) {
            std::string later = item("later " + source);
            queue.push(source, std::move(later));
        }
        return drained(queue);
    };
    for (size_t n = 1;; n++) {
        Queue queue = before;
        std::string carried = incoming;
        kelp::test::failNthAllocation(n);
        try {
            operation(queue, carried);
            kelp::test::failNthAllocation(0);
            return n - 1;
        } catch (const std::bad_alloc &) {
            kelp::test::failNthAllocation(0);
        }
        EXPECT_EQ(carried, incoming) << name << ", allocation " << n;
        EXPECT_EQ(queue.size(), before.size()) << name << ", allocation " << n;
        EXPECT_EQ(drained(queue), drained(before)) << name << ", allocation " << n;
        EXPECT_EQ(thenEverySource(queue), thenEverySource(before)) << name << ", allocation " << n;
        if (n > 100) {
            ADD_FAILURE() << name << " never succeeded";
            return n;
        }
    }
}

// A queue of `capacity` after pushing each (source, name) in turn.
Queue queueOf(size_t capacity, const std::vector<std::pair<std::string, std::string>> &items)
{
    Queue queue(capacity);
    for (const auto &[source, name] : items) {
        std::string pushed = item(name);
        queue.push(source, std::move(pushed));
    }
    return queue;
}

TEST(FairQueue, APushThatRunsOutOfMemoryLeavesTheQueueAndTheItemAsTheyWere)
{
    struct PushCase {
        const char *name;
        Queue before;
        std::string source;
        bool allocates; // else the push has room and nothing to copy
    };
    const std::vector<PushCase> cases = {
        {"a first source", queueOf(4, {}), "a", true},
        {"a new source beside others", queueOf(4, {{"a", "1"}, {"b", "2"}}), "c", true},
        {"a source already waiting", queueOf(4, {{"a", "1"}, {"b", "2"}}), "a", false},
        {"a newcomer into a full queue", queueOf(3, {{"a", "1"}, {"a", "2"}, {"b", "3"}}), "c",
         true},
        {"a newcomer into a full queue that empties the longest",
         queueOf(2, {{"a", "1"}, {"b", "2"}}), "c", true},
        {"a source refused in a full queue", queueOf(2, {{"a", "1"}, {"a", "2"}}), "a", false},
    };
    for (const PushCase &c : cases) {
        const std::string incoming = item("new from " + c.source);
        const size_t failures = failEveryAllocationOf(
            c.before, incoming,
            [&](Queue &queue, std::string &carried) {
                const auto dropped = queue.push(c.source, std::move(carried));
                kelp::test::failNthAllocation(0);
                EXPECT_LE(queue.size(), queue.capacity()) << c.name;
                static_cast<void>(dropped);
            },
            c.name);
        EXPECT_EQ(failures > 0, c.allocates) << c.name << ": " << failures << " failures";
    }
}

// Fifteen sources waiting, the first with two items: handing out its first
// queues its next turn at the end of a full block of the turns' deque, so
// that the pop allocates.
Queue fifteenSources()
{
    std::vector<std::pair<std::string, std::string>> items = {{"a", "1"}, {"a", "2"}};
    for (char source = 'b'; source < 'b' + 14; source++) {
        items.emplace_back(std::string(1, source), "1");
    }
    return queueOf(32, items);
}

TEST(FairQueue, APopThatRunsOutOfMemoryLeavesTheQueueAsItWas)
{
    struct PopCase {
        const char *name;
        Queue before;
        bool allocates;
    };
    const std::vector<PopCase> cases = {
        {"a source with more waiting", queueOf(4, {{"a", "1"}, {"a", "2"}, {"b", "3"}}), false},
        {"a source with one waiting", queueOf(4, {{"a", "1"}, {"b", "2"}, {"b", "3"}}), false},
        {"a source with more waiting behind fourteen others", fifteenSources(), true},
    };
    for (const PopCase &c : cases) {
        size_t handedOut = 0;
        const size_t failures = failEveryAllocationOf(
            c.before, "",
            [&](Queue &queue, std::string &) {
                const auto next = queue.pop();
                kelp::test::failNthAllocation(0);
                ASSERT_TRUE(next) << c.name;
                EXPECT_EQ(next->first + ":" + next->second, "a:" + item("1")) << c.name;
                handedOut++;
            },
            c.name);
        EXPECT_EQ(handedOut, 1u) << c.name;
        EXPECT_EQ(failures > 0, c.allocates) << c.name << ": " << failures << " failures";
    }
}

TEST(FairQueue, DropFirstTakesWhatPopWouldAndAllocatesNothing)
{
    Queue queue = fifteenSources();
    const size_t failedBefore = kelp::test::failedAllocations();
    kelp::test::failNthAllocation(1);
    const std::optional<std::string> dropped = queue.dropFirst();
    kelp::test::failNthAllocation(0);
    EXPECT_EQ(kelp::test::failedAllocations(), failedBefore);
    EXPECT_EQ(dropped, item("1"));
    EXPECT_EQ(queue.size(), fifteenSources().size() - 1);
    // The source keeps its turn, first, for its next item.
    const auto next = queue.pop();
    ASSERT_TRUE(next);
    EXPECT_EQ(next->first + ":" + next->second, "a:" + item("2"));
    // A source whose last item is dropped loses its turn.
    Queue one = queueOf(4, {{"a", "1"}, {"b", "2"}});
    EXPECT_EQ(one.dropFirst(), item("1"));
    EXPECT_EQ(drained(one), "b:" + item("2") + "\n");
    Queue none(4);
    EXPECT_FALSE(none.dropFirst());
}

TEST(FairQueue, SourcesCountsTheSourcesWithItemsWaiting)
{
    FairQueue<int> queue(3);
    EXPECT_EQ(queue.sources(), 0u);
    queue.push("a", 1);
    queue.push("a", 2);
    EXPECT_EQ(queue.sources(), 1u);
    queue.push("b", 10);
    EXPECT_EQ(queue.sources(), 2u);
    // Full: a's newest goes; a still waits with one.
    EXPECT_EQ(text(queue.push("c", 20)), "a:2");
    EXPECT_EQ(queue.sources(), 3u);
    queue.pop();
    EXPECT_EQ(queue.sources(), 2u);
    queue.dropFirst();
    queue.pop();
    EXPECT_EQ(queue.sources(), 0u);
}

} // namespace
} // namespace kelp::agent
