// PluginHost: dlopen and the dispatch of a MIB implementer plug-in.
#include "pluginhost.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstring>

PluginHost::~PluginHost()
{
    close();
}

bool PluginHost::open(const std::string &path)
{
    close();
    // dlopen would wait on a FIFO for a writer; a path (a name with a slash)
    // that is there must be a regular file.
    struct stat st {};
    if (path.find('/') != std::string::npos && stat(path.c_str(), &st) == 0 &&
        !S_ISREG(st.st_mode)) {
        error_ = path + ": not a regular file";
        return false;
    }
    handle_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr) {
        const char *reason = dlerror();
        error_ = reason != nullptr ? reason : ("cannot load " + path);
        return false;
    }
    dispatch_ = reinterpret_cast<SMMIBImplementerDispatchFn>(dlsym(handle_, SM_DISPATCH_SYMBOL));
    if (dispatch_ == nullptr) {
        error_ = path + ": no " SM_DISPATCH_SYMBOL;
        close();
        return false;
    }
    return true;
}

void PluginHost::close()
{
    if (handle_ != nullptr) {
        dlclose(handle_);
    }
    handle_ = nullptr;
    dispatch_ = nullptr;
}

uint32_t PluginHost::call(uint32_t command, void *in, uint32_t inSize, void *out, uint32_t outSize,
                          uint32_t *outUsed) const
{
    return dispatch_(command, in, inSize, out, outSize, outUsed);
}

uint32_t PluginHost::info(uint32_t command, uint32_t *answer) const
{
    uint32_t used = 0;
    return call(command, nullptr, 0, answer, sizeof *answer, &used);
}

uint32_t PluginHost::load(void *const *services, uint64_t handle) const
{
    SMLoadArgs args{services, handle};
    uint32_t used = 0;
    return call(SM_CMD_LOAD, &args, sizeof args, nullptr, 0, &used);
}

uint32_t PluginHost::unload() const
{
    uint32_t used = 0;
    return call(SM_CMD_UNLOAD, nullptr, 0, nullptr, 0, &used);
}

uint32_t PluginHost::listMib(std::vector<const SMMibGroupDef *> *groups) const
{
    // Room for a few definitions; this plug-in lists one.
    alignas(8) unsigned char buffer[8 + 8 * 8];
    uint32_t used = 0;
    const uint32_t status = call(SM_CMD_LIST_MIB, nullptr, 0, buffer, sizeof buffer, &used);
    if (status != 0) {
        return status;
    }
    uint32_t count = 0;
    std::memcpy(&count, buffer, sizeof count);
    for (uint32_t i = 0; i < count && 8 + 8 * (i + 1) <= used; i++) {
        const SMMibGroupDef *const *definition = nullptr;
        std::memcpy(&definition, buffer + 8 + 8 * i, sizeof definition);
        for (; definition != nullptr && *definition != nullptr; definition++) {
            groups->push_back(*definition);
        }
    }
    return 0;
}

std::string defaultPluginPath()
{
    char self[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    if (length <= 0) {
        return "libkelpimp64.so";
    }
    self[length] = '\0';
    std::string dir(self);
    dir.erase(dir.rfind('/'));
    return dir + "/../lib/libkelpimp64.so";
}

std::string dottedOid(const uint32_t *arcs, uint32_t count)
{
    std::string text;
    for (uint32_t i = 0; i < count; i++) {
        if (i > 0) {
            text += '.';
        }
        text += std::to_string(arcs[i]);
    }
    return text;
}
