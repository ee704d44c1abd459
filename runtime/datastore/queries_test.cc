// The data-store queries: "not available" without a model, then the exact
// answers for the test model, read back the way the plug-in reads them.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "datastore/model_store.h"
#include "datastore/model_testing.h"
#include "support/answer_blocks.h"
#include "vscil.h"
#include "xmlsup.h"
#include "xmlsup/flat_answer.h"

namespace {

namespace ds = kelp::ds;

// An answer as text, or "<status N>" for a null answer; every answer is
// released.
template <typename Query> std::string ask(Query query)
{
    uint32_t status = 99;
    char *xml = query(&status);
    if (xml == nullptr)
        return "<status " + std::to_string(status) + ">";
    EXPECT_EQ(status, 0u);
    std::string text = xml;
    freeMem(xml);
    return text;
}

// The occurrence-th value of tag in xml as the plug-in reads it, or "-".
std::string value(const std::string &xml, const char *tag, uint32_t occurrence)
{
    char out[160];
    uint32_t size = sizeof out;
    if (XMLSupGetXMLMemData(0, tag, 1, occurrence, 1, &size, out, 0, nullptr, xml.c_str(),
                            static_cast<uint32_t>(xml.size())) != 0) {
        return "-";
    }
    return out;
}

class QueriesTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        unsetenv("KELP_MODEL");
        ds::resetForTesting();
    }
    void TearDown() override { ds::resetForTesting(); }
    static void load()
    {
        std::string error;
        ASSERT_TRUE(ds::loadModelText(ds::testing::kTestModel, "test.xml", &error)) << error;
    }
};

TEST_F(QueriesTest, WithoutAModelEveryQueryAnswersStatus7)
{
    EXPECT_EQ(ask([](uint32_t *s) { return DataStoreReady(s); }), "<status 7>");
    EXPECT_EQ(ask([](uint32_t *s) { return GetObjectList(s, "adapters"); }), "<status 7>");
    EXPECT_EQ(ask([](uint32_t *s) { return GetSingleObject(s, 0, 1); }), "<status 7>");
    EXPECT_EQ(ask([](uint32_t *s) { return GetAssociated(s, "arraydisks", 40); }), "<status 7>");
    EXPECT_EQ(ask([](uint32_t *s) { return GetAssociatedPhyDevCount(s, "arraydisks", 40); }),
              "<status 7>");
    EXPECT_EQ(GetSmartThermalShutdownStatus(), 0u);
}

TEST_F(QueriesTest, ReadinessAnswerHoldsCode0)
{
    load();
    std::string answer = ask([](uint32_t *s) { return DataStoreReady(s); });
    EXPECT_EQ(answer, "<DataStoreReady><Code>0</Code></DataStoreReady>");
    EXPECT_EQ(value(answer, "Code", 0), "0");
    EXPECT_EQ(GetSmartThermalShutdownStatus(), 3u);
}

TEST_F(QueriesTest, ObjectListHoldsOneRunPerObjectInFileOrder)
{
    load();
    std::string list = ask([](uint32_t *s) { return GetObjectList(s, "arraydisks"); });
    EXPECT_EQ(list.rfind("<ObjList><ObjID>20</ObjID><Nexus>0\\0\\0\\20</Nexus>", 0), 0u) << list;
    const char *expected[][2] = {{"20", "0\\0\\0\\20"}, {"21", "0\\0\\0\\21"}, {"22", "0\\0\\22"}};
    for (uint32_t n = 0; n < 3; ++n) {
        EXPECT_EQ(value(list, "ObjID", n), expected[n][0]);
        EXPECT_EQ(value(list, "Nexus", n), expected[n][1]) << "the n-th ids and nexus pair up";
    }
    EXPECT_EQ(value(list, "ObjID", 3), "-");
    EXPECT_EQ(value(list, "Vendor", 0), "R&D") << "escaped text reads back";
    EXPECT_EQ(ask([](uint32_t *s) { return GetObjectList(s, "emms"); }), "<status 2>");
    EXPECT_EQ(ask([](uint32_t *s) { return GetObjectList(s, "adtoenclosure"); }), "<status 2>");
    EXPECT_EQ(ask([](uint32_t *s) { return GetObjectList(s, nullptr); }), "<status 5>");
}

TEST_F(QueriesTest, SingleObjectIsItsRunStartingWithObjId)
{
    load();
    EXPECT_EQ(ask([](uint32_t *s) { return GetSingleObject(s, 0, 41); }),
              "<ObjID>41</ObjID><Nexus>v41</Nexus><ParentVDID>40</ParentVDID>");
    EXPECT_EQ(ask([](uint32_t *s) { return GetSingleObject(s, 0, 42); }), "<status 2>");
    EXPECT_EQ(ask([](uint32_t *s) { return GetSingleObject(s, 0, 0); }), "<status 2>");
    EXPECT_EQ(ask([](uint32_t *s) { return GetSingleObject(s, 1, 41); }), "<status 5>");
}

// The queries that hold the identity lock read the served model without
// a reference of their own: every way of swapping a model in is seen by
// the next one.
TEST_F(QueriesTest, AnObjectsAnswerFollowsEachSwapOfTheModel)
{
    const auto object41 = [] { return ask([](uint32_t *s) { return GetSingleObject(s, 0, 41); }); };
    load();
    EXPECT_EQ(object41(), "<ObjID>41</ObjID><Nexus>v41</Nexus><ParentVDID>40</ParentVDID>");
    std::string error;
    ASSERT_TRUE(ds::setAttribute(41, "ParentVDID", "7", &error)) << error;
    EXPECT_EQ(object41(), "<ObjID>41</ObjID><Nexus>v41</Nexus><ParentVDID>7</ParentVDID>");
    ASSERT_TRUE(ds::setAttribute(41, "Nexus", "v42", &error)) << error; // follows the identity
    EXPECT_EQ(object41(), "<ObjID>41</ObjID><Nexus>v42</Nexus><ParentVDID>7</ParentVDID>");
    ASSERT_TRUE(ds::setReady(false, &error)) << error;
    EXPECT_EQ(object41(), "<ObjID>41</ObjID><Nexus>v42</Nexus><ParentVDID>7</ParentVDID>");
    load();
    EXPECT_EQ(object41(), "<ObjID>41</ObjID><Nexus>v41</Nexus><ParentVDID>40</ParentVDID>");
    ds::unloadModel();
    EXPECT_EQ(object41(), "<status 7>");
    load();
    EXPECT_EQ(object41(), "<ObjID>41</ObjID><Nexus>v41</Nexus><ParentVDID>40</ParentVDID>");
}

TEST_F(QueriesTest, AssociatedObjectsOrNullWhenThereAreNone)
{
    load();
    EXPECT_EQ(ask([](uint32_t *s) { return GetAssociated(s, "enclosures", 20); }),
              "<ObjList><ObjID>5</ObjID><Nexus>0\\0\\0</Nexus><Name>Backplane</Name></ObjList>");
    std::string vdisks = ask([](uint32_t *s) { return GetAssociated(s, "vdisks", 1); });
    EXPECT_EQ(value(vdisks, "ObjID", 0), "40");
    EXPECT_EQ(value(vdisks, "ObjID", 1), "41");
    EXPECT_EQ(value(vdisks, "ParentVDID", 0), "40");
    EXPECT_EQ(ask([](uint32_t *s) { return GetAssociated(s, "enclosures", 22); }), "<status 2>")
        << "an empty answer would count as associated";
    EXPECT_EQ(ask([](uint32_t *s) { return GetAssociated(s, "enclosures", 999); }), "<status 2>");
    EXPECT_EQ(ask([](uint32_t *s) { return GetAssociated(s, nullptr, 20); }), "<status 5>");
}

TEST_F(QueriesTest, PhysicalDeviceCountCountsTheAssociatedObjects)
{
    load();
    EXPECT_EQ(ask([](uint32_t *s) { return GetAssociatedPhyDevCount(s, "arraydisks", 1); }),
              "<objectCount>3</objectCount>");
    EXPECT_EQ(ask([](uint32_t *s) { return GetAssociatedPhyDevCount(s, "arraydisks", 5); }),
              "<objectCount>2</objectCount>");
    EXPECT_EQ(ask([](uint32_t *s) { return GetAssociatedPhyDevCount(s, "arraydisks", 70); }),
              "<objectCount>0</objectCount>");
    EXPECT_EQ(ask([](uint32_t *s) { return GetAssociatedPhyDevCount(s, "arraydisks", 999); }),
              "<status 2>");
    EXPECT_EQ(ask([](uint32_t *s) { return GetAssociatedPhyDevCount(s, nullptr, 1); }),
              "<status 5>");
}

TEST_F(QueriesTest, NullStatusIsAccepted)
{
    load();
    for (char *xml : {DataStoreReady(nullptr), GetObjectList(nullptr, "adapters"),
                      GetSingleObject(nullptr, 0, 1), GetAssociated(nullptr, "vdisks", 1),
                      GetAssociatedPhyDevCount(nullptr, "vdisks", 1)}) {
        EXPECT_NE(xml, nullptr);
        freeMem(xml);
    }
    EXPECT_EQ(GetSingleObject(nullptr, 0, 999), nullptr);
    ds::unloadModel();
    EXPECT_EQ(DataStoreReady(nullptr), nullptr);
}

// An object's answer is made in the block of the one before it: the last
// one the thread freed is kept with its flat answer until the next answer,
// which replaces it there, so no block goes back to the thread's blocks
// and none is taken from them.
TEST_F(QueriesTest, AnAnswerIsMadeInTheBlockOfTheAnswerBeforeIt)
{
    load();
    const std::string text = ask([](uint32_t *s) { return GetSingleObject(s, 0, 1); });
    ASSERT_EQ(text.rfind("<ObjID>1</ObjID>", 0), 0u) << text;
    EXPECT_EQ(ask([](uint32_t *s) { return GetSingleObject(s, 0, 1); }), text);
    const size_t takenBefore = kelp::rt::answerBlocksTakenAgain();
    std::set<char *> blocks;
    for (int i = 0; i < 4; ++i) {
        uint32_t status = 99;
        char *answer = GetSingleObject(&status, 0, 1);
        ASSERT_NE(answer, nullptr);
        EXPECT_EQ(answer, text);
        blocks.insert(answer);
        freeMem(answer);
    }
    EXPECT_EQ(kelp::rt::answerBlocksTakenAgain(), takenBefore);
    EXPECT_EQ(blocks.size(), 1u) << "the kept one, again and again";

    // A longer answer than the kept block holds is made in another block.
    char *longer = GetSingleObject(nullptr, 0, 20);
    ASSERT_NE(longer, nullptr);
    EXPECT_EQ(blocks.count(longer), 0u);
    EXPECT_GT(std::strlen(longer), text.size());
    freeMem(longer);
    // The thread's last block stays readable as the answer it held.
    const std::string after = ask([](uint32_t *s) { return GetSingleObject(s, 0, 1); });
    EXPECT_EQ(after, text);
}

// The readiness answer, asked for and freed before every cell, is written
// again in the thread's own block, which never goes back to the kept ones.
TEST_F(QueriesTest, TheReadinessAnswerIsWrittenAgainInItsOwnBlock)
{
    load();
    uint32_t status = 99;
    char *first = DataStoreReady(&status);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(status, 0u);
    freeMem(first);
    const size_t keptBefore = kelp::rt::answerBlocksKept();
    const size_t takenBefore = kelp::rt::answerBlocksTakenAgain();
    for (int i = 0; i < 3; ++i) {
        status = 99;
        char *again = DataStoreReady(&status);
        EXPECT_EQ(again, first);
        EXPECT_EQ(status, 0u);
        EXPECT_STREQ(again, "<DataStoreReady><Code>0</Code></DataStoreReady>");
        freeMem(again);
    }
    EXPECT_EQ(kelp::rt::answerBlocksKept(), keptBefore);
    EXPECT_EQ(kelp::rt::answerBlocksTakenAgain(), takenBefore);
    // Freed again while the thread keeps it, it is left alone: it does not
    // go to the kept blocks, to be handed out twice.
    freeMem(first);
    EXPECT_EQ(kelp::rt::answerBlocksKept(), keptBefore);
    EXPECT_STREQ(ask([](uint32_t *s) { return DataStoreReady(s); }).c_str(),
                 "<DataStoreReady><Code>0</Code></DataStoreReady>");
}

// Freeing the readiness answer frees no block another answer could be made
// in: an object's answer handed out before it is still read from its table.
TEST_F(QueriesTest, FreeingTheReadinessAnswerLeavesAnObjectsAnswerReadFromItsTable)
{
    load();
    uint32_t status = 99;
    char *object = GetSingleObject(&status, 0, 1);
    ASSERT_NE(object, nullptr);
    const size_t length = std::strlen(object);
    ASSERT_TRUE(kelp::rt::xml::findInFlatAnswer(object, length, "ObjID", 0).indexed);
    char *ready = DataStoreReady(&status);
    ASSERT_NE(ready, nullptr);
    freeMem(ready);
    EXPECT_TRUE(kelp::rt::xml::findInFlatAnswer(object, length, "ObjID", 0).indexed);
    EXPECT_EQ(value(object, "ObjID", 0), "1");
    freeMem(object);
}

// A readiness answer that comes back after another answer was freed, or is
// freed by another thread, takes the usual way; the next one is as good.
TEST_F(QueriesTest, AReadinessAnswerFreedAfterOthersOrElsewhereIsFreedAsAnyAnswer)
{
    load();
    uint32_t status = 99;
    char *ready = DataStoreReady(&status);
    char *object = GetSingleObject(&status, 0, 1);
    ASSERT_NE(ready, nullptr);
    ASSERT_NE(object, nullptr);
    freeMem(object);
    const size_t keptBefore = kelp::rt::answerBlocksKept();
    freeMem(ready);
    EXPECT_EQ(kelp::rt::answerBlocksKept(), keptBefore + 1) << "it went to the kept blocks";
    EXPECT_EQ(ask([](uint32_t *s) { return DataStoreReady(s); }),
              "<DataStoreReady><Code>0</Code></DataStoreReady>");

    ready = DataStoreReady(&status);
    ASSERT_NE(ready, nullptr);
    std::thread([ready] { freeMem(ready); }).join();
    char *next = DataStoreReady(&status);
    ASSERT_NE(next, nullptr);
    EXPECT_STREQ(next, "<DataStoreReady><Code>0</Code></DataStoreReady>");
    freeMem(next);
}

// The plug-in reads attribute after attribute of object after object from
// its copy of each answer; objects that list their attributes in other
// orders, or name one twice, answer every read as their own text does.
TEST_F(QueriesTest, EachObjectsAttributesAreReadWhereverItListsThem)
{
    const std::string distinct = "<storage ready='1'>"
                                 "<object id='1' type='adapters'><Nexus>0</Nexus>"
                                 "<A>a1</A><B>b1</B><C>c1</C></object>"
                                 "<object id='2' type='adapters'><Nexus>1</Nexus>"
                                 "<C>c2</C><A>a2</A></object>"
                                 "<object id='3' type='adapters'><B>b3</B><Nexus>2</Nexus>"
                                 "<A>a3</A><C>c3</C><D>d3</D></object>";
    const std::string repeated = "<object id='4' type='adapters'><Nexus>3</Nexus>"
                                 "<A>a4</A><B>b4</B><B>b4-second</B></object>";
    struct Case {
        std::string model;
        std::vector<uint32_t> ids;
        // for each of ids in turn: the values of A, B, B's second, C, D, Nexus
        std::vector<std::vector<std::string>> values;
    };
    const Case cases[] = {
        {distinct + "</storage>",
         {1, 2, 3},
         {{"a1", "b1", "-", "c1", "-", "0"},
          {"a2", "-", "-", "c2", "-", "1"},
          {"a3", "b3", "-", "c3", "d3", "2"}}},
        {distinct + repeated + "</storage>",
         {1, 4, 2, 3},
         {{"a1", "b1", "-", "c1", "-", "0"},
          {"a4", "b4", "b4-second", "-", "-", "3"},
          {"a2", "-", "-", "c2", "-", "1"},
          {"a3", "b3", "-", "c3", "d3", "2"}}},
    };
    for (const Case &c : cases) {
        std::string error;
        ASSERT_TRUE(ds::loadModelText(c.model, "test.xml", &error)) << error;
        for (int round = 0; round < 3; ++round) {
            for (size_t i = 0; i < c.ids.size(); ++i) {
                const uint32_t id = c.ids[i];
                SCOPED_TRACE("object " + std::to_string(id) + ", round " + std::to_string(round));
                const std::string text =
                    ask([id](uint32_t *s) { return GetSingleObject(s, 0, id); });
                const std::vector<std::string> read = {
                    value(text, "A", 0), value(text, "B", 0), value(text, "B", 1),
                    value(text, "C", 0), value(text, "D", 0), value(text, "Nexus", 0)};
                EXPECT_EQ(read, c.values[i]);
            }
        }
    }
}

TEST_F(QueriesTest, FreeMemReleasesHeapBlocksAndIgnoresNull)
{
    freeMem(static_cast<char *>(std::malloc(16)));
    freeMem(nullptr);
}

} // namespace
