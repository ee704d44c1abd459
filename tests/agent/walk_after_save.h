// The check that `kelpctl save` keeps everything an agent serves: an agent
// started on any data source, changed or not, is saved, and a second agent
// started on the saved model must walk the MIB exactly as the first does.
#ifndef KELP_TESTS_AGENT_WALK_AFTER_SAVE_H
#define KELP_TESTS_AGENT_WALK_AFTER_SAVE_H

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "testkit.h"

namespace kelp::test {

// Starts a kelpagent with agentArgs as its data source (AgentUnderTest::
// startWith: {"--model", FILE}, or any other source and its options), runs
// `change` on it when given (kelpctl commands; it waits for their effect
// itself), walks kRoot until two walks in a row agree, saves the served
// model with `kelpctl save`, starts a second kelpagent with --model on the
// saved file, and expects its walk of kRoot to be the first one, every
// varbind's text equal (the value of kClockReadings aside). Fails the test (gtest) on any
// difference or when a step cannot be done.
void expectIdenticalWalkAfterSave(const std::vector<std::string> &agentArgs,
                                  const std::function<void(AgentUnderTest &)> &change = {});

// snmpwalk of kRoot, one varbind a line, or nullopt when the walk does not
// end cleanly (a genErr while the plug-in rebuilds its tables, a time-out).
std::optional<std::string> tryWalk(AgentUnderTest &agent);

// tryWalk that fails the test (and answers "") when the walk does not end
// cleanly.
std::string walkOf(AgentUnderTest &agent);

// The varbinds whose value is a reading of the agent's own clock rather
// than served data: the time of the last table refresh (global group,
// 110.3). Two agents agree on their presence, not on their value.
inline const std::vector<std::string> kClockReadings = {std::string(".") + kRoot + ".110.3.0"};

} // namespace kelp::test

#endif // KELP_TESTS_AGENT_WALK_AFTER_SAVE_H
