// What a walk or a Get of the storage tree may answer while the model
// changes under it. The served states a run can pass through (each model,
// with and without the object the run adds) are walked at rest first; a
// walk during the run must then give names in strictly increasing order,
// each one served by some state with that state's value, must visit every
// name that every state serves, and must end past the tree. A value that
// no state holds at that name is another row's or another object's value
// shown in the wrong place. Free of net-snmp: names are arcs, values are
// opaque keys (the type and the bytes of the value).
#ifndef KELP_TESTS_STRESS_WALK_CHECK_H
#define KELP_TESTS_STRESS_WALK_CHECK_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace kelp::stress {

using Name = std::vector<uint32_t>;

// One answer: a name and its value's key. The key's first byte is the
// value's ASN.1 type, the rest its encoding; two keys are equal exactly
// when the values are.
struct Binding {
    Name name;
    std::string value;
};

// A walk of one served state at rest: its bindings in walk order.
using StateWalk = std::vector<Binding>;

// How a walk ended.
enum class WalkEnd {
    kPastTree,    // endOfMibView, or a name after the tree
    kLockTimeOut, // genErr (the agent's log tells whether it was the lock)
    kOther,       // a time-out, another error status, a broken answer
};

// The states a run may serve, and what follows from them.
class Reference {
  public:
    // `root` is the served tree's root: every name of a state lies below it.
    explicit Reference(Name root) : root_(std::move(root)) {}

    // Adds a state walked at rest, with `hidden`: the bindings a Get answers
    // at rest that the walk does not show (a table whose first row is a
    // hole is passed over by the plug-in's walk, while its later rows
    // answer a Get and a GetNext from within the table). Hidden names are
    // served, but a walk that passes them over is no fault. A state whose
    // bindings do not increase strictly, or that names a binding twice, is
    // refused (false): it is no reference.
    bool addState(const StateWalk &walk, const StateWalk &hidden = {});

    // Adds a second walk of a state already added (after a reload of the
    // same model and a burst of events): names whose values differ between
    // the two change on their own (times, counters) and are checked for
    // their type only. False when the names themselves differ.
    bool addRepeat(const StateWalk &first, const StateWalk &second);

    // Names a table (root.G.T) whose rows keep their index for as long as
    // the plug-in stays loaded: a run's loads append rows to it that no
    // state walked at rest holds. A name root.G.T.1.C.R of such a table
    // whose row R is past every row the states serve there is a row the run
    // appended: it is served, with a value no state can vouch for.
    void addAppendingTable(uint32_t group, uint32_t table);

    // A table whose rows a run may fill with values of any state it passed
    // through: any name below root.G.T is taken as served, unchecked.
    void addUncheckedTable(uint32_t group, uint32_t table);

    const Name &root() const { return root_; }
    // Names served by every state added so far.
    size_t alwaysServed() const;
    // Names some state serves that its walk does not show.
    size_t hiddenNames() const;
    // Every name some state serves, in order.
    std::vector<Name> names() const;
    // Names whose values change on their own.
    size_t volatileNames() const { return volatile_.size(); }
    const std::set<Name> &volatileSet() const { return volatile_; }

    // The faults of one answer for `name`: empty when `value` is what some
    // state holds there (for a volatile name: a value of the same type).
    std::string checkValue(const Binding &binding) const;

    // The faults of a name a Get found no instance for (noSuchInstance or
    // noSuchObject): empty when some state does not serve it.
    std::string checkAbsent(const Name &name) const;

    // The faults of a walk that ended as `end`, at most `limit` of them:
    // names not strictly increasing (or not below the root), a name no
    // state serves, a value no state holds there, and for a walk that ended
    // past the tree a name every state serves that the walk skipped.
    std::vector<std::string> checkWalk(const std::vector<Binding> &walk, WalkEnd end,
                                       size_t limit = 5) const;

  private:
    Name root_;
    size_t states_ = 0;
    // Per name: the values states hold there, how many states serve it,
    // and how many of them show it in a walk.
    struct Served {
        std::set<std::string> values;
        size_t states = 0;
        size_t walked = 0;
    };
    std::map<Name, Served> served_;
    std::set<Name> volatile_;
    std::set<Name> appending_;         // root.G.T of tables that append rows
    std::set<Name> unchecked_;         // root.G.T of tables not checked
    std::map<Name, uint32_t> lastRow_; // root.G.T -> the last row a state serves
    bool appendedRow(const Name &name) const;
};

// "1.3.6..." for messages.
std::string nameText(const Name &name);

} // namespace kelp::stress

#endif // KELP_TESTS_STRESS_WALK_CHECK_H
