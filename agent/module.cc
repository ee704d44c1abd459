// Driving the plug-in's lifetime through its dispatch.
#include "module.h"

#include <vector>

#include "log.h"

namespace kelp::agent {

ModuleHost::~ModuleHost()
{
    stop();
}

bool ModuleHost::open(const std::string &path, std::string *error)
{
    if (!host_.open(path)) {
        *error = "the module does not load: " + host_.error();
        return false;
    }
    dispatch_ = [this](uint32_t command, void *in, uint32_t inSize, void *out, uint32_t outSize,
                       uint32_t *outUsed) {
        return host_.call(command, in, inSize, out, outSize, outUsed);
    };
    logLine("module %s", path.c_str());
    return true;
}

bool ModuleHost::load(void *const *services, uint64_t handle, std::string *error)
{
    for (uint32_t command = SM_CMD_INFO1; command <= SM_CMD_INFO3; command++) {
        uint32_t answer = 0;
        const uint32_t status = host_.info(command, &answer);
        logLine("command %u: status %u, answer %u", command, status, answer);
    }
    const uint32_t loadStatus = host_.load(services, handle);
    if (loadStatus != SM_SNMP_NOERROR) {
        *error =
            "the module refuses to load (command 4: status " + std::to_string(loadStatus) + ")";
        return false;
    }
    loaded_ = true;

    std::vector<const SMMibGroupDef *> groups;
    const uint32_t listStatus = host_.listMib(&groups);
    if (listStatus != SM_SNMP_NOERROR) {
        *error = "the module lists no MIB (command 6: status " + std::to_string(listStatus) + ")";
        return false;
    }
    logLine("MIB definition: %zu groups, served as one subtree %s", groups.size(),
            dottedOid(kMibRoot, std::size(kMibRoot)).c_str());
    for (const SMMibGroupDef *group : groups) {
        const std::string oid = dottedOid(group->arcs, group->arcCount);
        const bool inside = group->arcs != nullptr && insideRoot({group->arcs, group->arcCount});
        logLine("  %-40s %-7s %3u columns%s", oid.c_str(),
                group->indexCount == 0 ? "scalars" : "table", group->columnCount,
                inside ? "" : "  (outside the served subtree: not answered)");
    }
    return true;
}

bool ModuleHost::startMonitor(std::string *error)
{
    uint32_t used = 0;
    const uint32_t status = host_.call(SM_CMD_START_MONITOR, nullptr, 0, nullptr, 0, &used);
    if (status != SM_SNMP_NOERROR) {
        *error = "the module does not start monitoring (command 7: status " +
                 std::to_string(status) + ")";
        return false;
    }
    monitoring_ = true;
    return true;
}

void ModuleHost::stop()
{
    uint32_t used = 0;
    if (monitoring_) {
        host_.call(SM_CMD_STOP_MONITOR, nullptr, 0, nullptr, 0, &used);
        monitoring_ = false;
    }
    if (loaded_) {
        host_.unload();
        loaded_ = false;
    }
    dispatch_ = nullptr;
    host_.close();
}

} // namespace kelp::agent
