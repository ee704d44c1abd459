// Default places and the state dir.
#include "paths.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>

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
        if (!part.empty() && mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
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

bool checkStateDirWritable(const std::string &dir, std::string *error)
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
        *error = "the state dir " + dir + " cannot be written: " + std::strerror(err);
        return false;
    }
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
