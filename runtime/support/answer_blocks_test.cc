// The answer blocks a thread keeps and hands out again.
#include "support/answer_blocks.h"

#include <gtest/gtest.h>

#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <thread>
#include <vector>

namespace {

namespace rt = kelp::rt;

class AnswerBlocksTest : public ::testing::Test {
  protected:
    // The thread starts with no kept blocks.
    void SetUp() override
    {
        while (rt::answerBlocksKept() > 0)
            std::free(rt::takeAnswerBlock(1));
    }
    void TearDown() override { SetUp(); }
};

TEST_F(AnswerBlocksTest, ABlockGivenBackIsHandedOutAgainForAnAnswerItHolds)
{
    void *block = rt::takeAnswerBlock(1000);
    ASSERT_NE(block, nullptr);
    std::memset(block, 'a', 1000);
    const size_t takenBefore = rt::answerBlocksTakenAgain();
    rt::giveBackAnswerBlock(block);
    EXPECT_EQ(rt::answerBlocksKept(), 1u);
    void *again = rt::takeAnswerBlock(900);
    EXPECT_EQ(again, block);
    EXPECT_EQ(rt::answerBlocksTakenAgain(), takenBefore + 1);
    EXPECT_EQ(rt::answerBlocksKept(), 0u);
    std::memset(again, 'b', 900); // all of it is the caller's again
    rt::giveBackAnswerBlock(again);
}

TEST_F(AnswerBlocksTest, TheSmallestKeptBlockThatHoldsTheAnswerIsTaken)
{
    void *small = rt::takeAnswerBlock(100);
    void *large = rt::takeAnswerBlock(3000);
    rt::giveBackAnswerBlock(large);
    rt::giveBackAnswerBlock(small);
    EXPECT_EQ(rt::takeAnswerBlock(50), small);
    void *fresh = rt::takeAnswerBlock(5000);
    EXPECT_NE(fresh, large) << "a kept block too small for the answer is not handed out";
    EXPECT_GE(malloc_usable_size(fresh), 5000u);
    EXPECT_EQ(rt::takeAnswerBlock(2000), large);
    rt::giveBackAnswerBlock(small);
    rt::giveBackAnswerBlock(large);
    rt::giveBackAnswerBlock(fresh);
}

TEST_F(AnswerBlocksTest, ABlockOfTheSmallestSizeClassThatHoldsTheAnswerIsTaken)
{
    // Kept blocks a power of two apart and close together, then requests
    // of each block's own size, one byte more, and below the smallest.
    const size_t sizes[] = {40, 1000, 1100, 5000};
    static_assert(std::size(sizes) == rt::kKeptAnswerBlocks);
    std::vector<void *> blocks;
    for (size_t size : sizes)
        blocks.push_back(rt::takeAnswerBlock(size));
    for (void *block : blocks)
        rt::giveBackAnswerBlock(block);
    ASSERT_EQ(rt::answerBlocksKept(), rt::kKeptAnswerBlocks);

    struct Case {
        size_t bytes;
        size_t expected; // index into blocks
    };
    // Each case takes the block and gives it back.
    const Case cases[] = {{1, 0},
                          {40, 0},
                          {malloc_usable_size(blocks[0]) + 1, 1},
                          {1000, 1},
                          {malloc_usable_size(blocks[1]) + 1, 2},
                          {1100, 2},
                          {malloc_usable_size(blocks[2]) + 1, 3},
                          {5000, 3}};
    for (const Case &c : cases) {
        void *taken = rt::takeAnswerBlock(c.bytes);
        EXPECT_EQ(taken, blocks[c.expected]) << c.bytes << " bytes";
        rt::giveBackAnswerBlock(taken);
    }
    void *fresh = rt::takeAnswerBlock(malloc_usable_size(blocks[3]) + 1);
    for (void *block : blocks)
        EXPECT_NE(fresh, block) << "no kept block holds the answer";
    std::free(fresh);
    EXPECT_EQ(rt::answerBlocksKept(), rt::kKeptAnswerBlocks);
}

TEST_F(AnswerBlocksTest, OfBlocksOfOneSizeTheOneGivenBackLastIsTaken)
{
    std::vector<void *> blocks;
    for (size_t i = 0; i < rt::kKeptAnswerBlocks; ++i)
        blocks.push_back(rt::takeAnswerBlock(1000));
    for (void *block : blocks)
        rt::giveBackAnswerBlock(block);
    // An answer and the one before it take turns in two blocks, as the
    // thread's flat answer keeps one block and gives back the other.
    for (size_t i = 0; i < blocks.size(); ++i) {
        void *taken = rt::takeAnswerBlock(1000);
        EXPECT_EQ(taken, blocks[blocks.size() - 1 - i]);
        rt::giveBackAnswerBlock(taken);
        EXPECT_EQ(rt::takeAnswerBlock(1000), taken);
        rt::giveBackAnswerBlock(taken);
        std::free(rt::takeAnswerBlock(1000));
    }
}

TEST_F(AnswerBlocksTest, AThreadKeepsAFewBlocksAndNoLargeOne)
{
    std::vector<void *> blocks;
    for (size_t i = 0; i < rt::kKeptAnswerBlocks + 2; ++i)
        blocks.push_back(rt::takeAnswerBlock(1000));
    for (void *block : blocks)
        rt::giveBackAnswerBlock(block);
    EXPECT_EQ(rt::answerBlocksKept(), rt::kKeptAnswerBlocks) << "the others are freed";

    std::free(rt::takeAnswerBlock(1)); // room for one more
    rt::giveBackAnswerBlock(rt::takeAnswerBlock(rt::kLargestKeptAnswerBlock + 1));
    EXPECT_EQ(rt::answerBlocksKept(), rt::kKeptAnswerBlocks - 1);
    rt::giveBackAnswerBlock(rt::takeAnswerBlock(rt::kTrimAfterFreeing));
    EXPECT_EQ(rt::answerBlocksKept(), rt::kKeptAnswerBlocks - 1);
    rt::giveBackAnswerBlock(nullptr);
    EXPECT_EQ(rt::answerBlocksKept(), rt::kKeptAnswerBlocks - 1);
}

TEST_F(AnswerBlocksTest, AThreadsBlocksAreItsOwnAndFreedWhenItEnds)
{
    size_t keptThere = 0;
    std::thread other([&] {
        rt::giveBackAnswerBlock(rt::takeAnswerBlock(1000));
        rt::giveBackAnswerBlock(rt::takeAnswerBlock(1000)); // the same block again
        rt::giveBackAnswerBlock(std::malloc(2000));
        keptThere = rt::answerBlocksKept();
    });
    other.join();
    EXPECT_EQ(keptThere, 2u);
    EXPECT_EQ(rt::answerBlocksKept(), 0u) << "another thread's blocks are not this one's";
    // LeakSanitizer (the asan build) fails the test when the ended thread's
    // blocks are not freed.
}

// A thread-local object whose destructor gives a block back after the
// thread's kept blocks were freed: that block is freed, not kept.
struct GivesBackAtThreadEnd {
    void *block = nullptr;
    ~GivesBackAtThreadEnd() { rt::giveBackAnswerBlock(block); }
};

TEST_F(AnswerBlocksTest, ABlockGivenBackAfterTheThreadsBlocksAreFreedIsFreed)
{
    std::thread other([] {
        // Constructed before the kept blocks, so destroyed after them.
        thread_local GivesBackAtThreadEnd late;
        late.block = std::malloc(500);
        rt::giveBackAnswerBlock(rt::takeAnswerBlock(700));
        EXPECT_EQ(rt::answerBlocksKept(), 1u);
    });
    other.join();
    // LeakSanitizer (the asan build) fails the test when the late block is
    // put with blocks that are never freed again.
}

#if defined(__SANITIZE_ADDRESS__)
TEST_F(AnswerBlocksTest, AKeptBlockIsOutOfBoundsUntilHandedOutAgain)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    auto *block = static_cast<volatile char *>(rt::takeAnswerBlock(1000));
    block[0] = 'a';
    rt::giveBackAnswerBlock(const_cast<char *>(block));
    EXPECT_DEATH({ [[maybe_unused]] char c = block[10]; }, "use-after-poison");
    auto *again = static_cast<volatile char *>(rt::takeAnswerBlock(1000));
    ASSERT_EQ(again, block);
    again[999] = 'b';
    rt::giveBackAnswerBlock(const_cast<char *>(again));
}
#endif

} // namespace
