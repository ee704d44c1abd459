// errno as text (see errno_text.h).
#include "support/errno_text.h"

#include <cerrno>
#include <cstring>

namespace kelp::rt {

std::string errnoText(int err)
{
    char buf[256];
    // The GNU strerror_r answers a pointer that may or may not be buf.
    return strerror_r(err, buf, sizeof buf);
}

std::string errnoMessage(const std::string &what, const std::string &path)
{
    int err = errno;
    return what + " " + path + ": " + errnoText(err);
}

} // namespace kelp::rt
