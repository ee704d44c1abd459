// Helpers of the control socket: the path checks made before the socket
// file is created.
#include "control/socket_util.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "support/errno_text.h"

namespace kelp::ctl {

bool socketAddress(const std::string &path, sockaddr_un *addr, std::string *error)
{
    if (path.empty()) {
        *error = "the control socket path is empty";
        return false;
    }
    if (path.find('\0') != std::string::npos) {
        *error = "the control socket path holds a NUL byte";
        return false;
    }
    if (path.size() >= sizeof addr->sun_path) {
        *error = "the control socket path " + path + " is " + std::to_string(path.size()) +
                 " bytes long, more than a socket address holds (" +
                 std::to_string(sizeof addr->sun_path - 1) + ")";
        return false;
    }
    *addr = sockaddr_un{};
    addr->sun_family = AF_UNIX;
    std::memcpy(addr->sun_path, path.c_str(), path.size() + 1);
    return true;
}

bool removeStaleSocket(const std::string &path, const sockaddr_un &addr, std::string *error)
{
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) {
        if (errno == ENOENT)
            return true;
        *error = rt::errnoMessage("cannot inspect", path);
        return false;
    }
    if (!S_ISSOCK(st.st_mode)) {
        *error = path + " exists and is not a socket; it is left as it is";
        return false;
    }
    // A socket file outlives the process that served it. Only one that
    // refuses connections is stale; taking over a live one would cut off the
    // server that owns it.
    UniqueFd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!probe) {
        *error = rt::errnoMessage("cannot create a socket to probe", path);
        return false;
    }
    if (connect(probe.get(), reinterpret_cast<const sockaddr *>(&addr), sizeof addr) == 0 ||
        errno == EAGAIN || errno == EINPROGRESS) {
        *error = "another server is listening on " + path;
        return false;
    }
    if (errno != ECONNREFUSED) {
        *error = rt::errnoMessage("cannot probe the existing socket", path);
        return false;
    }
    if (unlink(path.c_str()) != 0 && errno != ENOENT) {
        *error = rt::errnoMessage("cannot remove the stale socket", path);
        return false;
    }
    return true;
}

} // namespace kelp::ctl
