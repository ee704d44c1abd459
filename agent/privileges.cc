// Root refused, or left for a user once the ports are bound.
#include "privileges.h"

#include <dirent.h>
#include <ftw.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "paths.h"

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

// Hands the root-owned entries of the tree at `path` (walked without
// following links) to the user.
bool handTree(const std::string &path, const RunAs &user, std::string *error)
{
    g_handTo = &user;
    g_handError = 0;
    g_handFailed.clear();
    const int walked = nftw(path.c_str(), handOne, 16, FTW_PHYS);
    g_handTo = nullptr;
    if (walked != 0) {
        *error = "cannot hand " + (g_handFailed.empty() ? path : g_handFailed) + " to " +
                 user.name + ": " + std::strerror(g_handError != 0 ? g_handError : errno);
        return false;
    }
    return true;
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

bool handOver(const std::string &stateDir, const std::vector<std::string> &files, const RunAs &user,
              std::string *error)
{
    struct stat st {};
    if (!stateDir.empty() && lstat(stateDir.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        // Only what the agent makes there: a state dir that also holds
        // what is not the agent's stays its owner's, and so do those files.
        std::vector<std::string> own;
        if (DIR *entries = opendir(stateDir.c_str())) {
            while (const dirent *entry = readdir(entries)) {
                if (isKelpStateEntry(entry->d_name)) {
                    own.push_back(stateDir + "/" + entry->d_name);
                }
            }
            closedir(entries);
        }
        for (const std::string &path : own) {
            if (!handTree(path, user, error)) {
                return false;
            }
        }
        if (st.st_uid == 0 && foreignStateEntry(stateDir).empty() &&
            lchown(stateDir.c_str(), user.uid, user.gid) != 0) {
            *error = "cannot hand " + stateDir + " to " + user.name + ": " + std::strerror(errno);
            return false;
        }
    }
    for (const std::string &file : files) {
        if (file.empty() || lstat(file.c_str(), &st) != 0 || S_ISDIR(st.st_mode) ||
            st.st_uid != 0) {
            continue;
        }
        if (lchown(file.c_str(), user.uid, user.gid) != 0) {
            *error = "cannot hand " + file + " to " + user.name + ": " + std::strerror(errno);
            return false;
        }
    }
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
