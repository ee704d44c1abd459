// Where kelpagent finds its defaults (next to its binary, in the build tree
// or an installed share dir) and how it makes its state dir.
#ifndef KELP_AGENT_PATHS_H
#define KELP_AGENT_PATHS_H

#include <string>
#include <string_view>

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

// Creates `dir` with mode 0700 and its missing parents with mode 0755, so
// that a user the agent becomes later can reach it (an existing dir is left
// as it is). False with a message naming the path on failure.
bool makeStateDir(const std::string &dir, std::string *error);

// Writes, syncs and removes a small file in `dir`, so that a state dir on a
// read-only or full file system stops the agent at start rather than losing
// its persistent file at the first save. False with "the state dir DIR
// cannot be written: <errno text>" on failure ("... cannot be written by
// user NAME: ..." with `user`, for a check made after becoming that user).
bool checkStateDirWritable(const std::string &dir, std::string *error,
                           const std::string &user = "");

// Whether `name`, an entry of the state dir, is one the agent makes there:
// kelp.ini and its lock, control.sock, debug.log, snmp (net-snmp's
// persistent files), kelpagent.lock, and the write check's file.
bool isKelpStateEntry(std::string_view name);

// The first entry of `dir` that is not the agent's (isKelpStateEntry), in
// no particular order; "" when there is none or `dir` cannot be read.
std::string foreignStateEntry(const std::string &dir);

// A warning when `dir` is a shared directory, or "": one others may enter
// or read that holds what is not the agent's (/tmp, /var/lib, or a work
// directory that also holds the model). The agent does not close such a
// directory to others (tightenStateDir); its engine state (the snmp dir,
// 0700) and control socket (0600) stay private in it.
std::string sharedStateDirWarning(const std::string &dir);

// Takes the state dir for this process: an exclusive lock on its
// kelpagent.lock, which holds the process's pid and stays locked until the
// process ends. False with "the state dir DIR is in use by another
// kelpagent (pid N)" when another process holds it, or with the reason when
// the file cannot be made.
bool lockStateDir(const std::string &dir, std::string *error);

// Makes `dir` (the state dir, which holds the control socket and net-snmp's
// persistent file) mode 0700 when others may enter or read it and it is this
// process's user's. Answers the mode it had when it was changed, 0 when it
// was not (also when it is another user's, left to its owner).
unsigned tightenStateDir(const std::string &dir);

} // namespace kelp::agent

#endif // KELP_AGENT_PATHS_H
