// The model files shipped in data/models: the sample and the small test
// models load; each bad model is refused naming the file and a line, and
// leaves the served model as it was.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>

#include <sys/wait.h>

#include "datastore/large_models_testing.h"
#include "datastore/model_store.h"
#include "kelp/runtime.h"
#include "vscil.h"

namespace {

namespace fs = std::filesystem;

fs::path modelsDir()
{
    const char *source = std::getenv("KELP_SOURCE_DIR");
    return fs::path(source != nullptr ? source : ".") / "data" / "models";
}

int load(const fs::path &file, std::string *message)
{
    char error[1024] = {};
    const int status = kelpRuntimeLoadModel(file.c_str(), error, sizeof error);
    *message = error;
    return status;
}

class ModelFilesTest : public ::testing::Test {
  protected:
    void TearDown() override { kelp::ds::unloadModel(); }
};

TEST_F(ModelFilesTest, TheSampleAndTheGoodTestModelsLoad)
{
    for (const fs::path &file :
         {modelsDir() / "sample.xml", modelsDir() / "test" / "minimal.xml",
          modelsDir() / "test" / "empty.xml", modelsDir() / "test" / "not-ready.xml"}) {
        std::string error;
        EXPECT_EQ(load(file, &error), 0) << file << ": " << error;
    }
}

TEST_F(ModelFilesTest, TheSampleHasObjectsOfEveryType)
{
    std::string error;
    ASSERT_EQ(load(modelsDir() / "sample.xml", &error), 0) << error;
    const kelp::ds::ModelStatus status = kelp::ds::modelStatus();
    EXPECT_TRUE(status.ready);
    EXPECT_EQ(status.counts.size(), 16u);
    for (const auto &[type, count] : status.counts) {
        EXPECT_GT(count, 0u) << type;
    }
}

TEST_F(ModelFilesTest, EveryBadModelIsRefusedAndChangesNothing)
{
    std::string error;
    ASSERT_EQ(load(modelsDir() / "test" / "minimal.xml", &error), 0) << error;
    int bad = 0;
    for (const auto &entry : fs::directory_iterator(modelsDir() / "test")) {
        const std::string name = entry.path().filename();
        if (name.rfind("bad-", 0) != 0) {
            continue;
        }
        bad++;
        EXPECT_NE(load(entry.path(), &error), 0) << name;
        EXPECT_NE(error.find(name + ":"), std::string::npos) << name << ": " << error;
        EXPECT_NE(kelp::ds::modelStatus().origin.find("minimal.xml"), std::string::npos) << name;
    }
    EXPECT_GE(bad, 10);
}

TEST_F(ModelFilesTest, LongStorageAttributeIsRefusedNamingTheStorageElementsLine)
{
    const fs::path file = modelsDir() / "test" / "bad-long-storage-value.xml";
    std::string error;
    EXPECT_NE(load(file, &error), 0);
    EXPECT_EQ(error, file.string() + ":4: url has 1025 bytes, over the limit of 159");
}

size_t countOf(const std::string &type);

// A model file in the temporary directory, removed at the end.
class TempModel {
  public:
    TempModel(const std::string &name, const std::string &text)
        : path_(fs::temp_directory_path() / name)
    {
        std::ofstream(path_, std::ios::binary) << text;
    }
    ~TempModel() { fs::remove(path_); }
    const fs::path &path() const { return path_; }

  private:
    fs::path path_;
};

TEST_F(ModelFilesTest, AModelFileMayStartWithAByteOrderMark)
{
    std::ifstream in(modelsDir() / "sample.xml", std::ios::binary);
    const std::string sample((std::istreambuf_iterator<char>(in)),
                             std::istreambuf_iterator<char>());
    ASSERT_FALSE(sample.empty());
    std::string error;
    ASSERT_EQ(load(modelsDir() / "sample.xml", &error), 0) << error;
    const kelp::ds::ModelStatus plain = kelp::ds::modelStatus();

    TempModel marked("kelp-bom-model.xml", "\xEF\xBB\xBF" + sample);
    ASSERT_EQ(load(marked.path(), &error), 0) << error;
    const kelp::ds::ModelStatus status = kelp::ds::modelStatus();
    EXPECT_EQ(status.origin, marked.path().string());
    EXPECT_EQ(status.counts, plain.counts);

    // Anywhere else it is a stray character before the root.
    TempModel late("kelp-late-bom-model.xml",
                   "<?xml version=\"1.0\"?>\n\n\xEF\xBB\xBF<storage ready=\"1\"/>\n");
    EXPECT_NE(load(late.path(), &error), 0);
    EXPECT_EQ(error,
              late.path().string() +
                  ":3: a byte order mark (EF BB BF) other than at the very start of the text");
    EXPECT_EQ(kelp::ds::modelStatus().origin, marked.path().string());
}

// The served object's answer, or "" when there is none.
std::string objectAnswer(uint32_t id)
{
    uint32_t status = 0;
    char *xml = GetSingleObject(&status, 0, id);
    std::string text = xml != nullptr ? xml : "";
    freeMem(xml);
    return text;
}

TEST_F(ModelFilesTest, AHundredThousandAttributesLoadWhereverTheyAre)
{
    using namespace kelp::ds::testing;
    std::string error;
    {
        TempModel m("kelp-storage-attributes.xml", modelWithStorageAttributes(100000));
        ASSERT_EQ(load(m.path(), &error), 0) << error;
        std::string value;
        EXPECT_TRUE(kelp::ds::storageAttribute("s0", &value));
        EXPECT_EQ(value, "v0");
        EXPECT_TRUE(kelp::ds::storageAttribute("s99999", &value));
        EXPECT_EQ(value, "v99999");
        EXPECT_FALSE(kelp::ds::storageAttribute("s100000", &value));
        EXPECT_EQ(objectAnswer(1), "<ObjID>1</ObjID><Nexus>0</Nexus>");
    }
    {
        TempModel m("kelp-spread-attributes.xml", modelWithObjectsOfAttributes(10000, 10));
        ASSERT_EQ(load(m.path(), &error), 0) << error;
        EXPECT_EQ(countOf("arraydisks"), 10000u);
        const std::string last = objectAnswer(10000);
        EXPECT_TRUE(
            last.starts_with("<ObjID>10000</ObjID><Nexus>0\\10000</Nexus><A0>v10000.0</A0>"))
            << last;
        EXPECT_TRUE(last.ends_with("<A8>v10000.8</A8>")) << last;
    }
    {
        // One object cannot answer 100,000 attributes in 64 KiB: refused as a
        // whole, naming its line, and the model before stays.
        TempModel m("kelp-object-attributes.xml", modelWithOneObjectOfAttributes(100000));
        EXPECT_NE(load(m.path(), &error), 0);
        EXPECT_TRUE(error.starts_with(m.path().string() + ":2: object 1: its text is ")) << error;
        EXPECT_TRUE(error.ends_with(" bytes, over the limit of 65535")) << error;
        EXPECT_EQ(countOf("arraydisks"), 10000u);
    }
    {
        std::string tag = "<storage>\n<object id=\"1\" type=\"fans\"";
        for (int i = 0; i < 10000; ++i)
            tag += " x" + std::to_string(i) + "=\"1\"";
        TempModel m("kelp-object-xml-attributes.xml", tag + "/>\n</storage>\n");
        EXPECT_NE(load(m.path(), &error), 0);
        EXPECT_EQ(error, m.path().string() + ":2: unknown attribute x0 of <object>");
    }
}

// kelpgen, the generator of benchmark models, as a shell runs it.
int kelpgen(const std::string &arguments)
{
    const std::string command = std::string(KELPGEN_PATH) + " " + arguments;
    const int status = std::system(command.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

size_t countOf(const std::string &type)
{
    for (const auto &[name, count] : kelp::ds::modelStatus().counts) {
        if (name == type) {
            return count;
        }
    }
    return 0;
}

TEST_F(ModelFilesTest, GeneratedModelsLoadWithTheDisksSpreadAsAsked)
{
    const fs::path file = fs::temp_directory_path() / "kelp-generated-model.xml";
    struct Case {
        const char *options;
        size_t controllers, virtualDisks;
    } const kCases[] = {
        {"--disks 64", 1, 8},
        {"--disks 64 --disks-per-controller 8", 8, 8},
        {"--disks 100 --disks-per-controller 16", 7, 13},
        {"--disks 0 --disks-per-controller 8", 1, 0},
    };
    for (const Case &c : kCases) {
        ASSERT_EQ(kelpgen(std::string(c.options) + " --out " + file.string()), 0) << c.options;
        std::string error;
        ASSERT_EQ(load(file, &error), 0) << c.options << ": " << error;
        EXPECT_EQ(countOf("adapters"), c.controllers) << c.options;
        EXPECT_EQ(countOf("vdisks"), c.virtualDisks) << c.options;
    }
    fs::remove(file);
}

TEST_F(ModelFilesTest, KelpgenRefusesBadArgumentsWithStatus2)
{
    for (const char *arguments :
         {"", "--disks", "--disks -1", "--disks 100001", "--disks 8x",
          "--disks 8 --disks-per-controller 12", "--disks 8 --disks-per-controller 0",
          "--disks 8 --disks-per-controller 520", "--disks 8 --disks-per-controller",
          "--disks 8 --controllers 2"}) {
        EXPECT_EQ(kelpgen(std::string(arguments) + " 2>/dev/null"), 2) << arguments;
    }
}

TEST_F(ModelFilesTest, BinaryAndMissingFilesAreRefused)
{
    const fs::path binary = fs::temp_directory_path() / "kelp-binary-model.xml";
    {
        std::mt19937 random(7);
        std::ofstream out(binary, std::ios::binary);
        for (int i = 0; i < 4096; i++) {
            out.put(static_cast<char>(random()));
        }
    }
    std::string error;
    EXPECT_NE(load(binary, &error), 0);
    EXPECT_NE(error.find("kelp-binary-model.xml"), std::string::npos) << error;
    EXPECT_NE(load(modelsDir() / "no-such-model.xml", &error), 0);
    EXPECT_NE(error.find("no-such-model.xml"), std::string::npos) << error;
    fs::remove(binary);
}

} // namespace
