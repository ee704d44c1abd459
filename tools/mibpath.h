// Where kelp's MIB module is, whether net-snmp's tools find it on their own,
// and the options that make them find it. Shared by `kelpctl mib` and the
// hint kelpagent logs at start; net-snmp itself is not linked, its search
// path is computed the way its tools compute it.
#ifndef KELP_TOOLS_MIBPATH_H
#define KELP_TOOLS_MIBPATH_H

#include <optional>
#include <string>
#include <vector>

namespace kelp::mib {

// The MIB module's name, and its file name (the name plus ".txt").
inline constexpr const char *kModule = "KELP-STORAGE-MIB";
std::string moduleFile();

// The dirs that may hold kelp's MIB for a program in `binDir`, in the order
// tried: <bin>/../share/snmp/mibs (installed), <bin>/../../mibs (build
// tree inside the checkout), <source dir>/mibs (the checkout it was built
// from).
std::vector<std::string> kelpMibDirs(const std::string &binDir);

// net-snmp's MIB search path as its tools build it: `mibdirs` (the MIBDIRS
// environment variable, may be null) replaces `defaults` (colon-separated,
// as net-snmp was built: KELP_NETSNMP_MIBDIRS), or adds to them when it
// starts with '+' (before) or '-' (after); "$HOME" in any of them becomes
// `home` (a null or empty home drops the dirs that need it). Empty entries
// are dropped.
std::vector<std::string> netsnmpMibDirs(const char *mibdirs, const char *home,
                                        const std::string &defaults);

// The compiled-in default of net-snmp's MIB path (colon-separated).
std::string netsnmpDefaultMibDirs();

struct MibPlace {
    std::string dir;     // the dir of kelp's MIB file, without "." or ".." parts
    std::string file;    // dir + "/" + moduleFile()
    std::string foundIn; // the first net-snmp dir holding moduleFile(); empty: none
    std::string options; // what a net-snmp tool needs: "[-M +DIR ]-m +KELP-STORAGE-MIB"
    // The modules the MIB imports (SNMPv2-SMI, SNMPv2-TC, SNMPv2-CONF) that no
    // file of net-snmp's dirs is named after (NAME, NAME.txt, .my or .mib):
    // without them net-snmp's tools cannot read the MIB.
    std::vector<std::string> missingImports;
};

// The first of `kelpDirs` holding moduleFile() as a regular file, checked
// against `netsnmpDirs`; nullopt when none holds it.
std::optional<MibPlace> findMib(const std::vector<std::string> &kelpDirs,
                                const std::vector<std::string> &netsnmpDirs);

// One line for a log or a terminal: where the MIB is and the options to
// give net-snmp's tools, and the imports the path lacks; or where it was
// looked for when `place` is empty.
std::string mibHint(const std::optional<MibPlace> &place, const std::vector<std::string> &kelpDirs,
                    const std::vector<std::string> &netsnmpDirs);

} // namespace kelp::mib

#endif // KELP_TOOLS_MIBPATH_H
