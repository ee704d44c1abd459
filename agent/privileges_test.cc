#include "privileges.h"

#include "paths.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace kelp::agent {
namespace {

TEST(Privileges, RootIsRefusedUnlessAllowedOrLeftForAUser)
{
    const struct {
        uid_t euid;
        bool allowRoot;
        const char *user;
        uid_t userUid;
        const char *refusal; // the start of the message; "" to start
    } cases[] = {
        {0, false, "", 0, "refusing to run as root"},
        {0, true, "", 0, ""},
        {0, false, "kelp", 999, ""},
        {0, true, "kelp", 999, ""},
        {1000, false, "", 0, ""},
        {1000, true, "", 0, ""},
        {1000, false, "kelp", 999, "--user kelp needs the agent to be started as root"},
        {999, false, "kelp", 999, ""},
    };
    for (const auto &c : cases) {
        const std::string refusal = startRefusal(c.euid, c.allowRoot, c.user, c.userUid);
        EXPECT_EQ(refusal.substr(0, std::string(c.refusal).size()), c.refusal)
            << c.euid << " " << c.allowRoot << " " << c.user;
        EXPECT_EQ(refusal.empty(), std::string(c.refusal).empty()) << refusal;
    }
}

TEST(Privileges, AnUnknownUserIsRefused)
{
    RunAs user;
    std::string error;
    EXPECT_FALSE(lookUpUser("no-such-user-kelp", &user, &error));
    EXPECT_EQ(error, "--user no-such-user-kelp: no such user");
    ASSERT_TRUE(lookUpUser("root", &user, &error)) << error;
    EXPECT_EQ(user.uid, 0u);
}

uid_t ownerOf(const std::filesystem::path &path)
{
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? st.st_uid : static_cast<uid_t>(-1);
}

TEST(Privileges, TheStateDirIsHandedOverWholeAndOtherPathsOnlyAsFiles)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to give files away";
    char pattern[] = "/tmp/kelp-handover-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::filesystem::path root = pattern;
    const std::filesystem::path state = root / "state", other = root / "elsewhere";
    std::filesystem::create_directories(state / "snmp");
    std::filesystem::create_directories(other / "inner");
    for (const auto &file : {state / "snmp/kelpagent.conf", state / "kelp.ini",
                             other / "control.sock", other / "inner/kept"}) {
        std::ofstream(file) << "x";
    }
    RunAs user{"nobody", 65534, 65534};
    std::string error;
    ASSERT_TRUE(handOver(state, {other / "control.sock", other, root / "missing"}, user, &error))
        << error;
    EXPECT_EQ(ownerOf(state), 65534u);
    EXPECT_EQ(ownerOf(state / "snmp"), 65534u);
    EXPECT_EQ(ownerOf(state / "snmp/kelpagent.conf"), 65534u);
    EXPECT_EQ(ownerOf(state / "kelp.ini"), 65534u);
    EXPECT_EQ(ownerOf(other / "control.sock"), 65534u);
    // A directory among the files is neither handed over nor walked.
    EXPECT_EQ(ownerOf(other), 0u);
    EXPECT_EQ(ownerOf(other / "inner/kept"), 0u);
    std::filesystem::remove_all(root);
}

TEST(Privileges, InADirThatIsNotKelpsOwnOnlyKelpsFilesAreHandedOver)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to give files away";
    char pattern[] = "/tmp/kelp-handover-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::filesystem::path state = pattern;
    std::filesystem::create_directories(state / "snmp");
    std::filesystem::create_directories(state / "otherapp");
    for (const auto &file : {state / "snmp/kelpagent.conf", state / "kelp.ini",
                             state / "otherapp/key", state / "notes"}) {
        std::ofstream(file) << "x";
    }
    RunAs user{"nobody", 65534, 65534};
    std::string error;
    ASSERT_TRUE(handOver(state, {}, user, &error)) << error;
    EXPECT_EQ(ownerOf(state / "snmp"), 65534u);
    EXPECT_EQ(ownerOf(state / "snmp/kelpagent.conf"), 65534u);
    EXPECT_EQ(ownerOf(state / "kelp.ini"), 65534u);
    EXPECT_EQ(ownerOf(state), 0u) << "a directory that holds what is not kelp's stays its owner's";
    EXPECT_EQ(ownerOf(state / "otherapp"), 0u);
    EXPECT_EQ(ownerOf(state / "otherapp/key"), 0u);
    EXPECT_EQ(ownerOf(state / "notes"), 0u);
    std::filesystem::remove_all(state);
}

TEST(StateDirEntries, OnlyKelpsOwnNamesAreKelps)
{
    for (const char *name : {"kelp.ini", "kelp.ini.lock", "control.sock", "debug.log", "snmp",
                             "kelpagent.lock", ".write-check.AbC123"}) {
        EXPECT_TRUE(isKelpStateEntry(name)) << name;
    }
    for (const char *name : {"notes", "otherapp", "kelp.ini~", "snmpd.conf", ".write-check"}) {
        EXPECT_FALSE(isKelpStateEntry(name)) << name;
    }
}

} // namespace
} // namespace kelp::agent
