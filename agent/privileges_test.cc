#include "privileges.h"

#include <gtest/gtest.h>

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

} // namespace
} // namespace kelp::agent
