// Every query of the data store, on the sample model, a generated model and
// models of awkward values, answers byte for byte what the plain reading of
// the model data (plain_answers_testing.h) answers: the compact model shares
// names and values between objects and makes answers on demand, and none of
// that may show in an answer.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "datastore/model.h"
#include "datastore/model_store.h"
#include "datastore/model_testing.h"
#include "datastore/model_writer.h"
#include "datastore/plain_answers_testing.h"
#include "vscil.h"
#include "xmlsup.h"
#include "xmlsup/flat_answer.h"

namespace {

namespace ds = kelp::ds;
using ds::testing::plainAssociated;
using ds::testing::plainList;
using ds::testing::plainObjectAnswer;
using ds::testing::plainOfType;

using ds::testing::answerText;

std::string readFile(const std::filesystem::path &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

std::filesystem::path sourceDir()
{
    const char *dir = std::getenv("KELP_SOURCE_DIR");
    return dir != nullptr ? dir : KELP_SOURCE_DIR_FALLBACK;
}

// The object's elements read through the XML library as the plug-in reads
// them, in its answer and in a copy of it: from the element table the
// answer leaves on this thread, and from a scan once it is forgotten, alike.
void expectSameLookUps(const ds::ObjectData &o)
{
    uint32_t status = 99;
    char *answer = GetSingleObject(&status, 0, o.id);
    ASSERT_NE(answer, nullptr) << "object " << o.id;
    const std::string copy = answer;
    std::vector<std::string> tags = {"ObjID", "Missing"};
    for (const auto &attribute : o.attributes)
        tags.push_back(attribute.first);
    auto read = [](const char *text, const std::string &tag, uint32_t occurrence) {
        char out[1024];
        uint32_t size = sizeof out;
        const uint32_t code =
            XMLSupGetXMLMemData(0, tag.c_str(), 1, occurrence, 1, &size, out, 0, nullptr, text,
                                static_cast<uint32_t>(std::strlen(text)));
        return code == 0 ? std::string(out) : "<status " + std::to_string(code) + ">";
    };
    std::vector<std::string> fromTable;
    for (const char *text : {static_cast<const char *>(answer), copy.c_str()}) {
        for (const std::string &tag : tags) {
            for (uint32_t occurrence = 0; occurrence < 3; occurrence++) {
                EXPECT_EQ(kelp::rt::xml::findInFlatAnswer(text, std::strlen(text), tag, occurrence)
                              .indexed,
                          kelp::rt::xml::isFlatName(tag))
                    << "object " << o.id << ", " << tag;
                fromTable.push_back(read(text, tag, occurrence));
            }
        }
    }
    kelp::rt::xml::forgetFlatAnswer();
    size_t i = 0;
    for (const char *text : {static_cast<const char *>(answer), copy.c_str()}) {
        for (const std::string &tag : tags) {
            for (uint32_t occurrence = 0; occurrence < 3; occurrence++) {
                EXPECT_EQ(fromTable[i++], read(text, tag, occurrence))
                    << "object " << o.id << ", " << tag << " #" << occurrence;
            }
        }
    }
    freeMem(answer);
}

// Serves `model` and compares every answer with the plain reading of it.
void expectSameAnswers(const std::string &model, const std::string &what)
{
    SCOPED_TRACE(what);
    ds::ModelData data;
    std::string error;
    ASSERT_TRUE(ds::parseModelText(model, what, &data, &error)) << error;
    ds::resetForTesting();
    ASSERT_TRUE(ds::loadModelText(model, what, &error)) << error;

    EXPECT_EQ(answerText(DataStoreReady), std::string("<DataStoreReady><Code>") +
                                              (ds::servedModel()->ready() ? "0" : "1") +
                                              "</Code></DataStoreReady>");
    for (const auto &type : ds::kObjectTypes) {
        const std::string name(type.name);
        const std::vector<size_t> positions = plainOfType(data, name);
        EXPECT_EQ(answerText([&](uint32_t *s) { return GetObjectList(s, name.c_str()); }),
                  positions.empty() ? "<status 2>" : plainList(data, positions))
            << name;
    }
    EXPECT_EQ(answerText([](uint32_t *s) { return GetObjectList(s, "nothing"); }), "<status 2>");

    uint32_t largest = 0;
    for (size_t pos = 0; pos < data.objects.size(); ++pos) {
        const ds::ObjectData &o = data.objects[pos];
        largest = std::max(largest, o.id);
        EXPECT_EQ(answerText([&](uint32_t *s) { return GetSingleObject(s, 0, o.id); }),
                  plainObjectAnswer(o))
            << "object " << o.id;
        expectSameLookUps(o);
        for (const auto &kind : ds::kObjectTypes) {
            const std::string name(kind.name);
            const std::vector<size_t> related = plainAssociated(data, name, pos);
            EXPECT_EQ(answerText([&](uint32_t *s) { return GetAssociated(s, name.c_str(), o.id); }),
                      related.empty() ? "<status 2>" : plainList(data, related))
                << "object " << o.id << ", " << name;
            EXPECT_EQ(answerText([&](uint32_t *s) {
                          return GetAssociatedPhyDevCount(s, name.c_str(), o.id);
                      }),
                      "<objectCount>" + std::to_string(related.size()) + "</objectCount>")
                << "object " << o.id << ", " << name;
        }
    }
    if (largest < UINT32_MAX) {
        EXPECT_EQ(answerText([&](uint32_t *s) { return GetSingleObject(s, 0, largest + 1); }),
                  "<status 2>");
    }
    // The model as a writer sees it is the data it was built from.
    EXPECT_EQ(ds::modelText(*ds::servedModel()), ds::modelText(data));
    ds::resetForTesting();
}

TEST(AnswersCompareTest, TheSharedTestModel)
{
    expectSameAnswers(ds::testing::kTestModel, "test model");
}

TEST(AnswersCompareTest, TheSampleModel)
{
    const std::string sample = readFile(sourceDir() / "data" / "models" / "sample.xml");
    ASSERT_FALSE(sample.empty());
    expectSameAnswers(sample, "sample.xml");
}

TEST(AnswersCompareTest, AGeneratedModel)
{
    const std::string file = ::testing::TempDir() + "kelp-compare-generated.xml";
    const std::string command =
        std::string(KELPGEN_PATH) + " --disks 48 --disks-per-controller 16 --out " + file;
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    const std::string model = readFile(file);
    std::remove(file.c_str());
    ASSERT_FALSE(model.empty());
    expectSameAnswers(model, "generated");
}

// Values that need escaping or are shared between names, objects and types;
// names repeated in one object; objects without attributes or Nexus; the
// longest value; text that is not ASCII; links given twice.
TEST(AnswersCompareTest, AwkwardValuesAndShapes)
{
    const std::string longest(159, 'v');
    const std::string model = R"(<storage ready="0" thermalShutdown="7">
  <object id="4294967295" type="adapters"><Nexus>0</Nexus><Name>a &amp; b &lt;c&gt; "d" 'e'</Name>
    <Name>second</Name><Nexus>again</Nexus><Empty></Empty><Empty/></object>
  <object id="7" type="arraydisks" parent="4294967295"><Nexus>0</Nexus><Name>0</Name>
    <Vendor>)" + longest + R"(</Vendor><Model>)" +
                              longest + R"(</Model></object>
  <object id="8" type="arraydisks" parent="7"/>
  <object id="9" type="vdisks"><Name>Ünïcödé ☃ &#9;tab&#10;line</Name><Nexus>&gt;</Nexus></object>
  <object id="10" type="vdisks" parent="9"><Nexus>&gt;</Nexus></object>
  <object id="11" type="Tidal Cache"><Nexus>x</Nexus><A>&amp;&amp;</A><B>&amp;&amp;</B></object>
  <link a="7" b="9"/>
  <link a="9" b="7"/>
  <link a="11" b="8"/>
</storage>
)";
    expectSameAnswers(model, "awkward");
}

// Answers are written in pieces copied by size band (under 4 bytes, 4 to 7,
// 8 to 16, longer): names and values of every length from 0 to 40, plain
// and with an entity at either end, each give the plain answer.
TEST(AnswersCompareTest, NamesAndValuesOfEveryShortLength)
{
    std::string model = "<storage>\n";
    uint32_t id = 1;
    for (size_t length = 0; length <= 40; ++length) {
        const std::string name = "N" + std::string(length == 0 ? 0 : length - 1, 'n');
        const std::string value(length, 'v');
        model += "<object id=\"" + std::to_string(id++) + "\" type=\"fans\">";
        if (!name.empty()) {
            model += "<" + name + ">" + value + "</" + name + ">";
            model += "<" + name + ">&amp;" + value + "</" + name + ">";
            model += "<" + name + ">" + value + "&lt;</" + name + ">";
        }
        model += "<Value>" + value + "</Value></object>\n";
    }
    model += "</storage>\n";
    expectSameAnswers(model, "short lengths");
}

} // namespace
