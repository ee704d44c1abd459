// The MIB's place and net-snmp's search path (mibpath.h).
#include "mibpath.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace kelp::mib {
namespace {

namespace fs = std::filesystem;

TEST(NetsnmpMibDirs, FollowTheEnvironmentTheWayNetsnmpDoes)
{
    const std::string defaults = "$HOME/.snmp/mibs:/usr/share/snmp/mibs";
    struct Case {
        const char *mibdirs, *home;
        std::vector<std::string> dirs;
    } cases[] = {
        {nullptr, "/h", {"/h/.snmp/mibs", "/usr/share/snmp/mibs"}},
        {nullptr, nullptr, {"/usr/share/snmp/mibs"}},
        {nullptr, "", {"/usr/share/snmp/mibs"}},
        {"/x:/y", "/h", {"/x", "/y"}},
        {"+/x", "/h", {"/x", "/h/.snmp/mibs", "/usr/share/snmp/mibs"}},
        {"-/x", "/h", {"/h/.snmp/mibs", "/usr/share/snmp/mibs", "/x"}},
        {"", "/h", {}},
        {"::/x::", "/h", {"/x"}},
    };
    for (const Case &c : cases) {
        EXPECT_EQ(netsnmpMibDirs(c.mibdirs, c.home, defaults), c.dirs)
            << (c.mibdirs ? c.mibdirs : "(unset)");
    }
}

class FindMib : public testing::Test {
  protected:
    void SetUp() override
    {
        root_ = fs::path(testing::TempDir()) / ("kelp-mibpath-" + std::to_string(getpid()));
        fs::create_directories(root_ / "share/snmp/mibs");
        fs::create_directories(root_ / "bin");
        fs::create_directories(root_ / "net");
        fs::create_directories(root_ / "empty");
    }
    void TearDown() override { fs::remove_all(root_); }
    std::string dir(const std::string &name) const { return (root_ / name).string(); }
    void writeMib(const std::string &name) const
    {
        std::ofstream(root_ / name / moduleFile()) << "KELP-STORAGE-MIB DEFINITIONS ::= BEGIN\n";
    }

    fs::path root_;
};

TEST_F(FindMib, NamesTheDirAndBothOptionsWhenNetsnmpMissesIt)
{
    writeMib("share/snmp/mibs");
    const std::vector<std::string> kelpDirs = {dir("empty"), dir("bin") + "/../share/snmp/mibs"};
    const auto place = findMib(kelpDirs, {dir("net")});
    ASSERT_TRUE(place);
    EXPECT_EQ(place->dir, fs::canonical(root_ / "share/snmp/mibs").string());
    EXPECT_EQ(place->file, place->dir + "/KELP-STORAGE-MIB.txt");
    EXPECT_EQ(place->foundIn, "");
    EXPECT_EQ(place->options, "-M +" + place->dir + " -m +KELP-STORAGE-MIB");
    const std::string hint = mibHint(place, kelpDirs, {dir("net")});
    EXPECT_NE(hint.find("is not on net-snmp's MIB path (" + dir("net") + ")"), std::string::npos)
        << hint;
    EXPECT_NE(hint.find(place->options), std::string::npos) << hint;
}

TEST_F(FindMib, NeedsOnlyTheModuleWhenNetsnmpFindsIt)
{
    writeMib("share/snmp/mibs");
    writeMib("net");
    const auto place = findMib({dir("share/snmp/mibs")}, {dir("empty"), dir("net")});
    ASSERT_TRUE(place);
    EXPECT_EQ(place->foundIn, dir("net"));
    EXPECT_EQ(place->options, "-m +KELP-STORAGE-MIB");
    EXPECT_NE(mibHint(place, {}, {}).find("is on net-snmp's MIB path"), std::string::npos);
}

TEST_F(FindMib, NamesTheImportsNoDirOfThePathHolds)
{
    writeMib("share/snmp/mibs");
    const std::vector<std::string> kelpDirs = {dir("share/snmp/mibs")};
    const auto bare = findMib(kelpDirs, {dir("net")});
    ASSERT_TRUE(bare);
    EXPECT_EQ(bare->missingImports,
              (std::vector<std::string>{"SNMPv2-SMI", "SNMPv2-TC", "SNMPv2-CONF"}));
    const std::string hint = mibHint(bare, kelpDirs, {dir("net")});
    EXPECT_NE(hint.find("SNMPv2-SMI, SNMPv2-TC and SNMPv2-CONF"), std::string::npos) << hint;
    EXPECT_NE(hint.find("snmp-mibs-downloader"), std::string::npos) << hint;

    // As snmp-mibs-downloader names them (no extension), or with one.
    std::ofstream(root_ / "net" / "SNMPv2-SMI") << "SNMPv2-SMI DEFINITIONS ::= BEGIN\n";
    std::ofstream(root_ / "net" / "SNMPv2-TC.txt") << "SNMPv2-TC DEFINITIONS ::= BEGIN\n";
    const auto partly = findMib(kelpDirs, {dir("empty"), dir("net")});
    ASSERT_TRUE(partly);
    EXPECT_EQ(partly->missingImports, std::vector<std::string>{"SNMPv2-CONF"});
    EXPECT_NE(mibHint(partly, kelpDirs, {}).find("its import SNMPv2-CONF is"), std::string::npos);

    // Beside the MIB, which the options add to the path with -M.
    std::ofstream(root_ / "share/snmp/mibs" / "SNMPv2-CONF.txt") << "SNMPv2-CONF DEFINITIONS\n";
    const auto beside = findMib(kelpDirs, {dir("net")});
    ASSERT_TRUE(beside);
    EXPECT_TRUE(beside->missingImports.empty());
    fs::remove(root_ / "share/snmp/mibs" / "SNMPv2-CONF.txt");

    std::ofstream(root_ / "net" / "SNMPv2-CONF.my") << "SNMPv2-CONF DEFINITIONS ::= BEGIN\n";
    const auto whole = findMib(kelpDirs, {dir("net")});
    ASSERT_TRUE(whole);
    EXPECT_TRUE(whole->missingImports.empty());
    EXPECT_EQ(mibHint(whole, kelpDirs, {dir("net")}).find("SNMPv2"), std::string::npos);
}

TEST_F(FindMib, NothingWhenNoDirHoldsAFile)
{
    // A directory of the file's name is not the MIB.
    fs::create_directories(root_ / "empty" / moduleFile());
    const std::vector<std::string> kelpDirs = {dir("empty"), dir("missing"), ""};
    EXPECT_FALSE(findMib(kelpDirs, {dir("net")}));
    EXPECT_FALSE(findMib({}, {}));
    const std::string hint = mibHint(std::nullopt, kelpDirs, {});
    EXPECT_EQ(hint.find("no KELP-STORAGE-MIB.txt found in " + dir("empty")), 0u) << hint;
}

TEST(KelpMibDirs, InstalledThenBuildTreeThenCheckout)
{
    const std::vector<std::string> dirs = kelpMibDirs("/opt/kelp/bin");
    ASSERT_GE(dirs.size(), 2u);
    EXPECT_EQ(dirs[0], "/opt/kelp/bin/../share/snmp/mibs");
    EXPECT_EQ(dirs[1], "/opt/kelp/bin/../../mibs");
}

} // namespace
} // namespace kelp::mib
