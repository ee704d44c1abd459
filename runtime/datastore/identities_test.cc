// Ids handed out in list answers keep naming what they named then: after a
// load or a change gives an id to an object of another type or nexus, the
// queries about "this object" answer the object of the type and nexus the id
// was handed out with, under its new id, or as missing when the model has
// none, until a list hands the id out again; a reload of the same objects, a
// set Nexus and ids never handed out answer as before.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "datastore/identities.h"
#include "datastore/model_store.h"
#include "datastore/model_testing.h"
#include "vscil.h"

namespace {

namespace ds = kelp::ds;

// Disk 20 and fan 21 under enclosure 5.
constexpr char kBefore[] = R"(<storage ready="1">
  <object id="5" type="enclosures"><Nexus>0\0</Nexus></object>
  <object id="20" type="arraydisks" parent="5"><Nexus>0\0\1</Nexus><Name>Disk 1</Name></object>
  <object id="21" type="fans" parent="5"><Nexus>0\0\f</Nexus></object>
</storage>)";

// The same objects, values changed: a reload of the same file.
constexpr char kSameObjects[] = R"(<storage ready="1">
  <object id="5" type="enclosures"><Nexus>0\0</Nexus></object>
  <object id="20" type="arraydisks" parent="5"><Nexus>0\0\1</Nexus><Name>Disk A</Name></object>
  <object id="21" type="fans" parent="5"><Nexus>0\0\f</Nexus></object>
</storage>)";

// Id 20 is now a fan, id 21 a disk.
constexpr char kTypesSwapped[] = R"(<storage ready="1">
  <object id="5" type="enclosures"><Nexus>0\0</Nexus></object>
  <object id="20" type="fans" parent="5"><Nexus>0\0\f</Nexus></object>
  <object id="21" type="arraydisks" parent="5"><Nexus>0\0\1</Nexus><Name>Disk 1</Name></object>
</storage>)";

// Id 20 is a disk in another slot; the enclosure has lost its Nexus.
constexpr char kOtherNexus[] = R"(<storage ready="1">
  <object id="5" type="enclosures"/>
  <object id="20" type="arraydisks" parent="5"><Nexus>0\0\7</Nexus><Name>Disk 7</Name></object>
  <object id="21" type="fans" parent="5"><Nexus>0\0\f</Nexus></object>
</storage>)";

class IdentitiesTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        unsetenv("KELP_MODEL");
        ds::resetForTesting();
    }
    void TearDown() override { ds::resetForTesting(); }

    static void load(const char *text)
    {
        std::string error;
        ASSERT_TRUE(ds::loadModelText(text, "m.xml", &error)) << error;
    }
    template <typename Query> static std::string ask(Query query)
    {
        return ds::testing::answerText(query);
    }
    static std::string list(const char *type)
    {
        return ask([&](uint32_t *s) { return GetObjectList(s, type); });
    }
    static std::string single(uint32_t id)
    {
        return ask([&](uint32_t *s) { return GetSingleObject(s, 0, id); });
    }
    static std::string associated(const char *kind, uint32_t id)
    {
        return ask([&](uint32_t *s) { return GetAssociated(s, kind, id); });
    }
    static std::string count(const char *kind, uint32_t id)
    {
        return ask([&](uint32_t *s) { return GetAssociatedPhyDevCount(s, kind, id); });
    }
    // Whether an answer (one object's, or a list) holds the object id.
    static bool answers(const std::string &answer, uint32_t id)
    {
        return answer.find("<ObjID>" + std::to_string(id) + "</ObjID>") != std::string::npos;
    }
};

TEST_F(IdentitiesTest, AnIdReusedByAnotherTypeAfterALoadAnswersTheObjectItNamed)
{
    load(kBefore);
    list("arraydisks");
    list("fans");
    load(kTypesSwapped);
    // Disk 0\0\1 is id 21 now, the fan id 20: each id answers its object.
    EXPECT_EQ(single(20), "<ObjID>21</ObjID><Nexus>0\\0\\1</Nexus><Name>Disk 1</Name>");
    EXPECT_EQ(single(21), "<ObjID>20</ObjID><Nexus>0\\0\\f</Nexus>");
    EXPECT_TRUE(answers(associated("enclosures", 20), 5));
    EXPECT_EQ(count("arraydisks", 5), "<objectCount>1</objectCount>");
    EXPECT_TRUE(answers(single(5), 5)) << "the enclosure is what it was";
}

TEST_F(IdentitiesTest, AnIdReusedByAnotherTypeWhoseObjectLeftAnswersNothing)
{
    load(kBefore);
    list("arraydisks");
    load(R"(<storage ready="1">
  <object id="5" type="enclosures"><Nexus>0\0</Nexus></object>
  <object id="20" type="fans" parent="5"><Nexus>0\0\f</Nexus></object>
</storage>)");
    EXPECT_EQ(single(20), "<status 2>");
    EXPECT_EQ(associated("enclosures", 20), "<status 2>");
    EXPECT_EQ(count("enclosures", 20), "<status 2>");
}

TEST_F(IdentitiesTest, AnIdOfTheSameTypeWithAnotherNexusAnswersNothing)
{
    load(kBefore);
    list("arraydisks");
    list("enclosures");
    load(kOtherNexus);
    EXPECT_EQ(single(20), "<status 2>");
    EXPECT_EQ(single(5), "<status 2>") << "a Nexus gone is another nexus too";
    EXPECT_EQ(associated("arraydisks", 5), "<status 2>");
}

TEST_F(IdentitiesTest, AReloadOfTheSameObjectsAnswersAsBefore)
{
    load(kBefore);
    list("arraydisks");
    list("fans");
    load(kSameObjects);
    EXPECT_EQ(single(20), "<ObjID>20</ObjID><Nexus>0\\0\\1</Nexus><Name>Disk A</Name>");
    EXPECT_TRUE(answers(single(21), 21));
    EXPECT_EQ(count("fans", 5), "<objectCount>1</objectCount>");
}

TEST_F(IdentitiesTest, ANewListAnswerHandsTheIdOutAgain)
{
    load(kBefore);
    list("arraydisks");
    list("fans");
    load(kTypesSwapped);
    EXPECT_TRUE(answers(single(20), 21)) << "the disk it named";
    EXPECT_TRUE(answers(list("fans"), 20));
    EXPECT_EQ(single(20), "<ObjID>20</ObjID><Nexus>0\\0\\f</Nexus>");
    EXPECT_TRUE(answers(single(21), 20)) << "21 was not in that list: still the fan it named";
    // An association hands out the ids it answers too.
    EXPECT_TRUE(answers(associated("arraydisks", 5), 21));
    EXPECT_TRUE(answers(single(21), 21));
}

TEST_F(IdentitiesTest, IdsNeverHandedOutAnswerAsBefore)
{
    load(kBefore);
    EXPECT_TRUE(answers(single(20), 20)) << "a single object hands out no id";
    load(kTypesSwapped);
    EXPECT_EQ(single(20), "<ObjID>20</ObjID><Nexus>0\\0\\f</Nexus>");
    EXPECT_EQ(count("arraydisks", 5), "<objectCount>1</objectCount>");
}

TEST_F(IdentitiesTest, ASetNexusKeepsItsRowAndOtherChangesKeepTheirs)
{
    load(kBefore);
    list("arraydisks");
    std::string error;
    ASSERT_TRUE(ds::setAttribute(20, "Nexus", "0\\0\\9", &error)) << error;
    EXPECT_EQ(single(20), "<ObjID>20</ObjID><Nexus>0\\0\\9</Nexus><Name>Disk 1</Name>");
    ASSERT_TRUE(ds::setAttribute(20, "Name", "Disk 9", &error)) << error;
    EXPECT_EQ(single(20), "<ObjID>20</ObjID><Nexus>0\\0\\9</Nexus><Name>Disk 9</Name>");
    // A Nexus set where there was none names the object from then on.
    list("enclosures");
    load(kOtherNexus);
    list("enclosures");
    ASSERT_TRUE(ds::setAttribute(5, "Nexus", "0\\5", &error)) << error;
    EXPECT_EQ(single(5), "<ObjID>5</ObjID><Nexus>0\\5</Nexus>");
}

TEST_F(IdentitiesTest, ASetNexusOnAStaleIdLeavesItStale)
{
    load(kBefore);
    list("arraydisks");
    load(kOtherNexus);
    std::string error;
    ASSERT_TRUE(ds::setAttribute(20, "Nexus", "0\\0\\8", &error)) << error;
    EXPECT_EQ(single(20), "<status 2>");
    // Set back to the nexus it was handed out with, it is that object again.
    ASSERT_TRUE(ds::setAttribute(20, "Nexus", "0\\0\\1", &error)) << error;
    EXPECT_TRUE(answers(single(20), 20));
}

TEST_F(IdentitiesTest, AnIdRemovedAndAddedAsAnotherTypeAnswersNothing)
{
    load(kBefore);
    list("fans");
    std::string error;
    ASSERT_TRUE(ds::removeObject(21, &error)) << error;
    EXPECT_EQ(single(21), "<status 2>");
    ASSERT_TRUE(
        ds::addObjects("<object id='21' type='tempprobes'><Nexus>0\\0\\f</Nexus></object>", &error))
        << error;
    EXPECT_EQ(single(21), "<status 2>");
    ASSERT_TRUE(ds::removeObject(21, &error)) << error;
    ASSERT_TRUE(
        ds::addObjects("<object id='21' type='fans'><Nexus>0\\0\\f</Nexus></object>", &error))
        << error;
    EXPECT_TRUE(answers(single(21), 21)) << "the same fan again";
}

TEST_F(IdentitiesTest, AnIdAskedAboutAgainInTheSameModelIsNotWorkedOutAgain)
{
    load(kBefore);
    list("arraydisks");
    load(kTypesSwapped);
    // The first question finds the object the id names in the model.
    uint64_t before = ds::namedPositionsWorkedOut();
    EXPECT_TRUE(answers(single(20), 21));
    EXPECT_GT(ds::namedPositionsWorkedOut(), before);
    before = ds::namedPositionsWorkedOut();
    for (int i = 0; i < 50; i++) {
        ASSERT_TRUE(answers(single(20), 21));
        ASSERT_TRUE(answers(associated("enclosures", 20), 5));
    }
    EXPECT_EQ(ds::namedPositionsWorkedOut(), before);
    // The answer goes with its model: a reload of the same file asks again.
    load(kTypesSwapped);
    EXPECT_TRUE(answers(single(20), 21));
    EXPECT_GT(ds::namedPositionsWorkedOut(), before);
}

} // namespace
