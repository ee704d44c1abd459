// Replacing a file as one step: the new text with the asked mode whatever
// the umask, nothing left beside it, and every refusal naming the path and
// leaving what was there.
#include "support/file_write.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;
using kelp::rt::replaceFile;

class FileWriteTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        std::string pattern = ::testing::TempDir() + "kelp_write_XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
    }
    void TearDown() override
    {
        fs::permissions(dir_, fs::perms::owner_all, fs::perm_options::add);
        fs::remove_all(dir_);
    }

    std::string file(const std::string &name) const { return dir_ + "/" + name; }
    std::vector<std::string> names() const
    {
        std::vector<std::string> out;
        for (const auto &entry : fs::directory_iterator(dir_))
            out.push_back(entry.path().filename());
        std::sort(out.begin(), out.end());
        return out;
    }

    std::string dir_;
};

std::string slurp(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

mode_t modeOf(const std::string &path)
{
    struct stat st {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st.st_mode & 07777;
}

TEST_F(FileWriteTest, WritesThenReplacesWithTheModeAskedAndLeavesNothingBeside)
{
    const mode_t umaskBefore = umask(077);
    std::string error;
    const std::string path = file("model.xml");
    EXPECT_TRUE(replaceFile(path, "first", 0644, &error)) << error;
    EXPECT_EQ(slurp(path), "first");
    EXPECT_EQ(modeOf(path), 0644u);
    std::string large(5 << 20, 'x');
    large.back() = '\n';
    EXPECT_TRUE(replaceFile(path, large, 0640, &error)) << error;
    EXPECT_EQ(slurp(path), large);
    EXPECT_EQ(modeOf(path), 0640u);
    EXPECT_TRUE(replaceFile(path, "", 0644, &error)) << error;
    EXPECT_EQ(slurp(path), "");
    umask(umaskBefore);
    EXPECT_EQ(names(), std::vector<std::string>{"model.xml"});
}

TEST_F(FileWriteTest, ARelativePathIsTakenFromTheWorkingDirectory)
{
    const fs::path before = fs::current_path();
    fs::current_path(dir_);
    std::string error;
    EXPECT_TRUE(replaceFile("here.xml", "text", 0644, &error)) << error;
    fs::current_path(before);
    EXPECT_EQ(slurp(file("here.xml")), "text");
}

TEST_F(FileWriteTest, ASymbolicLinkIsReplacedAndWhatItNamedKept)
{
    std::ofstream(file("target")) << "old";
    fs::create_symlink(file("target"), file("link"));
    std::string error;
    EXPECT_TRUE(replaceFile(file("link"), "new", 0644, &error)) << error;
    EXPECT_FALSE(fs::is_symlink(file("link")));
    EXPECT_EQ(slurp(file("link")), "new");
    EXPECT_EQ(slurp(file("target")), "old");
}

TEST_F(FileWriteTest, RefusalsNameThePathAndChangeNothing)
{
    std::ofstream(file("kept")) << "kept";
    fs::create_directory(file("sub"));
    ASSERT_EQ(mkfifo(file("fifo").c_str(), 0600), 0);
    fs::create_directory(file("locked"));
    fs::permissions(file("locked"), fs::perms::owner_read | fs::perms::owner_exec);
    // Permissions do not stop root.
    const bool permissionsApply = geteuid() != 0;
    const struct {
        std::string path;
        std::string message;
    } kCases[] = {
        {file("sub"), file("sub") + ": is a directory"},
        {file("sub/"), file("sub/") + ": names no file"},
        {"", ": names no file"},
        {file("fifo"), file("fifo") + ": not a regular file"},
        {file("missing/model.xml"), file("missing/model.xml") + ": cannot create a file in " +
                                        file("missing") + ": No such file or directory"},
        {file("kept/model.xml"), file("kept/model.xml") + ": cannot create a file in " +
                                     file("kept") + ": Not a directory"},
        {file("locked/model.xml"), permissionsApply
                                       ? file("locked/model.xml") + ": cannot create a file in " +
                                             file("locked") + ": Permission denied"
                                       : ""},
    };
    for (const auto &c : kCases) {
        if (c.message.empty())
            continue;
        std::string error;
        EXPECT_FALSE(replaceFile(c.path, "new", 0644, &error)) << c.path;
        EXPECT_EQ(error, c.message);
    }
    EXPECT_EQ(names(), (std::vector<std::string>{"fifo", "kept", "locked", "sub"}));
    EXPECT_TRUE(fs::is_empty(file("sub")));
    EXPECT_TRUE(fs::is_empty(file("locked")));
    EXPECT_EQ(slurp(file("kept")), "kept");
}

} // namespace
