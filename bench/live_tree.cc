// live_tree DIR DISKS: writes the sysfs tree of a SAS server with DISKS disks
// under DIR (see runtime/datastore/live/machine_testing.h), for
// bench/live_walk.sh to serve with kelpagent --live-root.
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "datastore/live/machine_testing.h"

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: live_tree DIR DISKS\n");
        return 2;
    }
    char *end = nullptr;
    const unsigned long disks = std::strtoul(argv[2], &end, 10);
    if (*end != '\0' || disks == 0 || disks > 65536) {
        std::fprintf(stderr, "live_tree: DISKS is a number from 1 to 65536\n");
        return 2;
    }
    if (std::filesystem::exists(argv[1])) {
        std::fprintf(stderr, "live_tree: %s exists; give a new directory\n", argv[1]);
        return 1;
    }
    kelp::live::testing::TempTree tree(argv[1], true);
    kelp::live::testing::writeSasServer(tree, static_cast<unsigned>(disks));
    return 0;
}
