// Driving the plug-in's lifetime through its dispatch.
#include "module.h"

#include <array>
#include <vector>

#include "log.h"
#include "startup.h"

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
    path_ = path;
    return true;
}

bool ModuleHost::load(void *const *services, uint64_t handle, std::string *error)
{
    std::array<uint32_t, 3> statuses{}, answers{};
    for (uint32_t command = SM_CMD_INFO1; command <= SM_CMD_INFO3; command++) {
        statuses[command - SM_CMD_INFO1] = host_.info(command, &answers[command - SM_CMD_INFO1]);
    }
    logLine("%s", pluginInfoLine(path_, statuses, answers).c_str());
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
    std::vector<DefinedGroup> defined;
    for (const SMMibGroupDef *group : groups) {
        DefinedGroup d;
        if (group->arcs != nullptr) {
            d.arcs.assign(group->arcs, group->arcs + group->arcCount);
        }
        d.table = group->indexCount != 0;
        d.columns = group->columnCount;
        defined.push_back(std::move(d));
    }
    const MibSummary summary = summariseMib(defined);
    logLine("%s", summary.definition.c_str());
    for (const std::string &line : summary.details) {
        logAt(LogLevel::kDebug, "%s", line.c_str());
    }
    for (const std::string &line : summary.outside) {
        logAt(LogLevel::kWarning, "%s", line.c_str());
    }
    logLine("%s", summary.served.c_str());
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
