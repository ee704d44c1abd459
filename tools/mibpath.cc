// The MIB's place and net-snmp's search path (mibpath.h).
#include "mibpath.h"

#include <sys/stat.h>

#include <climits>
#include <cstdlib>

#ifndef KELP_SOURCE_DIR
#define KELP_SOURCE_DIR ""
#endif
#ifndef KELP_NETSNMP_MIBDIRS
#define KELP_NETSNMP_MIBDIRS "$HOME/.snmp/mibs:/usr/share/snmp/mibs"
#endif

namespace kelp::mib {
namespace {

std::vector<std::string> splitPath(const std::string &text)
{
    std::vector<std::string> parts;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find(':', start);
        if (end == std::string::npos)
            end = text.size();
        if (end > start)
            parts.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

bool isRegularFile(const std::string &path)
{
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// The path without symbolic links, "." and ".."; the path itself when it
// cannot be resolved.
std::string canonical(const std::string &path)
{
    char resolved[PATH_MAX];
    return realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : path;
}

std::string joined(const std::vector<std::string> &dirs)
{
    std::string text;
    for (const std::string &dir : dirs)
        text += (text.empty() ? "" : ":") + dir;
    return text;
}

// The modules KELP-STORAGE-MIB imports.
constexpr const char *kImports[] = {"SNMPv2-SMI", "SNMPv2-TC", "SNMPv2-CONF"};

// Whether a file of one of `dirs` is named after `module`, as MIB packages
// name them (snmp-mibs-downloader: no extension). net-snmp reads a module's
// name from the file itself, so a file named otherwise is not seen here.
bool moduleFileIn(const std::vector<std::string> &dirs, const std::string &module)
{
    for (const std::string &dir : dirs) {
        for (const char *extension : {"", ".txt", ".my", ".mib"}) {
            if (isRegularFile(dir + "/" + module + extension))
                return true;
        }
    }
    return false;
}

// "A", "A and B", "A, B and C".
std::string listed(const std::vector<std::string> &names)
{
    std::string text;
    for (size_t i = 0; i < names.size(); ++i)
        text += (i == 0 ? "" : i + 1 == names.size() ? " and " : ", ") + names[i];
    return text;
}

} // namespace

std::string moduleFile()
{
    return std::string(kModule) + ".txt";
}

std::vector<std::string> kelpMibDirs(const std::string &binDir)
{
    std::vector<std::string> dirs = {binDir + "/../share/snmp/mibs", binDir + "/../../mibs"};
    if (KELP_SOURCE_DIR[0] != '\0')
        dirs.push_back(std::string(KELP_SOURCE_DIR) + "/mibs");
    return dirs;
}

std::string netsnmpDefaultMibDirs()
{
    return KELP_NETSNMP_MIBDIRS;
}

std::vector<std::string> netsnmpMibDirs(const char *mibdirs, const char *home,
                                        const std::string &defaults)
{
    std::string path = defaults;
    if (mibdirs != nullptr && mibdirs[0] == '+')
        path = std::string(mibdirs + 1) + ":" + defaults;
    else if (mibdirs != nullptr && mibdirs[0] == '-')
        path = defaults + ":" + std::string(mibdirs + 1);
    else if (mibdirs != nullptr)
        path = mibdirs;

    std::vector<std::string> dirs;
    const std::string homeVariable = "$HOME";
    for (std::string dir : splitPath(path)) {
        if (const size_t at = dir.find(homeVariable); at != std::string::npos) {
            if (home == nullptr || home[0] == '\0')
                continue;
            dir.replace(at, homeVariable.size(), home);
        }
        dirs.push_back(dir);
    }
    return dirs;
}

std::optional<MibPlace> findMib(const std::vector<std::string> &kelpDirs,
                                const std::vector<std::string> &netsnmpDirs)
{
    for (const std::string &candidate : kelpDirs) {
        if (!isRegularFile(candidate + "/" + moduleFile()))
            continue;
        MibPlace place;
        place.dir = canonical(candidate);
        place.file = place.dir + "/" + moduleFile();
        for (const std::string &dir : netsnmpDirs) {
            if (isRegularFile(dir + "/" + moduleFile())) {
                place.foundIn = dir;
                break;
            }
        }
        // Debian's snmp.conf loads no MIB modules by default: -m is always
        // needed, -M only when the search path misses the file.
        place.options =
            (place.foundIn.empty() ? "-M +" + place.dir + " " : std::string()) + "-m +" + kModule;
        // The tools read the imports from their path, and from the MIB's own
        // dir when the options add it.
        std::vector<std::string> readFrom = netsnmpDirs;
        if (place.foundIn.empty())
            readFrom.push_back(place.dir);
        for (const char *module : kImports) {
            if (!moduleFileIn(readFrom, module))
                place.missingImports.emplace_back(module);
        }
        return place;
    }
    return std::nullopt;
}

std::string mibHint(const std::optional<MibPlace> &place, const std::vector<std::string> &kelpDirs,
                    const std::vector<std::string> &netsnmpDirs)
{
    if (!place)
        return std::string("no ") + moduleFile() + " found in " + joined(kelpDirs);
    std::string hint =
        place->foundIn.empty()
            ? std::string("the MIB ") + place->file + " is not on net-snmp's MIB path (" +
                  joined(netsnmpDirs) + "): give its tools " + place->options
            : std::string("the MIB ") + place->file + " is on net-snmp's MIB path (in " +
                  place->foundIn + "): give its tools " + place->options;
    if (!place->missingImports.empty()) {
        const bool one = place->missingImports.size() == 1;
        hint += std::string("; its import") + (one ? " " : "s ") + listed(place->missingImports) +
                (one ? " is" : " are") +
                " in no file of that path: install snmp-mibs-downloader, or add a directory "
                "that holds " +
                (one ? "it" : "them") + " with -M";
    }
    return hint;
}

} // namespace kelp::mib
