// GetInstallPath: where kelp is installed. KELP_INSTALL_PATH when set, else
// the directory holding libkelpruntime.so, found from one of its own symbols.
#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>

#include <cstring>
#include <string>

#include "queue.h"
#include "support/config.h"

namespace {

// The directory of the runtime library, absolute, or empty. It looks up its
// own address: a local function cannot be resolved to a program's PLT stub,
// as an exported one could be.
std::string runtimeDirectory()
{
    Dl_info info{};
    if (dladdr(reinterpret_cast<void *>(&runtimeDirectory), &info) == 0 ||
        info.dli_fname == nullptr) {
        return std::string();
    }
    char resolved[PATH_MAX];
    std::string file = realpath(info.dli_fname, resolved) != nullptr ? resolved : info.dli_fname;
    size_t slash = file.rfind('/');
    if (slash == std::string::npos)
        return std::string();
    return slash == 0 ? "/" : file.substr(0, slash);
}

} // namespace

extern "C" {

uint32_t GetInstallPath(char *path, uint32_t *size)
{
    if (path == nullptr || size == nullptr)
        return 5;
    std::string dir = kelp::rt::envValue("KELP_INSTALL_PATH");
    if (dir.empty())
        dir = runtimeDirectory();
    if (dir.empty())
        return 5;
    while (dir.size() > 1 && dir.back() == '/')
        dir.pop_back();
    const size_t needed = dir.size() + 1;
    if (needed > *size) {
        *size = static_cast<uint32_t>(needed);
        return 16;
    }
    std::memcpy(path, dir.c_str(), needed);
    *size = static_cast<uint32_t>(needed);
    return 0;
}

} // extern "C"
