// The record of texts handed out: what it releases, what it ignores, and that
// whatever it still holds is released when it goes away.
#include "eventif/event_texts.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>

namespace {

// Texts released through the record.
std::multiset<void *> g_released;

void countAndFree(void *text)
{
    g_released.insert(text);
    std::free(text);
}

char *newText()
{
    return static_cast<char *>(std::malloc(16));
}

class HandedOutTextsTest : public ::testing::Test {
  protected:
    void SetUp() override { g_released.clear(); }
};

TEST_F(HandedOutTextsTest, ReleasesAHeldTextOnce)
{
    kelp::ev::HandedOutTexts texts(countAndFree);
    char *a = newText();
    texts.add(a);
    EXPECT_EQ(texts.held(), 1u);
    EXPECT_TRUE(texts.release(a));
    EXPECT_EQ(texts.held(), 0u);
    EXPECT_FALSE(texts.release(a)); // already released: ignored
    EXPECT_EQ(g_released, std::multiset<void *>{a});
}

TEST_F(HandedOutTextsTest, IgnoresNullAndPointersItNeverHeld)
{
    kelp::ev::HandedOutTexts texts(countAndFree);
    char *held = newText();
    texts.add(held);
    texts.add(nullptr);
    EXPECT_EQ(texts.held(), 1u);
    char local[8] = {};
    char *other = newText();
    EXPECT_FALSE(texts.release(nullptr));
    EXPECT_FALSE(texts.release(local));
    EXPECT_FALSE(texts.release(other));
    EXPECT_FALSE(texts.release(held + 1));
    EXPECT_EQ(texts.held(), 1u);
    EXPECT_TRUE(g_released.empty());
    std::free(other);
}

TEST_F(HandedOutTextsTest, ReleaseAllReleasesEveryHeldText)
{
    kelp::ev::HandedOutTexts texts(countAndFree);
    char *a = newText(), *b = newText();
    texts.add(a);
    texts.add(b);
    EXPECT_EQ(texts.releaseAll(), 2u);
    EXPECT_EQ(texts.held(), 0u);
    EXPECT_EQ(g_released, (std::multiset<void *>{a, b}));
    EXPECT_FALSE(texts.release(a));
    EXPECT_EQ(texts.releaseAll(), 0u);
}

TEST_F(HandedOutTextsTest, WhatIsStillHeldIsReleasedWhenTheRecordGoesAway)
{
    char *a = newText(), *b = newText(), *c = newText();
    {
        kelp::ev::HandedOutTexts texts(countAndFree);
        texts.add(a);
        texts.add(b);
        texts.add(c);
        ASSERT_TRUE(texts.release(b));
    }
    EXPECT_EQ(g_released, (std::multiset<void *>{a, b, c}));
}

} // namespace
