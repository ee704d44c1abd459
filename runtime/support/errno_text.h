// errno as text for the runtime's messages. Every part of the runtime that
// reports a failed system call goes through here, so the text is always made
// with the thread-safe strerror_r.
#ifndef KELP_RUNTIME_SUPPORT_ERRNO_TEXT_H
#define KELP_RUNTIME_SUPPORT_ERRNO_TEXT_H

#include <string>

namespace kelp::rt {

// The text of errno value err ("No such file or directory").
std::string errnoText(int err);

// "<what> <path>: <the text of errno>", errno read at the call.
std::string errnoMessage(const std::string &what, const std::string &path);

} // namespace kelp::rt

#endif // KELP_RUNTIME_SUPPORT_ERRNO_TEXT_H
