// The one log line of each trap the agent sends: what it is (its number
// and KELP-STORAGE-MIB's name for it, or the standard trap's name), the
// storage event and its message, the
// object it is about, and where it went. Read from the trap's own bindings
// (root.200.N.0), so that the line says what the receivers were told.
#ifndef KELP_AGENT_TRAPS_TRAPLOG_H
#define KELP_AGENT_TRAPS_TRAPLOG_H

#include <string>
#include <vector>

#include "traps/trap.h"

namespace kelp::agent {

// "trap 904 arrayDiskCriticalAlert (event 2048: Physical disk 0:0:2 has
// failed.) object 0\0\0\2 row 1.3.6.1.4.1.61234.20571.1.20.130.4.1.1.3 at
// "Controller 0", "Enclosure 0" sent to udp:127.0.0.1:162,
// inform:udp:[::1]:162": the trap's number and name (none for a number the
// MIB does not declare), the event number and message (bindings 1, 2), the object's nexus (6), the
// row that names it in its table (5) and its location texts (3, 4). A generic trap is named
// (coldStart, ...); a trap of another enterprise is given as enterprise,
// generic and specific numbers. Bindings the trap lacks or has as "UNKNOWN"
// (the short events carry only the number and the message) are left out;
// control characters in texts are shown as '?', so that a line stays one
// line. `destinations` empty: "sent nowhere".
std::string trapLogLine(const Trap &trap, const std::vector<std::string> &destinations);

} // namespace kelp::agent

#endif // KELP_AGENT_TRAPS_TRAPLOG_H
