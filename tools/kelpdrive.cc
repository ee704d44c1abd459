// kelpdrive: loads the plug-in as a host does and prints the answers of the
// commands that need no SNMP: 1, 2, 3, load, the MIB definition, unload.
// A quick way to see the module work without an agent.
#include <cstdio>
#include <cstring>
#include <string>

#include "pluginhost.h"

namespace {

uint32_t printTrap(uint64_t, const SMSnmpOID *enterprise, uint32_t generic, uint32_t specific,
                   uint32_t bindingCount, SMSnmpValue *)
{
    std::printf("trap: enterprise %s generic %u specific %u bindings %u\n",
                dottedOid(enterprise->arcs, enterprise->count).c_str(), generic, specific,
                bindingCount);
    return 0;
}

void usage()
{
    std::fprintf(stderr, "usage: kelpdrive [--module PATH]\n");
}

} // namespace

int main(int argc, char **argv)
{
    std::string module = defaultPluginPath();
    for (int i = 1; i < argc; i++) {
        if (std::strcmp(argv[i], "--module") == 0 && i + 1 < argc) {
            module = argv[++i];
        } else {
            usage();
            return 2;
        }
    }

    PluginHost host;
    if (!host.open(module)) {
        std::fprintf(stderr, "kelpdrive: %s\n", host.error().c_str());
        return 1;
    }
    std::printf("module: %s\n", module.c_str());
    for (uint32_t command = SM_CMD_INFO1; command <= SM_CMD_INFO3; command++) {
        uint32_t answer = 0;
        const uint32_t status = host.info(command, &answer);
        std::printf("command %u: status %u, answer %u\n", command, status, answer);
    }

    void *services[SM_SERVICE_COUNT] = {};
    services[SM_SERVICE_TRAP_SEND] = reinterpret_cast<void *>(printTrap);
    std::printf("command 4 (load): status %u\n", host.load(services, 1));

    std::vector<const SMMibGroupDef *> groups;
    const uint32_t listed = host.listMib(&groups);
    std::printf("command 6 (list MIB): status %u, %zu groups\n", listed, groups.size());
    for (const SMMibGroupDef *group : groups) {
        std::printf("  %-40s %-7s %3u columns\n", dottedOid(group->arcs, group->arcCount).c_str(),
                    group->indexCount == 0 ? "scalars" : "table", group->columnCount);
    }

    std::printf("command 5 (unload): status %u\n", host.unload());
    return 0;
}
