// Reading a file whole within a limit: regular files are read, a missing
// file is told apart, and FIFOs, devices, directories and files over the
// limit are refused at once with a message naming the file.
#include "support/file_read.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

namespace fs = std::filesystem;
using kelp::rt::FileRead;
using kelp::rt::readRegularFile;

class FileReadTest : public ::testing::Test {
  protected:
    void SetUp() override
    {
        std::string pattern = ::testing::TempDir() + "kelp_read_XXXXXX";
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        dir_ = pattern;
    }
    void TearDown() override { fs::remove_all(dir_); }

    std::string write(const std::string &name, const std::string &text) const
    {
        std::string path = dir_ + "/" + name;
        std::ofstream(path, std::ios::binary) << text;
        return path;
    }

    std::string dir_;
};

TEST_F(FileReadTest, RegularFileUpToTheLimitIsReadWhole)
{
    std::string text = "old", error = "untouched";
    EXPECT_EQ(readRegularFile(write("a", std::string(1024, 'x')), 1024, &text, &error),
              FileRead::kRead);
    EXPECT_EQ(text, std::string(1024, 'x'));
    EXPECT_EQ(error, "untouched");
    EXPECT_EQ(readRegularFile(write("empty", ""), 1024, &text, &error), FileRead::kRead);
    EXPECT_EQ(text, "");
}

TEST_F(FileReadTest, SymbolicLinkToARegularFileIsRead)
{
    std::string target = write("target", "data");
    ASSERT_EQ(symlink(target.c_str(), (dir_ + "/link").c_str()), 0);
    std::string text, error;
    EXPECT_EQ(readRegularFile(dir_ + "/link", 1024, &text, &error), FileRead::kRead);
    EXPECT_EQ(text, "data");
}

TEST_F(FileReadTest, MissingFileIsToldApartFromAnError)
{
    std::string text = "old", error;
    const std::string path = dir_ + "/missing";
    EXPECT_EQ(readRegularFile(path, 1024, &text, &error), FileRead::kMissing);
    EXPECT_EQ(text, "");
    EXPECT_EQ(error, path + ": cannot open: No such file or directory");
}

TEST_F(FileReadTest, WhatIsNotARegularFileWithinTheLimitIsRefusedAtOnce)
{
    const std::string fifo = dir_ + "/fifo";
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    struct Case {
        std::string path;
        std::string error;
    } const cases[] = {
        {fifo, fifo + ": not a regular file"},
        {"/dev/zero", "/dev/zero: not a regular file"},
        {"/dev/null", "/dev/null: not a regular file"},
        {dir_, dir_ + ": not a regular file"},
        {write("big", std::string(1025, 'x')), dir_ + "/big: over the limit of 1 KiB"},
        {dir_ + "/big/below", dir_ + "/big/below: cannot open: Not a directory"},
    };
    for (const Case &c : cases) {
        std::string text = "old", error;
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_EQ(readRegularFile(c.path, 1024, &text, &error), FileRead::kRefused) << c.path;
        EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5)) << c.path;
        EXPECT_EQ(error, c.error);
        EXPECT_EQ(text, "") << c.path;
    }
}

TEST(ByteCountText, UsesTheLargestWholeUnit)
{
    const std::pair<size_t, const char *> cases[] = {
        {0, "0 bytes"},          {1, "1 byte"},
        {1000, "1000 bytes"},    {1024, "1 KiB"},
        {65536, "64 KiB"},       {1 << 20, "1 MiB"},
        {256u << 20, "256 MiB"}, {(1 << 20) + 1, "1048577 bytes"},
    };
    for (const auto &[bytes, text] : cases)
        EXPECT_EQ(kelp::rt::byteCountText(bytes), text) << bytes;
}

} // namespace
