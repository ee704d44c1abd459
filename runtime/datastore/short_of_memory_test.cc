// A query that runs out of memory answers status 5 and says so in the log,
// once a minute at most; the answers that fit are made as before.
#include "support/short_of_memory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "datastore/model_store.h"
#include "datastore/model_testing.h"
#include "vscil.h"

namespace {

namespace ds = kelp::ds;

constexpr char kModel[] = R"(<storage ready="1">
  <object id="1" type="adapters"><Nexus>0</Nexus><Name>Controller 0</Name></object>
  <object id="2" type="adapters"><Nexus>1</Nexus><Name>Controller 1</Name></object>
</storage>)";

class ShortOfMemoryTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        unsetenv("KELP_MODEL");
        ds::resetForTesting();
        std::string error;
        ASSERT_TRUE(ds::loadModelText(kModel, "m.xml", &error)) << error;
    }
    void TearDown() override
    {
        kelp::rt::failAnswerBlocksForTesting(false);
        ds::resetForTesting();
    }
    template <typename Query> static std::string ask(Query query)
    {
        return ds::testing::answerText(query);
    }
    static std::string list()
    {
        return ask([](uint32_t *s) { return GetObjectList(s, "adapters"); });
    }
    static std::string ready()
    {
        return ask([](uint32_t *s) { return DataStoreReady(s); });
    }
};

TEST_F(ShortOfMemoryTest, AnAnswerThatCannotBeMadeIsStatus5AndOneLogLineAMinute)
{
    const std::string whole = list();
    ASSERT_NE(whole.find("Controller 1"), std::string::npos) << whole;
    // Blocks as long as the list are refused; the readiness answer is shorter.
    kelp::rt::failAnswerBlocksForTesting(true, whole.size() + 1);
    const uint64_t before = kelp::rt::answersShortOfMemory();
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(list(), "<status 5>");
    EXPECT_EQ(list(), "<status 5>");
    EXPECT_EQ(ready(), "<DataStoreReady><Code>0</Code></DataStoreReady>");
    const std::string log = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(kelp::rt::answersShortOfMemory(), before + 2);
    EXPECT_EQ(log, "kelp: out of memory: the runtime could not have " +
                       std::to_string(whole.size() + 1) +
                       " bytes for an answer and answered status 5, so the plug-in's tables may "
                       "lack rows (1 such answer since the last line)\n")
        << "one line for the first, none for the second within the minute";
    kelp::rt::failAnswerBlocksForTesting(false);
    EXPECT_EQ(list(), whole) << "answered again once memory is there";
}

TEST_F(ShortOfMemoryTest, EveryQueryThatMakesAnAnswerCountsItsFailure)
{
    EXPECT_EQ(ready(), "<DataStoreReady><Code>0</Code></DataStoreReady>");
    kelp::rt::failAnswerBlocksForTesting(true, 0);
    const uint64_t before = kelp::rt::answersShortOfMemory();
    ::testing::internal::CaptureStderr();
    // A thread's readiness answers are written again in its one block; a
    // thread that has none yet needs memory for it.
    EXPECT_EQ(ready(), "<DataStoreReady><Code>0</Code></DataStoreReady>");
    std::string elsewhere;
    std::thread([&elsewhere] { elsewhere = ready(); }).join();
    EXPECT_EQ(elsewhere, "<status 5>");
    EXPECT_EQ(ask([](uint32_t *s) { return GetSingleObject(s, 0, 1); }), "<status 5>");
    EXPECT_EQ(ask([](uint32_t *s) { return GetAssociated(s, "adapters", 1); }), "<status 2>")
        << "an answer of nothing needs no memory";
    EXPECT_EQ(list(), "<status 5>");
    const std::string log = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(kelp::rt::answersShortOfMemory(), before + 3);
    EXPECT_NE(log.find("out of memory"), std::string::npos) << log;
}

} // namespace
