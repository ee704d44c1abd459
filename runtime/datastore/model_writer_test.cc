// Writing a model and reading it back gives the same model: the shipped
// models, generated ones, and a table of values and names that a careless
// writer would change (markup, quotes, blanks at the ends, line breaks,
// UTF-8).
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <sys/wait.h>

#include "datastore/model.h"
#include "datastore/model_testing.h"
#include "datastore/model_writer.h"

namespace {

namespace fs = std::filesystem;
using kelp::ds::Model;
using kelp::ds::ModelData;

fs::path modelsDir()
{
    const char *source = std::getenv("KELP_SOURCE_DIR");
    return fs::path(source != nullptr ? source : ".") / "data" / "models";
}

std::string readFile(const fs::path &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// The content a model file gives: everything but origins and lines.
void expectSameContent(const ModelData &want, const ModelData &got, const std::string &what)
{
    EXPECT_EQ(got.storage, want.storage) << what;
    ASSERT_EQ(got.objects.size(), want.objects.size()) << what;
    for (size_t i = 0; i < want.objects.size(); ++i) {
        const auto &w = want.objects[i];
        const auto &g = got.objects[i];
        EXPECT_EQ(g.id, w.id) << what << " object " << i;
        EXPECT_EQ(g.type, w.type) << what << " object " << w.id;
        EXPECT_EQ(g.parent, w.parent) << what << " object " << w.id;
        EXPECT_EQ(g.attributes, w.attributes) << what << " object " << w.id;
    }
    ASSERT_EQ(got.links.size(), want.links.size()) << what;
    for (size_t i = 0; i < want.links.size(); ++i) {
        EXPECT_EQ(got.links[i].a, want.links[i].a) << what << " link " << i;
        EXPECT_EQ(got.links[i].b, want.links[i].b) << what << " link " << i;
    }
}

// Writes the model, reads the text back and checks that the model built
// from it holds and answers the same; the text written from that model is
// the text itself.
void expectRoundTrip(const Model &model, const std::string &what)
{
    const std::string text = kelp::ds::modelText(model);
    ModelData reread;
    std::string error;
    ASSERT_TRUE(kelp::ds::parseModelText(text, "saved.xml", &reread, &error))
        << what << ": " << error << "\n"
        << text.substr(0, 2000);
    expectSameContent(model.data(), reread, what);
    auto rebuilt = Model::build(std::move(reread), &error);
    ASSERT_NE(rebuilt, nullptr) << what << ": " << error;
    EXPECT_EQ(rebuilt->ready(), model.ready()) << what;
    EXPECT_EQ(rebuilt->thermalShutdown(), model.thermalShutdown()) << what;
    for (size_t pos = 0; pos < model.size(); ++pos)
        EXPECT_EQ(rebuilt->answer(pos), model.answer(pos)) << what << " object at " << pos;
    EXPECT_EQ(kelp::ds::modelText(*rebuilt), text) << what;
}

std::shared_ptr<const Model> buildText(const std::string &text, const std::string &origin,
                                       std::string *error)
{
    ModelData data;
    if (!kelp::ds::parseModelText(text, origin, &data, error))
        return nullptr;
    return Model::build(std::move(data), error);
}

TEST(ModelWriterTest, TheSampleAndEveryTestModelThatLoadsReadBackTheSame)
{
    std::vector<fs::path> files = {modelsDir() / "sample.xml"};
    for (const auto &entry : fs::directory_iterator(modelsDir() / "test"))
        files.push_back(entry.path());
    size_t loaded = 0;
    bool oddNexus = false;
    for (const fs::path &file : files) {
        std::string error;
        auto model = buildText(readFile(file), file.string(), &error);
        if (model == nullptr) {
            EXPECT_TRUE(file.filename().string().starts_with("bad-")) << file << ": " << error;
            continue;
        }
        loaded++;
        oddNexus = oddNexus || file.filename() == "odd-nexus.xml";
        expectRoundTrip(*model, file.filename().string());
    }
    EXPECT_GE(loaded, 6u) << "the sample and the good test models";
    EXPECT_TRUE(oddNexus);

    std::string error;
    auto shared = buildText(kelp::ds::testing::kTestModel, "test model", &error);
    ASSERT_NE(shared, nullptr) << error;
    expectRoundTrip(*shared, "test model");
}

TEST(ModelWriterTest, GeneratedModelsReadBackTheSame)
{
    const fs::path file = fs::temp_directory_path() / "kelp-writer-generated.xml";
    for (const char *options : {"--disks 100 --disks-per-controller 16", "--disks 0"}) {
        const std::string command =
            std::string(KELPGEN_PATH) + " " + options + " --out " + file.string();
        const int status = std::system(command.c_str());
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << command;
        std::string error;
        auto model = buildText(readFile(file), file.string(), &error);
        ASSERT_NE(model, nullptr) << options << ": " << error;
        ASSERT_NE(model->size(), 0u) << options;
        expectRoundTrip(*model, options);
    }
    fs::remove(file);
}

// Values the writer must escape or keep, each served as an object
// attribute (twice, so that a repeat is kept too) and as a <storage>
// attribute.
struct ValueCase {
    const char *name;
    std::string value;
};

const ValueCase kValueCases[] = {
    {"empty", ""},
    {"blanks only", "   "},
    {"leading and trailing blanks", "  Backplane  "},
    {"markup", "<Name>x</Name>"},
    {"ampersand and an entity's text", "R&D &amp; &#38; &lt;"},
    {"double and single quotes", "\"quoted\" 'single' \"'"},
    {"backslashes", "\\0\\1\\\\\\"},
    {"end of CDATA", "]]>"},
    {"a comment's text", "<!-- no comment -->"},
    {"a processing instruction's text", "<?xml version=\"1.0\"?>"},
    {"a CDATA section's text", "<![CDATA[x]]>"},
    {"tab", "a\tb"},
    {"line feed", "a\nb\n"},
    {"carriage return", "\ra\r\nb"},
    {"tab and line breaks only", "\t\n\r"},
    {"UTF-8", "Gr\xC3\xBC\xC3\x9F\x65 \xE2\x9C\x93 \xF0\x9D\x84\x9E"},
    {"a byte order mark first", "\xEF\xBB\xBFtext"},
    {"delete character", "a\x7F"},
    {"159 bytes of markup", std::string(159, '&')},
    {"159 bytes of line feeds", std::string(159, '\n')},
};

TEST(ModelWriterTest, AwkwardValuesReadBackTheSame)
{
    for (const ValueCase &c : kValueCases) {
        ModelData data;
        data.origins = {"awkward"};
        data.storage = {{"ready", "1"}, {"url", c.value}, {"chassisServiceTag", c.value}};
        kelp::ds::ObjectData adapter;
        adapter.id = 1;
        adapter.type = "adapters";
        adapter.attributes = {{"Nexus", c.value}, {"Name", c.value}, {"Name", c.value}};
        kelp::ds::ObjectData disk;
        disk.id = 4294967295u;
        disk.type = "Tidal Cache Pool";
        disk.parent = 1;
        disk.attributes = {{"Vendor", c.value}};
        data.objects = {adapter, disk};
        data.links.resize(2);
        data.links[0].a = data.links[1].b = 1;
        data.links[0].b = data.links[1].a = 4294967295u;
        std::string error;
        auto model = Model::build(data, &error);
        ASSERT_NE(model, nullptr) << c.name << ": " << error;
        expectRoundTrip(*model, c.name);
    }
}

TEST(ModelWriterTest, AwkwardNamesAndShapesReadBackTheSame)
{
    ModelData data;
    data.origins = {"names"};
    data.storage = {{"ready", "0"}, {"a.b-c:d_9", "x"}, {"_", ""}, {"Gr\xC3\xBC\xC3\x9F\x65", "y"}};
    kelp::ds::ObjectData bare;
    bare.id = 7;
    bare.type = "Tape";
    kelp::ds::ObjectData named;
    named.id = 8;
    named.type = "Tidal Cache";
    named.attributes = {{"a.b-c:d_9", "1"}, {"_", "2"}, {"\xC3\xA9t\xC3\xA9", "3"}, {"_", "4"}};
    data.objects = {bare, named};
    std::string error;
    auto model = Model::build(data, &error);
    ASSERT_NE(model, nullptr) << error;
    expectRoundTrip(*model, "names");

    auto empty = Model::build(ModelData{}, &error);
    ASSERT_NE(empty, nullptr) << error;
    expectRoundTrip(*empty, "no storage attributes, objects or links");
}

TEST(ModelWriterTest, TheTextIsLaidOutAsAModelFileIs)
{
    std::string error;
    auto model = buildText("<storage ready='1' url='a\"b'>"
                           "<object id='1' type='adapters'><Nexus>0</Nexus><Name>A&amp;B</Name>"
                           "</object><object id='2' type='bus' parent='1'/>"
                           "<link a='2' b='1'/></storage>",
                           "m.xml", &error);
    ASSERT_NE(model, nullptr) << error;
    EXPECT_EQ(kelp::ds::modelText(*model), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                                           "<storage ready=\"1\" url=\"a&quot;b\">\n"
                                           "  <object id=\"1\" type=\"adapters\">\n"
                                           "    <Nexus>0</Nexus>\n"
                                           "    <Name>A&amp;B</Name>\n"
                                           "  </object>\n"
                                           "  <object id=\"2\" type=\"bus\" parent=\"1\"/>\n"
                                           "  <link a=\"2\" b=\"1\"/>\n"
                                           "</storage>\n");
}

TEST(ModelWriterTest, ControlCharactersNeverReachAModel)
{
    // The writer need not escape them: no valid model holds one.
    for (const char *value : {"\x01", "a\x1F", "\x0B"}) {
        ModelData data;
        kelp::ds::ObjectData o;
        o.id = 1;
        o.type = "fans";
        o.attributes = {{"Name", value}};
        data.objects = {o};
        std::string error;
        EXPECT_EQ(Model::build(data, &error), nullptr) << int(value[0]);
        data.objects.clear();
        data.storage = {{"url", value}};
        EXPECT_EQ(Model::build(data, &error), nullptr) << int(value[0]);
    }
}

} // namespace
