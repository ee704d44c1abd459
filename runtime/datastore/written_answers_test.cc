// The kept single-object answers: found for their model and object only,
// slots shared by positions, the bound on their bytes, and GetSingleObject
// answering a change at once.
#include "datastore/written_answers.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "datastore/model.h"
#include "datastore/model_store.h"
#include "datastore/model_testing.h"
#include "vscil.h"
#include "xmlsup.h"

namespace {

namespace ds = kelp::ds;
using kelp::rt::xml::FlatElement;

class WrittenAnswersTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        unsetenv("KELP_MODEL");
        ds::resetForTesting();
    }
    void TearDown() override { ds::resetForTesting(); }
    // The test model, loaded anew: each load is another model.
    static std::shared_ptr<const ds::Model> load()
    {
        std::string error;
        EXPECT_TRUE(ds::loadModelText(ds::testing::kTestModel, "test.xml", &error)) << error;
        return ds::servedModel();
    }
};

// GetSingleObject's answer as text ("-" for none), released.
std::string single(uint32_t id)
{
    uint32_t status = 99;
    char *xml = GetSingleObject(&status, 0, id);
    if (xml == nullptr)
        return "-";
    std::string text = xml;
    freeMem(xml);
    return text;
}

// The occurrence-th value of tag in xml as the plug-in reads it, or "-".
std::string value(const char *xml, const char *tag)
{
    char out[160];
    uint32_t size = sizeof out;
    if (XMLSupGetXMLMemData(0, tag, 1, 0, 1, &size, out, 0, nullptr, xml,
                            static_cast<uint32_t>(std::strlen(xml))) != 0) {
        return "-";
    }
    return out;
}

TEST_F(WrittenAnswersTest, AnAnswerIsFoundForItsModelAndObjectOnly)
{
    std::shared_ptr<const ds::Model> first = load();
    ASSERT_NE(first, nullptr);
    ds::WrittenAnswers kept(16, 1 << 20);
    const std::string text = first->answer(3);
    kept.keep(*first, 3, text.data(), text.size(), false, {});
    const std::optional<ds::WrittenAnswer> found = kept.find(*first, 3);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->text, text);
    EXPECT_FALSE(found->listed);
    EXPECT_FALSE(kept.find(*first, 4));
    // The same file loaded again is another model: its answers may differ
    // from what was kept, so nothing is found for it.
    std::shared_ptr<const ds::Model> second = load();
    ASSERT_NE(second, nullptr);
    EXPECT_NE(second->serial(), first->serial());
    EXPECT_FALSE(kept.find(*second, 3));
    EXPECT_TRUE(kept.find(*first, 3));
}

TEST_F(WrittenAnswersTest, PositionsThatShareASlotTakeItInTurn)
{
    std::shared_ptr<const ds::Model> m = load();
    ASSERT_NE(m, nullptr);
    ASSERT_GE(m->size(), 4u);
    ds::WrittenAnswers kept(2, 1 << 20);
    const std::string zero = m->answer(0), two = m->answer(2), one = m->answer(1);
    kept.keep(*m, 0, zero.data(), zero.size(), false, {});
    kept.keep(*m, 1, one.data(), one.size(), false, {});
    EXPECT_EQ(kept.slots(), 2u);
    ASSERT_TRUE(kept.find(*m, 0));
    kept.keep(*m, 2, two.data(), two.size(), false, {});
    EXPECT_FALSE(kept.find(*m, 0));
    ASSERT_TRUE(kept.find(*m, 2));
    EXPECT_EQ(kept.find(*m, 2)->text, two);
    ASSERT_TRUE(kept.find(*m, 1));
    EXPECT_EQ(kept.find(*m, 1)->text, one);
}

TEST_F(WrittenAnswersTest, ASmallModelGetsASlotPerObjectAndNoMore)
{
    std::shared_ptr<const ds::Model> m = load();
    ASSERT_NE(m, nullptr);
    ds::WrittenAnswers kept(4096, 1 << 20);
    const std::string text = m->answer(0);
    kept.keep(*m, 0, text.data(), text.size(), false, {});
    EXPECT_GE(kept.slots(), m->size());
    EXPECT_LT(kept.slots(), 2 * m->size());
    // No answer is kept at all with no slots.
    ds::WrittenAnswers none(0, 1 << 20);
    none.keep(*m, 0, text.data(), text.size(), false, {});
    EXPECT_FALSE(none.find(*m, 0));
}

TEST_F(WrittenAnswersTest, AnAnswerIsFoundUntilTheRingComesRoundToIt)
{
    std::shared_ptr<const ds::Model> m = load();
    ASSERT_NE(m, nullptr);
    const std::string text(100, 'x');
    const std::vector<FlatElement> elements{{1, 2, 3, 4}, {5, 6, 7, 8}};
    // Each answer takes 132 bytes of a ring of 300.
    ds::WrittenAnswers kept(16, 300);
    EXPECT_EQ(kept.ringBytes(), 0u);
    kept.keep(*m, 0, text.data(), text.size(), true, elements);
    EXPECT_EQ(kept.ringBytes(), 300u);
    ASSERT_TRUE(kept.find(*m, 0));
    EXPECT_EQ(kept.find(*m, 0)->text, text);
    ASSERT_EQ(kept.find(*m, 0)->elements.size(), 2u);
    EXPECT_EQ(kept.find(*m, 0)->elements[1].contentStart, 7u);
    EXPECT_TRUE(kept.find(*m, 0)->listed);
    const std::string second(100, 'y');
    kept.keep(*m, 1, second.data(), second.size(), true, elements);
    ASSERT_TRUE(kept.find(*m, 1));
    ASSERT_TRUE(kept.find(*m, 0));
    // The third does not fit before the ring's end: it is written at its
    // start, over the first, which is then no longer found.
    const std::string third(100, 'z');
    kept.keep(*m, 2, third.data(), third.size(), false, elements);
    EXPECT_FALSE(kept.find(*m, 0));
    ASSERT_TRUE(kept.find(*m, 1));
    EXPECT_EQ(kept.find(*m, 1)->text, second);
    ASSERT_TRUE(kept.find(*m, 2));
    EXPECT_EQ(kept.find(*m, 2)->text, third);
    EXPECT_FALSE(kept.find(*m, 2)->listed);
    EXPECT_TRUE(kept.find(*m, 2)->elements.empty());
    // An answer longer than the ring is not kept, and its slot names
    // nothing afterwards.
    const std::string longer(400, 'w');
    kept.keep(*m, 1, longer.data(), longer.size(), false, {});
    EXPECT_FALSE(kept.find(*m, 1));
    ASSERT_TRUE(kept.find(*m, 2));
    EXPECT_EQ(kept.find(*m, 2)->text, third);
}

TEST_F(WrittenAnswersTest, AnObjectAskedForAgainAnswersTheSameTextAndValues)
{
    std::shared_ptr<const ds::Model> m = load();
    ASSERT_NE(m, nullptr);
    for (int round = 0; round < 3; ++round) {
        for (size_t pos = 0; pos < m->size(); ++pos) {
            uint32_t status = 99;
            char *xml = GetSingleObject(&status, 0, m->idOf(pos));
            ASSERT_NE(xml, nullptr);
            EXPECT_EQ(std::string(xml), m->answer(pos));
            // Read through the element table the thread remembers with it.
            for (size_t i = 0; i < m->attributeCount(pos); ++i) {
                const std::string name(m->attributeName(pos, i));
                EXPECT_EQ(value(xml, name.c_str()), std::string(*m->attribute(pos, name)))
                    << "object " << m->idOf(pos) << " " << name << " round " << round;
            }
            freeMem(xml);
        }
    }
}

TEST_F(WrittenAnswersTest, AChangedObjectIsAnsweredAsChangedAtOnce)
{
    load();
    EXPECT_EQ(single(41), "<ObjID>41</ObjID><Nexus>v41</Nexus><ParentVDID>40</ParentVDID>");
    EXPECT_EQ(single(41), "<ObjID>41</ObjID><Nexus>v41</Nexus><ParentVDID>40</ParentVDID>");
    std::string error;
    ASSERT_TRUE(ds::setAttribute(41, "ParentVDID", "7", &error)) << error;
    EXPECT_EQ(single(41), "<ObjID>41</ObjID><Nexus>v41</Nexus><ParentVDID>7</ParentVDID>");
    // A load of the same file answers what it holds again.
    load();
    EXPECT_EQ(single(41), "<ObjID>41</ObjID><Nexus>v41</Nexus><ParentVDID>40</ParentVDID>");
    ASSERT_TRUE(ds::removeObject(41, &error)) << error;
    EXPECT_EQ(single(41), "-");
}

} // namespace
