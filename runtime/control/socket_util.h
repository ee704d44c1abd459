// Small helpers of the control socket: the path checks made before a socket
// file is created.
#ifndef KELP_RUNTIME_CONTROL_SOCKET_UTIL_H
#define KELP_RUNTIME_CONTROL_SOCKET_UTIL_H

#include <sys/un.h>
#include <unistd.h>

#include <string>

#include "support/unique_fd.h"

namespace kelp::ctl {

using rt::UniqueFd;

// Fills *addr for a Unix socket at path. False with a message for an empty
// path, one holding a NUL byte, or one too long for a socket address.
bool socketAddress(const std::string &path, sockaddr_un *addr, std::string *error);

// Makes room for a new socket at path: nothing to do when the path does not
// exist; a socket file nobody serves any more is unlinked. Anything else (a
// file that is not a socket, a socket someone still serves, an error
// inspecting it) answers false with a message and touches nothing.
bool removeStaleSocket(const std::string &path, const sockaddr_un &addr, std::string *error);

} // namespace kelp::ctl

#endif // KELP_RUNTIME_CONTROL_SOCKET_UTIL_H
