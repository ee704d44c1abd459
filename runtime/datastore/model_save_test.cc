// Saving the served model: the file loads back as the same model, changes
// made since the load included, and a save that cannot be made says why and
// leaves the served model and the file system as they were.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "datastore/model.h"
#include "datastore/model_store.h"
#include "datastore/model_testing.h"

namespace {

namespace fs = std::filesystem;
namespace ds = kelp::ds;

class ModelSaveTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        std::string pattern = ::testing::TempDir() + "kelp_save_XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
        unsetenv("KELP_MODEL");
        ds::resetForTesting();
    }
    void TearDown() override
    {
        ds::resetForTesting();
        fs::remove_all(dir_);
    }

    std::string dir_;
};

TEST_F(ModelSaveTest, ASavedModelLoadsBackAsTheServedOneChangesIncluded)
{
    std::string error;
    ASSERT_TRUE(ds::loadModelText(ds::testing::kTestModel, "test.xml", &error)) << error;
    ASSERT_TRUE(ds::setAttribute(20, "Name", " \"Disk\" <0>\t&\\1\r\n ", &error)) << error;
    ASSERT_TRUE(ds::setReady(false, &error)) << error;
    ASSERT_TRUE(ds::addObjects("<object id='90' type='fans' parent='5'><Nexus>0\\0\\0\\g</Nexus>"
                               "</object><link a='90' b='40'/>",
                               &error))
        << error;
    const auto before = ds::servedModel();
    const auto countsBefore = ds::modelStatus().counts;

    const std::string file = dir_ + "/saved.xml";
    ASSERT_TRUE(ds::saveModelFile(file, &error)) << error;
    struct stat st {};
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644u);

    ds::unloadModel();
    ASSERT_TRUE(ds::loadModelFile(file, &error)) << error;
    const auto after = ds::servedModel();
    ASSERT_NE(after, nullptr);
    EXPECT_FALSE(after->ready());
    EXPECT_EQ(after->data().storage, before->data().storage);
    ASSERT_EQ(after->size(), before->size());
    for (size_t pos = 0; pos < before->size(); ++pos) {
        EXPECT_EQ(after->idOf(pos), before->idOf(pos));
        EXPECT_EQ(after->parentOf(pos), before->parentOf(pos));
        EXPECT_EQ(after->answer(pos), before->answer(pos));
    }
    ASSERT_EQ(after->links().size(), before->links().size());
    EXPECT_EQ(after->links().back().a, 90u);
    EXPECT_EQ(ds::modelStatus().counts, countsBefore);
}

TEST_F(ModelSaveTest, NothingIsWrittenWithoutAServedModel)
{
    std::string error;
    EXPECT_FALSE(ds::saveModelFile(dir_ + "/none.xml", &error));
    EXPECT_EQ(error, "no model is served");
    EXPECT_TRUE(fs::is_empty(dir_));
}

TEST_F(ModelSaveTest, ASaveThatCannotBeWrittenSaysWhyAndChangesNothing)
{
    std::string error;
    ASSERT_TRUE(ds::loadModelText(ds::testing::kTestModel, "test.xml", &error)) << error;
    std::ofstream(dir_ + "/kept.xml") << "kept";
    fs::create_directory(dir_ + "/sub");
    const struct {
        std::string path, message;
    } kCases[] = {
        {dir_ + "/sub", dir_ + "/sub: is a directory"},
        {dir_ + "/missing/m.xml",
         dir_ + "/missing/m.xml: cannot create a file in " + dir_ + "/missing"},
        {dir_ + "/kept.xml/m.xml", "Not a directory"},
    };
    for (const auto &c : kCases) {
        EXPECT_FALSE(ds::saveModelFile(c.path, &error)) << c.path;
        EXPECT_NE(error.find(c.message), std::string::npos) << error;
    }
    EXPECT_EQ(ds::modelStatus().origin, "test.xml");
    std::ifstream kept(dir_ + "/kept.xml");
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(kept), {}), "kept");
    size_t entries = 0;
    for ([[maybe_unused]] const auto &entry : fs::recursive_directory_iterator(dir_))
        entries++;
    EXPECT_EQ(entries, 2u) << "kept.xml and sub, nothing else";
}

} // namespace
