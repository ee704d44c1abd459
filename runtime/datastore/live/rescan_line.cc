// Rescan lines of the live source.
#include "datastore/live/rescan_line.h"

#include <cstdio>

namespace kelp::live {

TypeCounts countTypes(const ds::Model &model)
{
    TypeCounts counts{};
    for (size_t i = 0; i < ds::kObjectTypeCount; ++i)
        counts[i] = model.ofType(ds::kObjectTypes[i].name).size();
    return counts;
}

bool rescanChanged(const RescanReport &report)
{
    return report.before != report.after || !report.events.empty() || !report.queueError.empty();
}

std::string rescanLine(const RescanReport &report)
{
    char ms[32];
    std::snprintf(ms, sizeof ms, "%.1f ms", report.ms);
    std::string line = "live rescan (" + report.cause + "): " + ms;
    if (!rescanChanged(report))
        return line + "; nothing changed";
    for (size_t i = 0; i < ds::kObjectTypeCount; ++i) {
        if (report.before[i] != report.after[i])
            line += "; " + std::string(ds::kObjectTypes[i].name) + " " +
                    std::to_string(report.before[i]) + " -> " + std::to_string(report.after[i]);
    }
    if (!report.events.empty()) {
        line += report.events.size() == 1 ? "; event " : "; events ";
        for (size_t i = 0; i < report.events.size(); ++i)
            line += (i == 0 ? "" : ", ") + std::to_string(report.events[i]);
        line += report.queueError.empty() ? " queued" : " not queued: " + report.queueError;
    }
    return line;
}

bool eventIdOf(const std::string &xml, uint32_t *id)
{
    const size_t open = xml.find("<EventID>");
    if (open == std::string::npos)
        return false;
    unsigned long value = 0;
    size_t at = open + 9;
    size_t digits = 0;
    while (at < xml.size() && xml[at] >= '0' && xml[at] <= '9' && digits < 10) {
        value = value * 10 + static_cast<unsigned long>(xml[at++] - '0');
        digits++;
    }
    if (digits == 0 || value > 0xFFFFFFFFul)
        return false;
    *id = static_cast<uint32_t>(value);
    return true;
}

} // namespace kelp::live
