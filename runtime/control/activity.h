// The operator's log line for a control command that changed something: the
// command, the object, attribute, file or event it touched, and whether the
// rescan events followed. Pure: made from the request and its reply alone.
#ifndef KELP_RUNTIME_CONTROL_ACTIVITY_H
#define KELP_RUNTIME_CONTROL_ACTIVITY_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "control/commands.h"

namespace kelp::ctl {

// The line for `request` once it ran with `reply`: empty for a command that
// changes nothing (status, save, help) and for one that failed, as nothing
// changed then. Client text in it (values, file names, XML) is made
// printable and cut, so one command is one line of bounded length.
std::string activityLine(const Request &request, const Reply &reply);

// The id attributes of the <object> elements of an add fragment, in order;
// ids that are not numbers are left out.
std::vector<uint32_t> objectIdsIn(std::string_view fragment);

// The longest piece of client text an activity line quotes.
inline constexpr size_t kMaxQuoted = 200;

} // namespace kelp::ctl

#endif // KELP_RUNTIME_CONTROL_ACTIVITY_H
