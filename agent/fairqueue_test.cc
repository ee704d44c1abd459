#include "fairqueue.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

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
            const auto out = step.source.empty() ? queue.pop() : queue.push(step.source, step.item);
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
            const auto dropped = queue.push("flooder", i);
            ASSERT_TRUE(!dropped || dropped->first == "flooder") << round;
            flooderDropped += dropped ? 1 : 0;
        }
        if (round % 2 == 0) {
            const auto dropped = queue.push("polite", round);
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

} // namespace
} // namespace kelp::agent
