// Loads a MIB implementer plug-in the way a host does (dlopen, then only its
// dispatch function) and wraps the commands in typed calls.
#ifndef KELP_TOOLS_PLUGINHOST_H
#define KELP_TOOLS_PLUGINHOST_H

#include <cstdint>
#include <string>
#include <vector>

#include "platform/smsnmp.h"

class PluginHost {
  public:
    PluginHost() = default;
    ~PluginHost();
    PluginHost(const PluginHost &) = delete;
    PluginHost &operator=(const PluginHost &) = delete;

    // Opens the plug-in and finds its dispatch. False with error() set when
    // the file does not load or lacks the export.
    bool open(const std::string &path);
    // dlclose; the plug-in's detach hook runs.
    void close();
    const std::string &error() const { return error_; }
    bool isOpen() const { return dispatch_ != nullptr; }

    // The raw dispatch.
    uint32_t call(uint32_t command, void *in, uint32_t inSize, void *out, uint32_t outSize,
                  uint32_t *outUsed) const;

    // Commands 1-3: the 32-bit answer, or the status when it is not 0.
    uint32_t info(uint32_t command, uint32_t *answer) const;
    uint32_t load(void *const *services, uint64_t handle) const;
    uint32_t unload() const;
    // Command 6: the groups of every definition listed.
    uint32_t listMib(std::vector<const SMMibGroupDef *> *groups) const;

  private:
    void *handle_ = nullptr;
    SMMIBImplementerDispatchFn dispatch_ = nullptr;
    std::string error_;
};

// The plug-in next to a program: <directory of the program>/../lib/libkelpimp64.so.
std::string defaultPluginPath();

// "1.3.6.1..." of an arc array.
std::string dottedOid(const uint32_t *arcs, uint32_t count);

#endif // KELP_TOOLS_PLUGINHOST_H
