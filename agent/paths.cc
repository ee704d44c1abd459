// Default places and the state dir.
#include "paths.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "mibpath.h"

#ifndef KELP_SOURCE_DIR
#define KELP_SOURCE_DIR ""
#endif

// The install's configuration dir (the build defines it from its sysconfdir).
#ifndef KELP_SYSCONFDIR
#define KELP_SYSCONFDIR "/etc"
#endif

namespace kelp::agent {

std::string binaryDir()
{
    char self[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0) {
        return ".";
    }
    std::string path(self, static_cast<size_t>(length));
    const size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

DefaultPlaces defaultPlaces(const std::string &binDir, const char *xdgStateHome, const char *home)
{
    DefaultPlaces places;
    if (xdgStateHome != nullptr && xdgStateHome[0] == '/') {
        // The XDG rules ignore a relative value.
        places.stateDir = std::string(xdgStateHome) + "/kelp";
    } else if (home != nullptr && home[0] != '\0') {
        places.stateDir = std::string(home) + "/.local/state/kelp";
    }
    // Installed, the plug-in is a private library in lib/kelp; in the build
    // tree it sits in lib/ beside bin/.
    const std::string installedModule = binDir + "/../lib/kelp/libkelpimp64.so";
    places.module = access(installedModule.c_str(), F_OK) == 0 ? installedModule
                                                               : binDir + "/../lib/libkelpimp64.so";
    places.modelCandidates.push_back(binDir + "/../share/kelp/models/sample.xml");
    places.modelCandidates.push_back(binDir + "/../../data/models/sample.xml");
    if (KELP_SOURCE_DIR[0] != '\0') {
        places.modelCandidates.push_back(std::string(KELP_SOURCE_DIR) + "/data/models/sample.xml");
    }
    // A developer's agent in its build tree, and every test that starts it,
    // must not pick up the machine's configuration.
    struct stat st {};
    if (stat((binDir + "/../CMakeCache.txt").c_str(), &st) != 0) {
        places.config = KELP_SYSCONFDIR "/kelp/kelpagent.conf";
    }
    return places;
}

std::string mibHint(const std::string &binDir)
{
    const std::vector<std::string> kelpDirs = mib::kelpMibDirs(binDir);
    const std::vector<std::string> netsnmpDirs = mib::netsnmpMibDirs(
        std::getenv("MIBDIRS"), std::getenv("HOME"), mib::netsnmpDefaultMibDirs());
    return mib::mibHint(mib::findMib(kelpDirs, netsnmpDirs), kelpDirs, netsnmpDirs);
}

bool makeStateDir(const std::string &dir, std::string *error)
{
    for (size_t slash = dir.find('/', 1);; slash = dir.find('/', slash + 1)) {
        const std::string part = dir.substr(0, slash);
        const mode_t mode = slash == std::string::npos ? 0700 : 0755;
        if (!part.empty() && mkdir(part.c_str(), mode) != 0 && errno != EEXIST) {
            *error = "cannot create " + part + ": " + std::strerror(errno);
            return false;
        }
        if (slash == std::string::npos) {
            break;
        }
    }
    struct stat st {};
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        *error = dir + " is not a directory";
        return false;
    }
    return true;
}

bool checkStateDirWritable(const std::string &dir, std::string *error, const std::string &user)
{
    // One page: a full tmpfs still creates an empty file, but refuses data.
    const std::string page(4096, '\n');
    std::string path = dir + "/.write-check.XXXXXX";
    const int fd = mkostemp(path.data(), O_CLOEXEC);
    int err = fd < 0 ? errno : 0;
    size_t done = 0;
    while (err == 0 && done < page.size()) {
        const ssize_t n = write(fd, page.data() + done, page.size() - done);
        if (n > 0) {
            done += static_cast<size_t>(n);
        } else if (n == 0 || errno != EINTR) {
            err = n == 0 ? ENOSPC : errno;
        }
    }
    if (err == 0 && fsync(fd) != 0) {
        err = errno;
    }
    if (fd >= 0) {
        if (close(fd) != 0 && err == 0) {
            err = errno;
        }
        unlink(path.c_str());
    }
    if (err != 0) {
        *error = "the state dir " + dir + " cannot be written" +
                 (user.empty() ? "" : " by user " + user) + ": " + std::strerror(err);
        return false;
    }
    return true;
}

bool isKelpStateEntry(std::string_view name)
{
    for (const std::string_view own :
         {kStateIni, kStateControl, kStateDebugLog, kStateSnmpDir, kStateLock}) {
        if (name == own) {
            return true;
        }
    }
    // The ini store locks its file through "<file>.lock".
    if (name.size() == kStateIni.size() + 5 && name.starts_with(kStateIni) &&
        name.ends_with(".lock")) {
        return true;
    }
    // checkStateDirWritable's file, left behind only by a crash.
    constexpr std::string_view kWriteCheck = ".write-check.";
    return name.size() > kWriteCheck.size() && name.starts_with(kWriteCheck);
}

std::string foreignStateEntry(const std::string &dir)
{
    DIR *entries = opendir(dir.c_str());
    if (entries == nullptr) {
        return "";
    }
    std::string foreign;
    while (const dirent *entry = readdir(entries)) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != ".." && !isKelpStateEntry(name)) {
            foreign = name;
            break;
        }
    }
    closedir(entries);
    return foreign;
}

std::string sharedStateDirWarning(const std::string &dir)
{
    struct stat st {};
    if (stat(dir.c_str(), &st) != 0 || (st.st_mode & 077) == 0) {
        return "";
    }
    const std::string foreign = foreignStateEntry(dir);
    if (foreign.empty()) {
        return "";
    }
    char mode[8];
    std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
    return "the state dir " + dir + " is open to other users (mode " + mode +
           ") and holds what is not kelp's (" + foreign +
           "): left as it is, so others may read kelp's files there (its engine state and "
           "control socket stay private); give kelp a directory of its own";
}

bool lockStateDir(const std::string &dir, std::string *error)
{
    const std::string path = dir + "/" + std::string(kStateLock);
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        *error = "cannot lock the state dir: " + path + ": " + std::strerror(errno);
        return false;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        const int err = errno;
        char pid[32] = {};
        const ssize_t got = pread(fd, pid, sizeof pid - 1, 0);
        close(fd);
        if (err != EWOULDBLOCK) {
            *error = "cannot lock the state dir: " + path + ": " + std::strerror(err);
            return false;
        }
        std::string holder = got > 0 ? std::string(pid, static_cast<size_t>(got)) : "";
        while (!holder.empty() && (holder.back() == '\n' || holder.back() == ' ')) {
            holder.pop_back();
        }
        *error = "the state dir " + dir + " is in use by another kelpagent" +
                 (holder.empty() ? "" : " (pid " + holder + ")") +
                 ": give each agent its own --state-dir";
        return false;
    }
    // Held until the process ends: the descriptor is never closed.
    const std::string pid = std::to_string(getpid()) + "\n";
    // Should the write fail, the lock holds all the same; only the pid in
    // another agent's refusal is missing.
    [[maybe_unused]] const bool written =
        ftruncate(fd, 0) == 0 && pwrite(fd, pid.data(), pid.size(), 0) > 0;
    return true;
}

} // namespace kelp::agent

namespace kelp::agent {

unsigned tightenStateDir(const std::string &dir)
{
    struct stat st {};
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode) || (st.st_mode & 077) == 0 ||
        st.st_uid != geteuid() || chmod(dir.c_str(), 0700) != 0) {
        return 0;
    }
    return static_cast<unsigned>(st.st_mode & 07777);
}

} // namespace kelp::agent
