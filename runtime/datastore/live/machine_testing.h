// Tests and benchmarks only: a SAS server of any size written as a sysfs tree,
// the kernel's layout with its links: one HBA per 256 disks (host per HBA),
// 24-slot SES enclosures behind it, SAS disks in every slot with a serial, a
// size and a medium, so that a scan reads about what it reads on a real
// machine of that size.
#ifndef KELP_RUNTIME_DATASTORE_LIVE_MACHINE_TESTING_H
#define KELP_RUNTIME_DATASTORE_LIVE_MACHINE_TESTING_H

#include <algorithm>
#include <cstdio>
#include <string>
#include <utility>

#include "datastore/live/tree_testing.h"

namespace kelp::live::testing {

inline constexpr unsigned kDisksPerHba = 256;
inline constexpr unsigned kSlotsPerEnclosure = 24;

// "../" as often as `path` (below sys/devices) has components.
inline std::string upFrom(const std::string &path)
{
    std::string up = "../";
    for (char c : path) {
        if (c == '/')
            up += "../";
    }
    return up;
}

inline void writeSasServer(const TempTree &t, unsigned disks)
{
    char buffer[64];
    t.dir("sys/bus/pci/drivers/mpt3sas");
    t.file("sys/module/mpt3sas/version", "43.100.00.00\n");
    const unsigned hbas = (disks + kDisksPerHba - 1) / kDisksPerHba;
    for (unsigned h = 0; h < hbas; ++h) {
        std::snprintf(buffer, sizeof buffer, "0000:%02x:00.0", 0x10 + h);
        const std::string bdf = buffer;
        const std::string rel = "pci0000:00/" + bdf;
        const std::string pci = "sys/devices/" + rel;
        t.file(pci + "/class", "0x010700\n");
        t.file(pci + "/vendor", "0x1000\n");
        t.file(pci + "/device", "0x0097\n");
        t.link(pci + "/driver", "../../../bus/pci/drivers/mpt3sas");
        t.link("sys/bus/pci/devices/" + bdf, "../../../devices/" + rel);
        const std::string host = "host" + std::to_string(h);
        t.file(pci + "/" + host + "/scsi_host/" + host + "/proc_name", "mpt3sas\n");
        t.file(pci + "/" + host + "/scsi_host/" + host + "/version_fw", "16.00.12.00\n");
        t.link("sys/class/scsi_host/" + host,
               "../../devices/" + rel + "/" + host + "/scsi_host/" + host);
        const unsigned first = h * kDisksPerHba;
        const unsigned count = std::min(kDisksPerHba, disks - first);
        const unsigned enclosures = (count + kSlotsPerEnclosure - 1) / kSlotsPerEnclosure;
        const std::string hs = std::to_string(h);
        auto deviceDir = [&](unsigned target) {
            const std::string hctl = hs + ":0:" + std::to_string(target) + ":0";
            return std::make_pair(hctl, rel + "/" + host + "/port-" + hs + ":0/expander-" + hs +
                                            ":0/target" + hs + ":0:" + std::to_string(target) +
                                            "/" + hctl);
        };
        for (unsigned e = 0; e < enclosures; ++e) {
            const unsigned target = 1000 + e;
            auto [hctl, dev] = deviceDir(target);
            t.file("sys/devices/" + dev + "/type", "13\n");
            t.file("sys/devices/" + dev + "/vendor", "HALDEN  \n");
            t.file("sys/devices/" + dev + "/model", "HJ2400-12G      \n");
            t.file("sys/devices/" + dev + "/rev", "0311\n");
            t.file("sys/devices/" + dev + "/state", "running\n");
            t.dir("sys/devices/" + dev + "/scsi_generic/sg" + std::to_string(100000 + target));
            t.link("sys/devices/" + dev + "/scsi_device/" + hctl + "/device", "../../../" + hctl);
            t.link("sys/class/scsi_device/" + hctl,
                   "../../devices/" + dev + "/scsi_device/" + hctl);
            t.file("sys/devices/" + dev + "/enclosure/" + hctl + "/components", "24\n");
            t.link("sys/class/enclosure/" + hctl, "../../devices/" + dev + "/enclosure/" + hctl);
        }
        for (unsigned d = 0; d < count; ++d) {
            const unsigned disk = first + d;
            auto [hctl, dev] = deviceDir(d);
            const std::string D = "sys/devices/" + dev;
            t.file(D + "/type", "0\n");
            t.file(D + "/vendor", "HALDEN  \n");
            t.file(D + "/model", "HS1200S12       \n");
            t.file(D + "/rev", "HV04\n");
            t.file(D + "/state", "running\n");
            std::snprintf(buffer, sizeof buffer, "0x5000c500%08x\n", disk);
            t.file(D + "/sas_address", buffer);
            std::snprintf(buffer, sizeof buffer, "HAL%07u", disk);
            t.file(D + "/vpd_pg80", std::string("\0\x80\0\x0a", 4) + buffer);
            const std::string block = "sd" + std::to_string(disk);
            t.file(D + "/block/" + block + "/size", "2344225968\n");
            t.file(D + "/block/" + block + "/queue/rotational", "1\n");
            t.link(D + "/scsi_device/" + hctl + "/device", "../../../" + hctl);
            t.link("sys/class/scsi_device/" + hctl,
                   "../../devices/" + dev + "/scsi_device/" + hctl);
            t.link("sys/block/" + block, "../devices/" + dev + "/block/" + block);
            // Its slot in its enclosure, and the links both ways.
            auto [ehctl, edev] = deviceDir(1000 + d / kSlotsPerEnclosure);
            std::snprintf(buffer, sizeof buffer, "Slot %02u", d % kSlotsPerEnclosure);
            const std::string slot = buffer;
            const std::string comp = "sys/devices/" + edev + "/enclosure/" + ehctl + "/" + slot;
            t.file(comp + "/slot", std::to_string(d % kSlotsPerEnclosure) + "\n");
            t.file(comp + "/type", "array device\n");
            t.file(comp + "/status", "OK\n");
            // From the component up to the root of sys/devices, then down to the disk.
            const std::string compRel = edev + "/enclosure/" + ehctl + "/" + slot;
            t.link(comp + "/device", upFrom(compRel) + dev);
            t.link(D + "/enclosure_device:" + slot, upFrom(dev) + compRel);
        }
    }
}

} // namespace kelp::live::testing

#endif // KELP_RUNTIME_DATASTORE_LIVE_MACHINE_TESTING_H
