// SysRoot: links resolved inside the root, loops and escapes refused, files
// read within bounds whatever they hold.
#include "datastore/live/sysroot.h"

#include <gtest/gtest.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "datastore/live/tree_testing.h"

namespace kelp::live {
namespace {

using testing::TempTree;

// Every case twice: resolved by the kernel, and by walking the components.
class SysRootTest : public ::testing::TestWithParam<bool> {
  protected:
    void SetUp() override
    {
        std::string error;
        ASSERT_TRUE(root.open(tree.root(), &error)) << error;
        if (GetParam())
            root.resolveByWalkingForTesting();
    }
    TempTree tree;
    SysRoot root;
};

TEST_P(SysRootTest, RelativeLinksResolveAsOnTheRealRoot)
{
    tree.file("sys/devices/pci0000:00/0000:00:02.0/virtio1/block/vda/size", "536870912\n");
    tree.link("sys/block/vda", "../devices/pci0000:00/0000:00:02.0/virtio1/block/vda");
    tree.link("sys/devices/pci0000:00/0000:00:02.0/virtio1/block/vda/device", "../../../virtio1");
    EXPECT_EQ(root.resolve("/sys/block/vda"),
              "/sys/devices/pci0000:00/0000:00:02.0/virtio1/block/vda");
    EXPECT_EQ(root.resolve("/sys/block/vda/device"),
              "/sys/devices/pci0000:00/0000:00:02.0/virtio1");
    EXPECT_EQ(root.readText("/sys/block/vda/size"), "536870912");
}

TEST_P(SysRootTest, AbsoluteLinksStayInsideTheRoot)
{
    tree.file("sys/real/value", "1\n");
    tree.link("sys/abs", "/sys/real");
    EXPECT_EQ(root.resolve("/sys/abs"), "/sys/real");
    EXPECT_EQ(root.readText("/sys/abs/value"), "1");
}

TEST_P(SysRootTest, DotDotCannotClimbOutOfTheRoot)
{
    tree.file("etc/secret", "inside\n");
    tree.link("sys/up", "../../../../../../etc");
    // Climbing past the root stays at the root, as in a chroot.
    EXPECT_EQ(root.resolve("/sys/up"), "/etc");
    EXPECT_EQ(root.readText("/sys/up/secret"), "inside");
    EXPECT_EQ(root.resolve("/../../etc/passwd"), std::nullopt);
}

TEST_P(SysRootTest, LinkLoopsAreRefused)
{
    tree.link("sys/a", "b");
    tree.link("sys/b", "a");
    tree.link("sys/self", "self");
    tree.dir("sys/d");
    tree.link("sys/d/parent", "..");
    EXPECT_EQ(root.resolve("/sys/a"), std::nullopt);
    EXPECT_EQ(root.resolve("/sys/self/x"), std::nullopt);
    EXPECT_EQ(root.readText("/sys/a"), std::nullopt);
    // A link to an ancestor is no loop until it is followed for ever.
    EXPECT_EQ(root.resolve("/sys/d/parent/d/parent/d"), "/sys/d");
}

TEST_P(SysRootTest, MissingEmptyAndOddFiles)
{
    tree.file("sys/empty", "");
    tree.file("sys/blanks", " \n\n");
    tree.file("sys/nul", std::string("ab\0\0", 4));
    tree.file("sys/big", std::string(100000, 'x'));
    tree.dir("sys/dir");
    EXPECT_EQ(root.readText("/sys/missing"), std::nullopt);
    EXPECT_EQ(root.readText("/sys/empty"), "");
    EXPECT_EQ(root.readText("/sys/blanks"), "");
    EXPECT_EQ(root.readText("/sys/nul"), "ab");
    EXPECT_EQ(root.readText("/sys/big")->size(), kMaxAttributeFileBytes);
    EXPECT_EQ(root.readText("/sys/dir"), std::nullopt);
    EXPECT_EQ(root.readText("/sys/empty/below"), std::nullopt);
}

TEST_P(SysRootTest, FifosAndDevicesAreNotRead)
{
    // A FIFO would block a reader; it is refused without opening it for long.
    ASSERT_EQ(::mkfifo((tree.root() + "/fifo").c_str(), 0600), 0);
    EXPECT_EQ(root.readText("/fifo"), std::nullopt);
    tree.link("null", "/dev/null"); // inside the root: there is no dev/null there
    EXPECT_EQ(root.readText("/null"), std::nullopt);
}

TEST_P(SysRootTest, UnreadableFilesAndDirectories)
{
    if (geteuid() == 0)
        GTEST_SKIP() << "root reads every file";
    tree.file("sys/closed", "1\n");
    ::chmod((tree.root() + "/sys/closed").c_str(), 0);
    tree.file("sys/shut/inside", "1\n");
    ::chmod((tree.root() + "/sys/shut").c_str(), 0);
    EXPECT_EQ(root.readText("/sys/closed"), std::nullopt);
    EXPECT_TRUE(root.list("/sys/shut").empty());
}

TEST_P(SysRootTest, AttrDoesNotFollowALinkInPlaceOfAFile)
{
    tree.file("sys/dev/value", "7\n");
    tree.file("outside", "no\n");
    tree.link("sys/dev/linked", "../../outside");
    auto dir = root.resolve("/sys/dev");
    ASSERT_TRUE(dir);
    EXPECT_EQ(root.attr(*dir, "value"), "7");
    EXPECT_EQ(root.attr(*dir, "linked"), std::nullopt);
}

TEST_P(SysRootTest, ListIsSortedAndSkipsDots)
{
    tree.file("sys/class/x/b", "");
    tree.file("sys/class/x/a", "");
    tree.link("sys/class/x/c", "nowhere");
    EXPECT_EQ(root.list("/sys/class/x"), (std::vector<std::string>{"a", "b", "c"}));
    EXPECT_TRUE(root.list("/sys/class/none").empty());
}

INSTANTIATE_TEST_SUITE_P(Resolution, SysRootTest, ::testing::Bool(),
                         [](const auto &param) { return param.param ? "Walking" : "Kernel"; });

// The kernel refuses a lookup through ".." with EAGAIN when a rename or
// mount happened anywhere on the system meanwhile; under a busy machine (a
// package install, a parallel test run) that is most lookups of a sysfs
// link. Every read must still succeed.
TEST(SysRootRaces, RenamesElsewhereNeverFailALookupThroughDotDot)
{
    TempTree tree;
    tree.file("sys/devices/pci0000:00/host0/target0:0:0/0:0:0:0/block/sda/size", "128\n");
    tree.link("sys/block/sda", "../devices/pci0000:00/host0/target0:0:0/0:0:0:0/block/sda");
    tree.file("renamed/a", "x");
    SysRoot root;
    std::string error;
    ASSERT_TRUE(root.open(tree.root(), &error)) << error;
    std::atomic<bool> stop{false};
    const std::string a = tree.root() + "/renamed/a", b = tree.root() + "/renamed/b";
    std::thread renamer([&] {
        while (!stop.load()) {
            ::rename(a.c_str(), b.c_str());
            ::rename(b.c_str(), a.c_str());
        }
    });
    int failed = 0;
    for (int i = 0; i < 20000; ++i) {
        if (root.readText("/sys/block/sda/size") != "128")
            ++failed;
        if (!root.resolve("/sys/block/sda"))
            ++failed;
    }
    stop = true;
    renamer.join();
    EXPECT_EQ(failed, 0) << "of 40,000 lookups";
}

TEST(SysRootOpen, MissingRootOrFileIsAnError)
{
    SysRoot root;
    std::string error;
    EXPECT_FALSE(root.open("/nonexistent/kelp/root", &error));
    EXPECT_NE(error.find("does not exist"), std::string::npos) << error;
    EXPECT_FALSE(root.open("/etc/hostname", &error));
    EXPECT_NE(error.find("not a directory"), std::string::npos) << error;
    EXPECT_TRUE(root.open("/", &error));
    EXPECT_TRUE(root.isSystemRoot());
}

TEST(SysRootPaths, JoinBaseAndDir)
{
    EXPECT_EQ(joinPath("/sys", "block"), "/sys/block");
    EXPECT_EQ(joinPath("/sys/", "/block"), "/sys/block");
    EXPECT_EQ(baseName("/sys/block/vda"), "vda");
    EXPECT_EQ(dirName("/sys/block/vda"), "/sys/block");
    EXPECT_EQ(dirName("/sys"), "/");
}

} // namespace
} // namespace kelp::live
