// kelpagent's configuration file: one "key value" a line, the keys being
// the long options without their dashes. The keys are looked up in the
// option table itself, so an option added to the command line is a key of
// the file at once, validated by the same code.
#ifndef KELP_AGENT_CONFIG_H
#define KELP_AGENT_CONFIG_H

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "options.h"

namespace kelp::agent {

// The longest line accepted, without its line end, and the largest file.
inline constexpr size_t kMaxConfigLine = 4096;
inline constexpr size_t kMaxConfigFile = 1024 * 1024;

// One setting of a configuration file, ready for applyOption.
struct ConfigSetting {
    std::string key;   // the option's name without dashes
    std::string value; // empty for a flag, and for --agentx without a socket
    int line = 0;      // 1-based, for messages
};

// Parses the text of a configuration file. A line is blank, a comment (its
// first non-blank character is '#'), or a key, blanks, and a value running
// to the end of the line (inner blanks kept, trailing ones dropped; a '#'
// inside a value is part of it). A flag takes nothing, "yes" or "no" ("no"
// is left out of *settings). A repeatable option may repeat; any other key
// may appear once. --config, --help and --version are not keys.
// True with the settings in file order; false with
// "<file>:<line>: <what>" for an unknown key, a value the command line
// would refuse, a duplicate key, a line over kMaxConfigLine bytes, a NUL
// byte or another control character than a tab.
bool parseConfig(std::string_view text, const std::string &file,
                 std::vector<ConfigSetting> *settings, std::string *error);

// Reads and parses the file at `path`. A file that does not exist is no
// error when `mustExist` is false: then *settings is left empty and *found
// (when not null) false. False with "<path>: <what>" for a file that cannot
// be read or is over kMaxConfigFile bytes, and parseConfig's messages.
bool readConfig(const std::string &path, bool mustExist, std::vector<ConfigSetting> *settings,
                std::string *error, bool *found = nullptr);

// Completes a command line with the configuration file. *options holds what
// parseOptions made of argc/argv; the file is options->config when that is
// set (it must exist) and otherwise `defaultFile` (skipped when empty or
// missing). On success *options is the defaults, then the file's settings of
// every option the command line does not name, then the command line: a
// repeatable option on the command line replaces the file's list, and
// --model on the command line sets aside the file's live and live-root
// (--live and --live-root its model).
// options->config then names the file read (empty when none was). False
// with readConfig's message; *options is unchanged then.
bool applyConfigFile(const std::string &defaultFile, int argc, const char *const *argv,
                     Options *options, std::string *error);

} // namespace kelp::agent

#endif // KELP_AGENT_CONFIG_H
