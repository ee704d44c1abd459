// Root refused, or left for a user once the ports are bound.
#include "privileges.h"

#include <ftw.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace kelp::agent {
namespace {

// nftw's callback takes no context: the walk runs on the main thread
// before any other thread changes files, one walk at a time.
const RunAs *g_handTo = nullptr;
int g_handError = 0;
std::string g_handFailed;

int handOne(const char *path, const struct stat *st, int, FTW *)
{
    if (st->st_uid == 0 && lchown(path, g_handTo->uid, g_handTo->gid) != 0) {
        g_handError = errno;
        g_handFailed = path;
        return 1;
    }
    return 0;
}

} // namespace

std::string startRefusal(uid_t euid, bool allowRoot, const std::string &user, uid_t userUid)
{
    if (euid == 0 && user.empty() && !allowRoot) {
        return "refusing to run as root: give --user NAME to run as that user once the SNMP port "
               "is bound, or --allow-root";
    }
    if (euid != 0 && !user.empty() && userUid != euid) {
        return "--user " + user + " needs the agent to be started as root";
    }
    return "";
}

bool lookUpUser(const std::string &name, RunAs *user, std::string *error)
{
    errno = 0;
    const passwd *entry = getpwnam(name.c_str());
    if (entry == nullptr) {
        *error = "--user " + name + ": no such user";
        return false;
    }
    user->name = name;
    user->uid = entry->pw_uid;
    user->gid = entry->pw_gid;
    return true;
}

bool handOver(const std::vector<std::string> &paths, const RunAs &user, std::string *error)
{
    g_handTo = &user;
    for (const std::string &path : paths) {
        struct stat st {};
        if (path.empty() || lstat(path.c_str(), &st) != 0) {
            continue;
        }
        g_handError = 0;
        if (nftw(path.c_str(), handOne, 16, FTW_PHYS) != 0) {
            *error = "cannot hand " + (g_handFailed.empty() ? path : g_handFailed) + " to " +
                     user.name + ": " + std::strerror(g_handError != 0 ? g_handError : errno);
            g_handTo = nullptr;
            return false;
        }
    }
    g_handTo = nullptr;
    return true;
}

bool dropPrivileges(const RunAs &user, std::string *error)
{
    const gid_t groups[] = {user.gid};
    if (setgroups(1, groups) != 0 || setgid(user.gid) != 0 || setuid(user.uid) != 0) {
        *error = "cannot become user " + user.name + ": " + std::strerror(errno);
        return false;
    }
    if (user.uid != 0 && (setuid(0) == 0 || seteuid(0) == 0)) {
        *error = "still able to become root after becoming user " + user.name;
        return false;
    }
    return true;
}

} // namespace kelp::agent
