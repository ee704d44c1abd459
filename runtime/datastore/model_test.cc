// Storage models: what a valid file gives (answers, types, parents, links,
// associations), and a table of invalid files, each refused with a message
// naming the file and line.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "datastore/model.h"
#include "datastore/model_testing.h"
#include "datastore/plain_answers_testing.h"

namespace {

using kelp::ds::Model;
using kelp::ds::ModelData;

std::shared_ptr<const Model> build(const std::string &text, std::string *error)
{
    ModelData data;
    if (!kelp::ds::parseModelText(text, "m.xml", &data, error))
        return nullptr;
    return Model::build(std::move(data), error);
}

std::shared_ptr<const Model> testModel()
{
    std::string error;
    auto m = build(kelp::ds::testing::kTestModel, &error);
    EXPECT_NE(m, nullptr) << error;
    return m;
}

// Ids of the objects at positions.
std::vector<uint32_t> ids(const Model &m, const std::vector<size_t> &positions)
{
    std::vector<uint32_t> out;
    for (size_t p : positions)
        out.push_back(m.idOf(p));
    return out;
}

std::vector<uint32_t> associated(const Model &m, const char *kind, uint32_t id)
{
    return ids(m, m.associated(kind, *m.find(id)));
}

TEST(ModelTest, AnswersStartWithTheIdAndKeepAttributesInOrder)
{
    auto m = testModel();
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(m->answer(*m->find(1)), "<ObjID>1</ObjID><Nexus>0</Nexus><Name>Vorn RX-240</Name>");
    EXPECT_EQ(m->answer(*m->find(20)),
              "<ObjID>20</ObjID><Nexus>0\\0\\0\\20</Nexus><ObjStatus>2</ObjStatus>"
              "<PreviousStatus>1</PreviousStatus>"
              "<AttributesMask>0000000000000000000000100</AttributesMask>"
              "<Vendor>R&amp;D</Vendor>");
    const size_t disk = *m->find(20);
    EXPECT_EQ(m->attributeValue(disk, m->attributeCount(disk) - 1), "R&D");
    EXPECT_FALSE(m->find(3).has_value());
}

TEST(ModelTest, StorageAttributesGiveReadinessThermalShutdownAndTags)
{
    auto m = testModel();
    ASSERT_NE(m, nullptr);
    EXPECT_TRUE(m->ready());
    EXPECT_EQ(m->thermalShutdown(), 3u);
    EXPECT_EQ(m->storageAttribute("chassisServiceTag").value_or(""), "7XYZ123");
    EXPECT_FALSE(m->storageAttribute("nothing").has_value());

    std::string error;
    auto bare = build("<storage/>", &error);
    ASSERT_NE(bare, nullptr) << error;
    EXPECT_TRUE(bare->ready()) << "a model that says nothing is ready";
    EXPECT_EQ(bare->thermalShutdown(), 0u);
    auto notReady = build("<storage ready=\"0\"/>", &error);
    ASSERT_NE(notReady, nullptr) << error;
    EXPECT_FALSE(notReady->ready());
}

TEST(ModelTest, ObjectsOfATypeComeInFileOrder)
{
    auto m = testModel();
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(ids(*m, m->ofType("arraydisks")), (std::vector<uint32_t>{20, 21, 22}));
    EXPECT_EQ(ids(*m, m->ofType("adapters")), (std::vector<uint32_t>{1, 60}));
    EXPECT_TRUE(m->ofType("Adapters").empty()) << "type names are exact";
    EXPECT_TRUE(m->ofType("emms").empty());
}

// Id of the object findByNexus answers, or 0 when it answers none.
uint32_t idByNexus(const Model &m, const char *type, const char *nexus)
{
    std::optional<size_t> pos = m.findByNexus(type, nexus);
    return pos ? m.idOf(*pos) : 0;
}

TEST(ModelTest, ObjectsAreFoundByTypeAndExactNexus)
{
    auto m = testModel();
    ASSERT_NE(m, nullptr);
    EXPECT_EQ(idByNexus(*m, "adapters", "0"), 1u);
    EXPECT_EQ(idByNexus(*m, "adapters", "1"), 60u);
    EXPECT_EQ(idByNexus(*m, "arraydisks", "0\\0\\22"), 22u);
    EXPECT_EQ(idByNexus(*m, "arraydisks", "0\\0\\0\\21"), 21u);
    EXPECT_EQ(idByNexus(*m, "enclosures", "0\\0\\0"), 5u);
    EXPECT_EQ(idByNexus(*m, "arraydisks", "0\\0\\0"), 0u) << "the enclosure's nexus, not a disk's";
    EXPECT_EQ(idByNexus(*m, "bus", "0"), 0u) << "the type is part of the key";
    EXPECT_EQ(idByNexus(*m, "adapters", "0 "), 0u) << "exact text";
    EXPECT_EQ(idByNexus(*m, "adapters", ""), 0u);
    EXPECT_EQ(idByNexus(*m, "Adapters", "0"), 0u) << "type names are exact";
    EXPECT_EQ(idByNexus(*m, "no such type", "0"), 0u);
}

TEST(ModelTest, ARepeatedNexusFindsTheFirstObjectByItsFirstNexus)
{
    std::string error;
    auto m = build("<storage><object id='7' type='fans'><Nexus>a</Nexus><Nexus>b</Nexus></object>"
                   "<object id='3' type='fans'><Nexus>a</Nexus></object>"
                   "<object id='4' type='fans'><Name>no nexus</Name></object></storage>",
                   &error);
    ASSERT_NE(m, nullptr) << error;
    EXPECT_EQ(idByNexus(*m, "fans", "a"), 7u) << "first in file order";
    EXPECT_EQ(idByNexus(*m, "fans", "b"), 0u) << "only the first Nexus counts";
}

TEST(ModelTest, AssociationsAreAncestorsDescendantsAndLinksOfTheKind)
{
    auto m = testModel();
    ASSERT_NE(m, nullptr);
    using V = std::vector<uint32_t>;
    EXPECT_EQ(associated(*m, "arraydisks", 1), (V{20, 21, 22})) << "descendants";
    EXPECT_EQ(associated(*m, "arraydisks", 5), (V{20, 21}));
    EXPECT_EQ(associated(*m, "enclosures", 20), (V{5})) << "ancestor";
    EXPECT_EQ(associated(*m, "enclosures", 22), V{}) << "a disk on the channel has none";
    EXPECT_EQ(associated(*m, "adapters", 20), (V{1}));
    EXPECT_EQ(associated(*m, "bus", 20), (V{2}));
    EXPECT_EQ(associated(*m, "vdisks", 1), (V{40, 41}));
    EXPECT_EQ(associated(*m, "vdisks", 20), (V{40})) << "link";
    EXPECT_EQ(associated(*m, "vdisks", 21), (V{41}));
    EXPECT_EQ(associated(*m, "arraydisks", 40), (V{20})) << "links go both ways";
    EXPECT_EQ(associated(*m, "VDPartitionNode", 40), (V{50}));
    EXPECT_EQ(associated(*m, "vdisks", 50), (V{40}));
    EXPECT_EQ(associated(*m, "adapters", 80), (V{60}));
    EXPECT_EQ(associated(*m, "vdisks", 40), (V{41})) << "itself excluded";
    EXPECT_EQ(associated(*m, "no such kind", 1), V{});
}

TEST(ModelTest, RepeatedAttributesAndLinksAreKept)
{
    std::string error;
    auto m = build("<storage><object id='1' type='adapters'><A>1</A><A>2</A></object>"
                   "<object id='2' type='vdisks'/><link a='1' b='2'/><link a='2' b='1'/>"
                   "</storage>",
                   &error);
    ASSERT_NE(m, nullptr) << error;
    EXPECT_EQ(m->answer(0), "<ObjID>1</ObjID><A>1</A><A>2</A>");
    EXPECT_EQ(associated(*m, "vdisks", 1), (std::vector<uint32_t>{2}));
}

// Names that two objects share, or that objects list in other orders,
// are distinct; one object naming an attribute twice is not, wherever it
// stands in the model.
TEST(ModelTest, ItKnowsWhetherAnyObjectNamesAnAttributeTwice)
{
    const std::string first = "<object id='1' type='adapters'><A>1</A><B>2</B></object>";
    const std::string second = "<object id='2' type='fans'><B>3</B><A>4</A></object>";
    const std::string twice = "<object id='3' type='fans'><A>5</A><B>6</B><A>7</A></object>";
    const std::string none = "<object id='4' type='vdisks'/>";
    const struct {
        std::string objects;
        bool distinct;
    } cases[] = {
        {"", true},
        {first + second + none, true},
        {twice + first + second, false},
        {first + twice + second, false},
        {first + second + twice, false},
    };
    for (const auto &c : cases) {
        std::string error;
        auto m = build("<storage>" + c.objects + "</storage>", &error);
        ASSERT_NE(m, nullptr) << error;
        EXPECT_EQ(m->hasDistinctNames(), c.distinct) << c.objects;
    }
    std::string error;
    auto sample = build(kelp::ds::testing::kTestModel, &error);
    ASSERT_NE(sample, nullptr) << error;
    EXPECT_TRUE(sample->hasDistinctNames());
}

struct BadCase {
    const char *name;
    std::string body; // inside <storage ...> on line 1; the body starts on line 2
    const char *message;
    uint32_t line;
};

std::string longText(size_t n)
{
    return std::string(n, 'x');
}

const BadCase kBadCases[] = {
    {"unknown element", "<thing/>", "unexpected <thing>", 2},
    {"text inside storage", "\n  words", "text directly inside <storage>", 3},
    {"object without id", "<object type='fans'/>", "has no id attribute", 2},
    {"id 0", "<object id='0' type='fans'/>", "id=\"0\" is not an object id", 2},
    {"id above 32 bits", "<object id='4294967296' type='fans'/>", "is not an object id", 2},
    {"id with a sign", "<object id='+1' type='fans'/>", "is not an object id", 2},
    {"negative id", "<object id='-1' type='fans'/>", "is not an object id", 2},
    {"id with blanks", "<object id=' 1' type='fans'/>", "is not an object id", 2},
    {"id not a number", "<object id='x1' type='fans'/>", "is not an object id", 2},
    {"bad parent", "<object id='1' type='fans' parent='one'/>", "parent=\"one\"", 2},
    {"unknown attribute", "<object id='1' type='fans' kind='x'/>", "unknown attribute kind", 2},
    {"object without type", "<object id='1'/>", "has no type attribute", 2},
    {"unknown type", "\n<object id='7' type='adapter'/>", "object 7: unknown type \"adapter\"", 3},
    {"text inside object", "<object id='1' type='fans'>\nx</object>", "text directly inside", 3},
    {"attribute element with attributes", "<object id='1' type='fans'>\n<Name v='1'/></object>",
     "has XML attributes", 3},
    {"attribute element with elements", "<object id='1' type='fans'><Name>\n<b/></Name></object>",
     "holds elements", 3},
    {"elements too deep", "<object id='1' type='fans'><N><b><c/></b></N></object>", "nested deeper",
     2},
    {"ObjID as an attribute", "<object id='1' type='fans'><ObjID>2</ObjID></object>",
     "object 1: ObjID is no attribute: the id attribute gives it", 2},
    {"value over 159 bytes",
     "<object id='9' type='fans'><Name>" + longText(160) + "</Name></object>",
     "object 9: Name has 160 bytes, over the limit of 159", 2},
    {"value over 159 bytes after decoding",
     "<object id='9' type='fans'><Name>" + longText(158) + "&#x20AC;</Name></object>",
     "Name has 161 bytes", 2},
    {"duplicate id", "<object id='5' type='fans'/>\n<object id='5' type='emms'/>",
     "duplicate object id 5 (first at m.xml:2)", 3},
    {"unknown parent", "<object id='5' type='fans' parent='6'/>",
     "object 5: parent 6 is not an object of the model", 2},
    {"own parent", "<object id='5' type='fans' parent='5'/>", "object 5 is its own ancestor", 2},
    {"parent loop",
     "<object id='1' type='fans' parent='3'/><object id='2' type='fans' parent='1'/>"
     "\n<object id='3' type='fans' parent='2'/>",
     "is its own ancestor", 2},
    {"link to nothing", "<object id='1' type='fans'/>\n<link a='1' b='2'/>", "no object 2", 3},
    {"link to itself", "<object id='1' type='fans'/><link a='1' b='1'/>", "to itself", 2},
    {"link without an end", "<link a='1'/>", "<link> has no b attribute", 2},
    {"link with content", "<link a='1' b='2'>x</link>", "<link> holds something", 2},
    {"link with an unknown attribute", "<link a='1' b='2' c='3'/>", "unknown attribute c", 2},
    {"malformed XML", "<object id='1' type='fans'>\n</objekt>", "does not close <object>", 3},
};

TEST(ModelTest, InvalidModelsAreRefusedNamingFileAndLine)
{
    for (const auto &c : kBadCases) {
        std::string error;
        auto m = build("<storage>\n" + c.body + "</storage>", &error);
        EXPECT_EQ(m, nullptr) << c.name;
        const std::string where = "m.xml:" + std::to_string(c.line) + ": ";
        EXPECT_EQ(error.rfind(where, 0), 0u) << c.name << ": " << error;
        EXPECT_NE(error.find(c.message), std::string::npos) << c.name << ": " << error;
    }
}

TEST(ModelTest, StorageAttributesAreChecked)
{
    const std::string tooLong = longText(160);
    const std::pair<std::string, std::string> cases[] = {
        {"<storage ready='yes'/>", "ready=\"yes\" is neither 0 nor 1"},
        {"<storage thermalShutdown='-1'/>", "thermalShutdown=\"-1\" is not a number"},
        {"<storage thermalShutdown='4294967296'/>", "is not a number"},
        {"<store/>", "the root element is <store>, not <storage>"},
        {"", "no root element"},
        {"<storage url='" + tooLong + "'/>", "url has 160 bytes, over the limit of 159"},
        {"<storage chassisServiceTag='" + tooLong + "'/>",
         "chassisServiceTag has 160 bytes, over the limit of 159"},
        {"<storage baseBoardServiceTag='" + tooLong + "'/>",
         "baseBoardServiceTag has 160 bytes, over the limit of 159"},
        {"<storage ready='" + std::string(160, '1') + "'/>",
         "ready has 160 bytes, over the limit of 159"},
        {"<storage thermalShutdown='" + std::string(160, '0') + "'/>",
         "thermalShutdown has 160 bytes, over the limit of 159"},
        {"<storage url='" + longText(158) + "&#x20AC;'/>", "url has 161 bytes"},
    };
    for (const auto &[text, message] : cases) {
        std::string error;
        EXPECT_EQ(build(text, &error), nullptr) << text;
        EXPECT_NE(error.find(message), std::string::npos) << text << ": " << error;
        EXPECT_EQ(error.rfind("m.xml:1: ", 0), 0u) << error;
    }
}

TEST(ModelTest, StorageAttributeOf159BytesIsServedWhole)
{
    std::string error;
    auto m = build("<storage url='" + longText(159) + "'/>", &error);
    ASSERT_NE(m, nullptr) << error;
    EXPECT_EQ(m->storageAttribute("url"), longText(159));
}

TEST(ModelTest, AnObjectAnswerMayFill64KiBAndNoMore)
{
    kelp::ds::ObjectData o;
    o.id = 1;
    o.type = "vdisks";
    while (kelp::ds::testing::plainObjectAnswer(o).size() + 1 < 65536 - 200)
        o.attributes.emplace_back("Attr", longText(150));
    // Bring the answer with its NUL to exactly 65,536 bytes.
    size_t size = kelp::ds::testing::plainObjectAnswer(o).size() + 1;
    o.attributes.emplace_back("A", longText(65536 - size - 7));
    ASSERT_EQ(kelp::ds::testing::plainObjectAnswer(o).size() + 1, 65536u);
    ModelData data;
    data.origins = {"m.xml"};
    data.objects = {o};
    std::string error;
    EXPECT_NE(Model::build(data, &error), nullptr) << error;
    data.objects[0].attributes.back().second += "x";
    EXPECT_EQ(Model::build(data, &error), nullptr);
    EXPECT_NE(error.find("its text is 65536 bytes, over the limit of 65535"), std::string::npos)
        << error;
}

TEST(ModelTest, ValuesAndNamesSetOutsideAFileAreCheckedToo)
{
    ModelData data;
    data.origins = {"m.xml"};
    kelp::ds::ObjectData o;
    o.id = 1;
    o.type = "fans";
    o.attributes = {{"Name", std::string("a\0b", 3)}};
    data.objects = {o};
    std::string error;
    EXPECT_EQ(Model::build(data, &error), nullptr);
    EXPECT_NE(error.find("Name is not UTF-8 text without control characters"), std::string::npos)
        << error;
    data.objects[0].attributes = {{"bad name", "x"}};
    EXPECT_EQ(Model::build(data, &error), nullptr);
    EXPECT_NE(error.find("object 1: \"bad name\" is not an attribute name"), std::string::npos)
        << error;
}

TEST(ModelTest, StorageAttributesSetOutsideAFileMustBeWritableInOne)
{
    const struct {
        kelp::ds::Attributes storage;
        const char *message;
    } kCases[] = {
        {{{"url", "a"}, {"url", "b"}}, "attribute url of <storage> repeated"},
        {{{"", "x"}}, "\"\" is not an attribute name"},
        {{{"two words", "x"}}, "\"two words\" is not an attribute name"},
        {{{"\xC3", "x"}}, "is not an attribute name"},
    };
    for (const auto &c : kCases) {
        ModelData data;
        data.origins = {"m.xml"};
        data.storage = c.storage;
        std::string error;
        EXPECT_EQ(Model::build(data, &error), nullptr) << c.message;
        EXPECT_NE(error.find(c.message), std::string::npos) << error;
    }
    ModelData data;
    data.origins = {"m.xml"};
    kelp::ds::ObjectData o;
    o.id = 1;
    o.type = "fans";
    o.attributes = {{"N\xC3", "x"}};
    data.objects = {o};
    std::string error;
    EXPECT_EQ(Model::build(data, &error), nullptr);
    EXPECT_NE(error.find("is not an attribute name"), std::string::npos) << error;
}

TEST(ModelTest, FragmentsAppendUnderTheirOwnOriginOrNotAtAll)
{
    ModelData data;
    std::string error;
    ASSERT_TRUE(kelp::ds::parseModelText(kelp::ds::testing::kTestModel, "m.xml", &data, &error));
    const size_t objects = data.objects.size();
    ASSERT_TRUE(kelp::ds::parseModelFragment(
        "<object id='90' type='fans' parent='5'/>\n<link a='90' b='60'/>", "added", &data, &error))
        << error;
    EXPECT_EQ(data.objects.size(), objects + 1);
    EXPECT_EQ(data.place(data.links.back().where), "added:2");
    EXPECT_FALSE(kelp::ds::parseModelFragment("<object id='91' type='fans'/>\n<bad/>", "added",
                                              &data, &error));
    EXPECT_EQ(error, "added:2: unexpected <bad> (a model holds <object> and <link>)");
    EXPECT_EQ(data.objects.size(), objects + 1) << "nothing of a bad fragment is kept";
    EXPECT_FALSE(kelp::ds::parseModelFragment(" ", "added", &data, &error));
    EXPECT_EQ(error, "added: no <object> or <link> element");
    EXPECT_FALSE(kelp::ds::parseModelFragment("<a><b><c/></b></a>", "added", &data, &error));
}

TEST(ModelTest, TypeTableMatchesTheEventCodes)
{
    EXPECT_EQ(kelp::ds::kObjectTypeCount, 16u);
    EXPECT_EQ(kelp::ds::objectTypeIndex("adapters"), 0);
    EXPECT_EQ(kelp::ds::objectTypeIndex("NVMeAdapter"), 15);
    EXPECT_EQ(kelp::ds::objectTypeIndex("nvmeadapter"), -1);
}

// Random damage to a valid model gives a model or an error, never a fault
// (the sanitizer build checks memory).
TEST(ModelTest, SurvivesRandomDamage)
{
    const std::string good = kelp::ds::testing::kTestModel;
    std::mt19937 rng(1311);
    const char kBytes[] = "<>/&;=\"' 0123456789x\n";
    for (int round = 0; round < 3000; ++round) {
        std::string text = good;
        for (int e = 0; e < 3; ++e) {
            size_t at = rng() % text.size();
            if (rng() % 2 == 0)
                text[at] = kBytes[rng() % (sizeof kBytes - 1)];
            else
                text.erase(at, 1 + rng() % 16);
        }
        std::string error;
        auto m = build(text, &error);
        if (m == nullptr) {
            EXPECT_EQ(error.rfind("m.xml:", 0), 0u) << error;
            continue;
        }
        for (size_t p = 0; p < m->size(); ++p)
            EXPECT_LE(m->associated("arraydisks", p).size(), m->size());
    }
}

} // namespace
