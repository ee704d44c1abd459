// readModel reads a model file object by object; it must refuse what
// parseModelText and Model::build refuse, with the same message, whichever
// problem comes first in the text, and serve what they serve.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "datastore/model.h"
#include "datastore/model_testing.h"
#include "datastore/model_writer.h"

namespace {

namespace ds = kelp::ds;

// What parseModelText then Model::build answer: "" and the model's text
// when it is served, else the message.
std::string twoSteps(const std::string &text, std::string *written)
{
    ds::ModelData data;
    std::string error;
    if (!ds::parseModelText(text, "m.xml", &data, &error))
        return error;
    auto model = ds::Model::build(std::move(data), &error);
    if (model == nullptr)
        return error;
    *written = ds::modelText(*model);
    return "";
}

std::string oneStep(const std::string &text, std::string *written)
{
    std::string error;
    auto model = ds::readModel(text, "m.xml", &error);
    if (model == nullptr)
        return error;
    *written = ds::modelText(*model);
    return "";
}

void expectSame(const std::string &text, const std::string &what)
{
    std::string before, after;
    const std::string expected = twoSteps(text, &before);
    EXPECT_EQ(oneStep(text, &after), expected) << what;
    EXPECT_EQ(after, before) << what;
}

TEST(ModelReadTest, ProblemsAreReportedInTheOrderOfParseThenBuild)
{
    const std::string ok = R"(<object id="1" type="adapters"><Nexus>0</Nexus></object>)";
    const std::string zeroId = R"(<object id="5" type="fans"><ObjID>1</ObjID></object>)";
    const std::string badItem = R"(<object id="2" type="fans" colour="red"/>)";
    const std::string longValue =
        "<object id=\"3\" type=\"fans\"><A>" + std::string(160, 'x') + "</A></object>";
    const struct {
        const char *what;
        std::string text;
    } cases[] = {
        {"good", "<storage>" + ok + "</storage>"},
        {"empty storage", "<storage/>"},
        {"a bad value, then malformed XML", "<storage>" + longValue + ok + "<a></b></storage>"},
        {"a bad value, then a bad item", "<storage>" + longValue + badItem + "</storage>"},
        {"a bad item, then a bad value", "<storage>" + badItem + longValue + "</storage>"},
        {"ObjID, then a bad value", "<storage>" + zeroId + longValue + "</storage>"},
        {"a bad value under another root", "<model>" + longValue + "</model>"},
        {"a bad value, then text in storage", "<storage>" + longValue + "text</storage>"},
        {"a bad storage attribute, then a bad value",
         "<storage ready=\"2\">" + longValue + "</storage>"},
        {"a duplicate id, then a dangling link",
         "<storage>" + ok + ok + "<link a=\"1\" b=\"9\"/></storage>"},
        {"a dangling parent and a cycle",
         R"(<storage><object id="1" type="bus" parent="2"/><object id="2" type="bus" parent="1"/>
            <object id="3" type="bus" parent="8"/></storage>)"},
        {"a link to itself", "<storage>" + ok + "<link a=\"1\" b=\"1\"/></storage>"},
        {"an unclosed root after objects", "<storage>" + ok},
        {"an object over 64 KiB",
         "<storage><object id=\"1\" type=\"vdisks\">" +
             [] {
                 std::string many;
                 for (int i = 0; i < 500; ++i)
                     many += "<A>" + std::string(150, static_cast<char>('a' + i % 26)) + "</A>";
                 return many;
             }() +
             "</object></storage>"},
        {"the shared test model", ds::testing::kTestModel},
    };
    for (const auto &c : cases)
        expectSame(c.text, c.what);
}

TEST(ModelReadTest, EveryShippedModelReadsAsParseThenBuildReadIt)
{
    const char *source = std::getenv("KELP_SOURCE_DIR");
    const std::filesystem::path dir =
        std::filesystem::path(source != nullptr ? source : KELP_SOURCE_DIR_FALLBACK) / "data" /
        "models";
    int files = 0;
    for (const auto &entry : std::filesystem::recursive_directory_iterator(dir)) {
        if (entry.path().extension() != ".xml")
            continue;
        std::ifstream in(entry.path(), std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        expectSame(text.str(), entry.path().filename().string());
        ++files;
    }
    EXPECT_GE(files, 10);
}

} // namespace
