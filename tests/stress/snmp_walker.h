// Walks and Gets of the storage tree over net-snmp's client library, one
// session per thread, turned into the bindings walk_check.h judges.
#ifndef KELP_TESTS_STRESS_SNMP_WALKER_H
#define KELP_TESTS_STRESS_SNMP_WALKER_H

#include <string>
#include <vector>

#include "walk_check.h"

namespace kelp::stress {

// What one Get request answered.
enum class GetEnd {
    kAnswered,    // bindings (values or no-such) for every name
    kLockTimeOut, // genErr
    kOther,       // a time-out, another error status, a broken answer
};

// One SNMPv2c session with agent `peer` (net-snmp's transport syntax),
// `timeoutMs` per request and no retry: a request the agent drops is a
// failure, not a delay. Open sessions before starting threads; each
// session is then used by one thread only.
class Walker {
  public:
    Walker(const std::string &peer, const std::string &community, int timeoutMs);
    ~Walker();
    Walker(const Walker &) = delete;
    Walker &operator=(const Walker &) = delete;

    bool open() const { return session_ != nullptr; }

    // Walks below `root` with GETBULK (`repetitions` per request) until the
    // agent answers endOfMibView or a name past the tree, an error, or a
    // name that does not increase (kept in *bindings for the checker, which
    // reports it). The bindings below the root go to *bindings; *why tells
    // what ended a walk as kOther.
    WalkEnd walk(const Name &root, int repetitions, std::vector<Binding> *bindings,
                 std::string *why);

    // One Get of `names`. *found gets the bindings with values, *absent
    // the names answered noSuchObject or noSuchInstance.
    GetEnd get(const std::vector<Name> &names, std::vector<Binding> *found,
               std::vector<Name> *absent, std::string *why);

  private:
    void *session_ = nullptr;
    std::string peer_, community_;
};

} // namespace kelp::stress

#endif // KELP_TESTS_STRESS_SNMP_WALKER_H
