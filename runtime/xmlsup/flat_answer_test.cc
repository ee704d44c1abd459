// The flat answer's element table: it answers every look-up as the scan
// does, in the answer and in any copy of it, and only in texts with the
// answer's exact bytes, on the thread that remembered it.
#include "xmlsup/flat_answer.h"

#include <gtest/gtest.h>

#include <malloc.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "support/answer_blocks.h"
#include "xmlsup.h"
#include "xmlsup/xml_scan.h"

namespace {

namespace xml = kelp::rt::xml;
using namespace std::string_literals;

// A flat text of `elements` (name, content) and its element table.
std::pair<std::string, std::vector<xml::FlatElement>>
flatText(const std::vector<std::pair<std::string, std::string>> &elements)
{
    std::string text;
    std::vector<xml::FlatElement> table;
    for (const auto &[name, content] : elements) {
        text += "<" + name + ">";
        table.push_back({static_cast<uint32_t>(text.size() - name.size() - 1),
                         static_cast<uint32_t>(name.size()), static_cast<uint32_t>(text.size()),
                         static_cast<uint32_t>(content.size())});
        text += content + "</" + name + ">";
    }
    return {text, table};
}

// Remembers `text` with `table` (a copy: the call takes its elements).
void remember(const std::string &text, std::vector<xml::FlatElement> table,
              bool distinctNames = false)
{
    xml::rememberFlatAnswer(text.data(), text.size(), &table, distinctNames);
}

const std::vector<std::pair<std::string, std::string>> kElements = {
    {"ObjID", "17"},
    {"Nexus", "0:1:2"},
    {"Name", "a &amp; b &lt;c&gt;"},
    {"NameX", "longer name"},
    {"Nam", "shorter name"},
    {"Name", "second Name"},
    {"Empty", ""},
    {"N", "one letter"},
    {"Name", ""},
};

// Tags looked up: every name above, names around them, absent ones, and
// tags that are no flat name (the scan alone answers those).
const char *const kTags[] = {"ObjID", "Nexus", "Name",      "NameX", "Nam",      "Empty",
                             "N",     "Na",    "NameXY",    "Other", "Name>",    "Name ",
                             "Name/", "!Name", "Nexus>0:1", "/Name", "ObjID>17<"};

// Every look-up of kTags's tags, occurrences 0 to 4, in text as the scan
// answers it; text has the remembered answer's bytes.
void expectAnsweredAsScanned(const std::string &text)
{
    for (const char *tag : kTags) {
        for (uint32_t occurrence = 0; occurrence < 5; occurrence++) {
            SCOPED_TRACE(std::string(tag) + " #" + std::to_string(occurrence));
            const xml::IndexedLookup lookup =
                xml::findInFlatAnswer(text.data(), text.size(), tag, occurrence);
            EXPECT_EQ(lookup.indexed, xml::isFlatName(tag));
            if (!lookup.indexed)
                continue;
            const auto scanned = xml::findElement(text, tag, occurrence);
            ASSERT_EQ(lookup.raw.has_value(), scanned.has_value());
            if (scanned) {
                EXPECT_EQ(*lookup.raw, *scanned);
                // A view into the text handed in, as the scan's.
                EXPECT_EQ(lookup.raw->data(), scanned->data());
            }
        }
    }
}

TEST(FlatAnswerTest, TheTableAnswersEveryLookUpAsTheScanDoes)
{
    const auto [text, table] = flatText(kElements);
    remember(text, table);
    {
        SCOPED_TRACE("in the answer");
        expectAnsweredAsScanned(text);
    }
    const std::string copy = text; // the plug-in reads its own copy too
    SCOPED_TRACE("in the copy");
    expectAnsweredAsScanned(copy);
    xml::forgetFlatAnswer();
}

// Answers of distinct names try where each tag stood in the answer before;
// one that lists its names in another order, or fewer of them, answers as
// the scan does all the same.
TEST(FlatAnswerTest, AnswersOfDistinctNamesAreAnsweredAsScannedInAnyOrder)
{
    const std::vector<std::vector<std::pair<std::string, std::string>>> answers = {
        {{"ObjID", "1"},
         {"Nexus", "0:1"},
         {"Name", "n1"},
         {"NameX", "x1"},
         {"Nam", "m1"},
         {"Empty", ""},
         {"N", "one"}},
        {{"N", "two"},
         {"Empty", ""},
         {"Name", "n2"},
         {"Nam", "m2"},
         {"NameX", "x2"},
         {"Nexus", "0:2"},
         {"ObjID", "2"}},
        {{"ObjID", "3"}, {"Name", "n3"}},
        {{"ObjID", "4"},
         {"Nexus", "0:4"},
         {"Name", "n4"},
         {"NameX", "x4"},
         {"Nam", "m4"},
         {"Empty", ""},
         {"N", "four"}},
    };
    for (int round = 0; round < 2; ++round) {
        for (const auto &elements : answers) {
            const auto [text, table] = flatText(elements);
            SCOPED_TRACE(text);
            remember(text, table, true);
            expectAnsweredAsScanned(text);
        }
    }
    xml::forgetFlatAnswer();
}

// Names of every length up to 20 that differ from each other in one byte
// only, first, in the middle or last: each tag finds its own element.
TEST(FlatAnswerTest, NamesThatDifferInOneByteAreToldApart)
{
    for (size_t length = 1; length <= 20; ++length) {
        const std::string base(length, 'a');
        std::vector<std::string> names = {base};
        for (const size_t at : {size_t{0}, length / 2, length - 1}) {
            std::string name = base;
            name[at] = 'b';
            if (name != names.back())
                names.push_back(name);
        }
        std::vector<std::pair<std::string, std::string>> elements;
        for (const std::string &name : names)
            elements.emplace_back(name, "of " + name);
        const auto [text, table] = flatText(elements);
        remember(text, table, true);
        const std::string copy = text;
        // Twice: the second look-up of each tag tries the place it was found.
        for (int round = 0; round < 2; ++round) {
            for (const std::string &name : names) {
                SCOPED_TRACE(name);
                const xml::IndexedLookup lookup =
                    xml::findInFlatAnswer(copy.data(), copy.size(), name, 0);
                ASSERT_TRUE(lookup.indexed);
                EXPECT_EQ(lookup.raw, std::optional<std::string_view>("of " + name));
            }
            std::string absent = base;
            absent[length - 1] = 'c';
            const xml::IndexedLookup none =
                xml::findInFlatAnswer(copy.data(), copy.size(), absent, 0);
            EXPECT_TRUE(none.indexed);
            EXPECT_FALSE(none.raw.has_value());
        }
    }
    xml::forgetFlatAnswer();
}

// Where a name repeats, the first element of that name is found by the
// scan, never at the place the tag stood in an answer before.
TEST(FlatAnswerTest, AnAnswerThatRepeatsANameIsScanned)
{
    const auto [before, beforeTable] = flatText({{"ObjID", "1"}, {"Nexus", "0"}, {"B", "b"}});
    remember(before, beforeTable, true);
    const xml::IndexedLookup third = xml::findInFlatAnswer(before.data(), before.size(), "B", 0);
    ASSERT_TRUE(third.raw.has_value());
    EXPECT_EQ(*third.raw, "b");

    const auto [text, table] = flatText({{"ObjID", "2"}, {"B", "first"}, {"B", "second"}});
    remember(text, table, false);
    for (int i = 0; i < 2; ++i) {
        const xml::IndexedLookup first = xml::findInFlatAnswer(text.data(), text.size(), "B", 0);
        ASSERT_TRUE(first.raw.has_value());
        EXPECT_EQ(*first.raw, "first");
        const xml::IndexedLookup second = xml::findInFlatAnswer(text.data(), text.size(), "B", 1);
        ASSERT_TRUE(second.raw.has_value());
        EXPECT_EQ(*second.raw, "second");
    }
    expectAnsweredAsScanned(text);
    xml::forgetFlatAnswer();
}

TEST(FlatAnswerTest, OnlyTheRememberedBytesAreAnsweredFromTheTable)
{
    const auto [text, table] = flatText(kElements);
    remember(text, table);
    ASSERT_TRUE(xml::findInFlatAnswer(text.data(), text.size(), "Name", 0).indexed);

    // One byte changed anywhere: scanned, as the change may move elements.
    for (size_t at : {size_t{0}, text.size() / 2, text.size() - 1}) {
        std::string changed = text;
        changed[at] = changed[at] == 'x' ? 'y' : 'x';
        EXPECT_FALSE(xml::findInFlatAnswer(changed.data(), changed.size(), "Name", 0).indexed)
            << "byte " << at;
    }
    // A prefix, or the text with more behind it.
    EXPECT_FALSE(xml::findInFlatAnswer(text.data(), text.size() - 1, "Name", 0).indexed);
    const std::string longer = text + "<Name>x</Name>";
    EXPECT_FALSE(xml::findInFlatAnswer(longer.data(), longer.size(), "Name", 0).indexed);

    // Another thread has a flat answer of its own, none here.
    bool otherThread = true;
    std::thread([&] {
        otherThread = xml::findInFlatAnswer(text.data(), text.size(), "Name", 0).indexed;
    }).join();
    EXPECT_FALSE(otherThread);

    // A later answer replaces it; forgetting leaves none.
    const auto [next, nextTable] = flatText({{"ObjID", "18"}, {"Name", "n"}});
    remember(next, nextTable);
    EXPECT_FALSE(xml::findInFlatAnswer(text.data(), text.size(), "Name", 0).indexed);
    EXPECT_TRUE(xml::findInFlatAnswer(next.data(), next.size(), "Name", 0).indexed);
    xml::forgetFlatAnswer();
    EXPECT_FALSE(xml::findInFlatAnswer(next.data(), next.size(), "Name", 0).indexed);
}

TEST(FlatAnswerTest, TheBlockHandedOutIsNotComparedUntilAnAnswerIsFreed)
{
    const auto [text, table] = flatText(kElements);
    std::string block = text; // the answer as handed out
    remember(block, table);
    // Its holder only reads it: a byte changed in it all the same is not
    // looked at. A copy is compared with the block, and one that differs
    // from it is scanned.
    const size_t at = block.find("<Name>") + 6;
    block[at] = block[at] == 'x' ? 'y' : 'x';
    EXPECT_TRUE(xml::findInFlatAnswer(block.data(), block.size(), "Name", 0).indexed);
    std::string copy = block;
    EXPECT_TRUE(xml::findInFlatAnswer(copy.data(), copy.size(), "Name", 0).indexed);
    copy[at] = text[at];
    EXPECT_FALSE(xml::findInFlatAnswer(copy.data(), copy.size(), "Name", 0).indexed);
    // Once any answer is freed the block may hold another, whatever its
    // bytes, unless this thread freed and kept it: the block and its copies
    // are scanned.
    xml::noteAnswerFreed();
    block[at] = text[at];
    const std::string restored = block;
    EXPECT_FALSE(xml::findInFlatAnswer(block.data(), block.size(), "Name", 0).indexed);
    EXPECT_FALSE(xml::findInFlatAnswer(restored.data(), restored.size(), "Name", 0).indexed);
    // A later remembering trusts its own block again.
    remember(block, table);
    block[at] = block[at] == 'x' ? 'y' : 'x';
    EXPECT_TRUE(xml::findInFlatAnswer(block.data(), block.size(), "Name", 0).indexed);
    xml::forgetFlatAnswer();
}

// A block as the data store hands it out, holding text and its NUL.
char *answerBlockOf(const std::string &text)
{
    auto *block = static_cast<char *>(kelp::rt::takeAnswerBlock(text.size() + 1));
    std::memcpy(block, text.c_str(), text.size() + 1);
    return block;
}

// kElements's text handed out in a block and remembered with its table.
char *rememberedBlock()
{
    const auto [text, table] = flatText(kElements);
    char *block = answerBlockOf(text);
    std::vector<xml::FlatElement> elements = table;
    xml::rememberFlatAnswer(block, text.size(), &elements, false);
    return block;
}

TEST(FlatAnswerTest, TheBlockFreedByItsThreadIsKeptAndCopiesAreComparedWithIt)
{
    char *block = rememberedBlock();
    const std::string copy = block; // the plug-in's copy
    // Any other block is the caller's to free.
    char *other = answerBlockOf(copy);
    EXPECT_FALSE(xml::keepFlatAnswerBlock(other));
    std::free(other);
    // freeMem's steps.
    ASSERT_TRUE(xml::keepFlatAnswerBlock(block));
    xml::noteAnswerFreed();
    EXPECT_FALSE(xml::keepFlatAnswerBlock(block)) << "kept once";

    const xml::IndexedLookup lookup = xml::findInFlatAnswer(copy.data(), copy.size(), "Nexus", 0);
    ASSERT_TRUE(lookup.indexed);
    EXPECT_EQ(lookup.raw, std::optional<std::string_view>("0:1:2"));
    EXPECT_EQ(lookup.raw->data(), copy.data() + copy.find("0:1:2")) << "a view into the copy";
    std::string changed = copy;
    changed[changed.size() / 2] ^= 1;
    EXPECT_FALSE(xml::findInFlatAnswer(changed.data(), changed.size(), "Name", 0).indexed);
    xml::noteAnswerFreed(); // more answers freed: the kept bytes are still the answer's
    EXPECT_TRUE(xml::findInFlatAnswer(copy.data(), copy.size(), "Name", 0).indexed);

    // The next answer gives the kept block back to the thread's blocks.
    const size_t blocksBefore = kelp::rt::answerBlocksKept();
    const auto [next, nextTable] = flatText({{"ObjID", "18"}, {"Name", "n"}});
    remember(next, nextTable);
    EXPECT_EQ(kelp::rt::answerBlocksKept(), blocksBefore + 1);
    EXPECT_FALSE(xml::findInFlatAnswer(copy.data(), copy.size(), "Name", 0).indexed);
    xml::forgetFlatAnswer();
}

// The next answer, which replaces the flat answer, may be made in its kept
// block: the block goes with the flat answer, and only when it holds the
// answer.
TEST(FlatAnswerTest, TheKeptBlockIsHandedOutForTheAnswerThatReplacesIt)
{
    EXPECT_EQ(xml::takeFlatAnswerBlock(1), nullptr) << "no answer";
    char *block = rememberedBlock();
    const std::string copy = block;
    EXPECT_EQ(xml::takeFlatAnswerBlock(1), nullptr) << "the block is still out";
    ASSERT_TRUE(xml::keepFlatAnswerBlock(block));
    xml::noteAnswerFreed();
    EXPECT_EQ(xml::takeFlatAnswerBlock(malloc_usable_size(block) + 1), nullptr) << "too small";
    EXPECT_TRUE(xml::findInFlatAnswer(copy.data(), copy.size(), "Name", 0).indexed);

    const size_t blocksBefore = kelp::rt::answerBlocksKept();
    ASSERT_EQ(xml::takeFlatAnswerBlock(copy.size() + 1), block);
    EXPECT_FALSE(xml::findInFlatAnswer(copy.data(), copy.size(), "Name", 0).indexed)
        << "the flat answer went with its block";
    std::memset(block, 'x', copy.size() + 1); // all of it is the caller's
    EXPECT_EQ(xml::takeFlatAnswerBlock(1), nullptr) << "handed out once";
    xml::forgetFlatAnswer();
    EXPECT_EQ(kelp::rt::answerBlocksKept(), blocksBefore) << "nothing was given back";
    kelp::rt::giveBackAnswerBlock(block);
}

// Once another answer was freed, the block handed out may have been freed
// by another thread and handed out again as another answer, possibly a
// shorter one: a block at the same address is not kept.
TEST(FlatAnswerTest, ABlockFreedAfterAnotherAnswerIsNotKept)
{
    char *block = rememberedBlock();
    const std::string copy = block;
    xml::noteAnswerFreed(); // another answer, by any thread
    EXPECT_FALSE(xml::keepFlatAnswerBlock(block));
    xml::noteAnswerFreed();
    kelp::rt::giveBackAnswerBlock(block);
    EXPECT_FALSE(xml::findInFlatAnswer(copy.data(), copy.size(), "Name", 0).indexed);
    xml::forgetFlatAnswer();
}

TEST(FlatAnswerTest, ABlockFreedByAnotherThreadIsNotKeptAndItsCopiesAreScanned)
{
    char *block = rememberedBlock();
    const std::string copy = block;
    ASSERT_TRUE(xml::findInFlatAnswer(copy.data(), copy.size(), "Name", 0).indexed);
    bool keptThere = true;
    std::thread([&] {
        keptThere = xml::keepFlatAnswerBlock(block);
        xml::noteAnswerFreed();
        kelp::rt::giveBackAnswerBlock(block); // that thread may hand it out again
    }).join();
    EXPECT_FALSE(keptThere);
    EXPECT_FALSE(xml::findInFlatAnswer(copy.data(), copy.size(), "Name", 0).indexed);
    char out[160];
    uint32_t size = sizeof out;
    ASSERT_EQ(XMLSupGetXMLMemData(0, "Nexus", 1, 0, 1, &size, out, 0, nullptr, copy.data(),
                                  static_cast<uint32_t>(copy.size())),
              0u);
    EXPECT_STREQ(out, "0:1:2");
    xml::forgetFlatAnswer();
}

// The library's entry point answers from the table what it answers from a
// scan: entities decoded, sizes, missing elements.
TEST(FlatAnswerTest, XmlSupAnswersAlikeWithAndWithoutTheTable)
{
    const auto [text, table] = flatText(kElements);
    auto get = [&](const char *tag, uint32_t occurrence, uint32_t capacity) {
        std::string out(capacity, '\xff');
        uint32_t size = capacity;
        const uint32_t status =
            XMLSupGetXMLMemData(0, tag, 1, occurrence, 1, &size, out.data(), 0, nullptr,
                                text.data(), static_cast<uint32_t>(text.size()));
        return std::to_string(status) + "/" + std::to_string(size) + "/" +
               (status == 0 ? std::string(out.c_str()) : std::string());
    };
    for (const char *tag : kTags) {
        for (uint32_t occurrence = 0; occurrence < 4; occurrence++) {
            for (uint32_t capacity : {1u, 5u, 160u}) {
                xml::forgetFlatAnswer();
                const std::string scanned = get(tag, occurrence, capacity);
                remember(text, table);
                EXPECT_EQ(get(tag, occurrence, capacity), scanned)
                    << tag << " #" << occurrence << ", " << capacity << " bytes";
            }
        }
    }
    xml::forgetFlatAnswer();
}

TEST(FlatAnswerTest, FlatNames)
{
    const struct {
        std::string name;
        bool flat;
    } kCases[] = {
        {"Name", true}, {"N", true},     {"Obj-ID_2.x:y", true}, {"Ünï", true},   {"", false},
        {"a b", false}, {"a\tb", false}, {"a\nb", false},        {"a\rb", false}, {"a/", false},
        {"/a", false},  {"a>", false},   {"<a", false},          {"!a", false},   {"?a", false},
        {"a\"", false}, {"a'", false},   {"a&b", false},         {"a=b", false},  {"a\0b"s, false},
    };
    for (const auto &c : kCases)
        EXPECT_EQ(xml::isFlatName(c.name), c.flat) << c.name;
}

} // namespace
