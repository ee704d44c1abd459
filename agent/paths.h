// Where kelpagent finds its defaults (next to its binary, in the build tree
// or an installed share dir) and how it makes its state dir.
#ifndef KELP_AGENT_PATHS_H
#define KELP_AGENT_PATHS_H

#include <string>

#include "options.h"

namespace kelp::agent {

// The directory of the running binary (from /proc/self/exe); "." when unknown.
std::string binaryDir();

// The default places for a binary in `binDir`, with the state dir taken
// from xdgStateHome, else home (either may be null or empty):
//   state dir  $XDG_STATE_HOME/kelp, else $HOME/.local/state/kelp
//   module     <bin>/../lib/kelp/libkelpimp64.so when it exists (installed),
//              else <bin>/../lib/libkelpimp64.so (build tree)
//   model      <bin>/../share/kelp/models/sample.xml   (installed)
//              <bin>/../../data/models/sample.xml      (build tree in the checkout)
//              <source dir>/data/models/sample.xml     (the checkout it was built from)
//   config     <sysconfdir>/kelp/kelpagent.conf (KELP_SYSCONFDIR, else /etc);
//              none for a binary in its build tree (<bin>/../CMakeCache.txt)
DefaultPlaces defaultPlaces(const std::string &binDir, const char *xdgStateHome, const char *home);

// One line on where kelp's MIB is for a program in `binDir` and the -M/-m
// options net-snmp's tools need to read it (tools/mibpath.h), with net-snmp's
// MIB path from $MIBDIRS and $HOME.
std::string mibHint(const std::string &binDir);

// Creates `dir` and its missing parents with mode 0700 (an existing dir is
// left as it is). False with a message naming the path on failure.
bool makeStateDir(const std::string &dir, std::string *error);

// Writes, syncs and removes a small file in `dir`, so that a state dir on a
// read-only or full file system stops the agent at start rather than losing
// its persistent file at the first save. False with "the state dir DIR
// cannot be written: <errno text>" on failure.
bool checkStateDirWritable(const std::string &dir, std::string *error);

// Makes `dir` (the state dir, which holds the control socket and net-snmp's
// persistent file) mode 0700 when others may enter or read it and it is this
// process's user's. Answers the mode it had when it was changed, 0 when it
// was not (also when it is another user's, left to its owner).
unsigned tightenStateDir(const std::string &dir);

} // namespace kelp::agent

#endif // KELP_AGENT_PATHS_H
