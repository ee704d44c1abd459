// The Get and GetNext mapping. What a dispatch result means is the table
// kResults; what a reply record holds is read by readValue (value.cc); which
// names are asked for is the served tree's (tree.cc).
#include "snmp/resolve.h"

#include <algorithm>
#include <memory>
#include <optional>

#include "records.h"

namespace kelp::agent {
namespace {

// How a dispatch result reads for each command. kValue: the reply record
// holds the answer (or, with type 0, no answer).
struct ResultRow {
    uint32_t status;
    Outcome get;
    Outcome getNext;
};

constexpr ResultRow kResults[] = {
    {SM_SNMP_NOERROR, Outcome::kValue, Outcome::kValue},
    {SM_SNMP_NOSUCHNAME, Outcome::kNoSuchInstance, Outcome::kEndOfSubtree},
    {SM_SNMP_GENERR, Outcome::kGenErr, Outcome::kGenErr},
    {kStatusLockTimeOut, Outcome::kLockTimeOut, Outcome::kLockTimeOut},
};

// Statuses outside the table (tooBig, badValue, readOnly, anything else)
// have no meaning for a read: genErr.
const ResultRow &resultRow(uint32_t status)
{
    static constexpr ResultRow kOther{0, Outcome::kGenErr, Outcome::kGenErr};
    for (const ResultRow &row : kResults) {
        if (row.status == status) {
            return row;
        }
    }
    return kOther;
}

uint32_t call(const Dispatch &dispatch, uint32_t command, RequestRecord &request,
              ReplyRecord &reply)
{
    uint32_t used = 0;
    return dispatch(command, request.record(), sizeof(SMSnmpValue), reply.record(),
                    sizeof(SMSnmpValue), &used);
}

// A reply record for one dispatch: the thread's spare one when it has it,
// since a new record clears its 1.5 KB of buffers and a walk makes one for
// every varbind. Records are on the heap, where a plug-in that writes past
// one is caught as on the stack. A dispatch inside a dispatch finds no spare
// and gets a new record; the thread keeps one of them as its spare.
class ReplyLease {
  public:
    ReplyLease() : reply_(std::move(t_spare))
    {
        if (!reply_)
            reply_ = std::make_unique<ReplyRecord>();
    }
    ~ReplyLease()
    {
        reply_->reset(); // releases a value buffer of the plug-in's now
        if (!t_spare)
            t_spare = std::move(reply_);
    }
    ReplyLease(const ReplyLease &) = delete;
    ReplyLease &operator=(const ReplyLease &) = delete;

    ReplyRecord &operator*() const { return *reply_; }
    ReplyRecord *operator->() const { return reply_.get(); }

  private:
    static thread_local std::unique_ptr<ReplyRecord> t_spare;

    std::unique_ptr<ReplyRecord> reply_;
};

thread_local std::unique_ptr<ReplyRecord> ReplyLease::t_spare;

Answer outcomeOnly(Outcome outcome)
{
    Answer answer;
    answer.outcome = outcome;
    return answer;
}

bool failed(Outcome outcome)
{
    return outcome == Outcome::kGenErr || outcome == Outcome::kLockTimeOut;
}

// Whether the plug-in's answer to a GetNext from `cursor` is a name that
// moves forward inside the tree; anything else means it has nothing after
// the cursor.
bool movesForward(std::span<const uint32_t> next, std::span<const uint32_t> cursor)
{
    return insideRoot(next) && compareNames(next, cursor) > 0;
}

} // namespace

Answer answerGet(const Dispatch &dispatch, std::span<const uint64_t> name)
{
    switch (classifyName(name)) {
    case NameKind::kInstance:
        break;
    case NameKind::kUnderObject:
        return outcomeOnly(Outcome::kNoSuchInstance);
    case NameKind::kNoObject:
        return outcomeOnly(Outcome::kNoSuchObject);
    }
    std::optional<RequestRecord> request = RequestRecord::fromName(name);
    if (!request) {
        return outcomeOnly(Outcome::kNoSuchObject);
    }
    ReplyLease reply;
    const Outcome outcome = resultRow(call(dispatch, SM_CMD_GET, *request, *reply)).get;
    if (outcome != Outcome::kValue) {
        return outcomeOnly(outcome);
    }
    Answer answer;
    switch (reply->readValue(&answer.value)) {
    case ValueRead::kValue:
        answer.outcome = Outcome::kValue;
        answer.name.assign(name); // an instance's name, which fits
        return answer;
    case ValueRead::kEmpty:
        return outcomeOnly(Outcome::kNoSuchInstance);
    case ValueRead::kBad:
        break;
    }
    return outcomeOnly(Outcome::kGenErr);
}

Answer answerGetNext(const Dispatch &dispatch, std::span<const uint64_t> name, bool inclusive)
{
    if (inclusive && classifyName(name) == NameKind::kInstance) {
        if (name.size() < kCellLength) {
            // A scalar instance: the walk holds it when it has a value.
            Answer exact = answerGet(dispatch, name);
            if (exact.outcome == Outcome::kValue || exact.outcome == Outcome::kLockTimeOut) {
                return exact;
            }
        } else if (name.back() > 0) {
            // A cell is the walk's first name after the row before it, when
            // the walk holds it.
            std::vector<uint64_t> before(name.begin(), name.end());
            before.back()--;
            return answerGetNext(dispatch, before, false);
        }
    }
    std::optional<PluginName> cursor = cursorAfter(name);
    // Every step asks from a name strictly after the previous one, so the
    // walk ends even when the plug-in keeps answering names without values.
    for (int step = 0; cursor && step < kMaxGetNextSteps; step++) {
        RequestRecord request(*cursor);
        ReplyLease reply;
        const Outcome outcome = resultRow(call(dispatch, SM_CMD_GETNEXT, request, *reply)).getNext;
        if (failed(outcome)) {
            return outcomeOnly(outcome);
        }
        const std::optional<std::span<const uint32_t>> next = reply->name();
        if (outcome == Outcome::kEndOfSubtree || (next && !movesForward(*next, request.name()))) {
            // Nothing after the cursor in the plug-in's walk; the walk goes
            // on with the tables after it.
            cursor = nextTableRoot(request.name());
            continue;
        }
        if (!next) {
            return outcomeOnly(Outcome::kGenErr);
        }
        Answer answer;
        const ValueRead read = reply->readValue(&answer.value);
        if (read == ValueRead::kBad) {
            return outcomeOnly(Outcome::kGenErr);
        }
        if (read == ValueRead::kValue && compareNames(*next, name) > 0) {
            // A name too long for an instance's is none.
            if (answer.name.assign(*next) &&
                classifyName(answer.name.span()) == NameKind::kInstance) {
                answer.outcome = Outcome::kValue;
                return answer;
            }
        }
        cursor.emplace().assign(*next); // the reply's name fits a PluginName
    }
    return outcomeOnly(cursor ? Outcome::kGenErr : Outcome::kEndOfSubtree);
}

std::vector<Answer> answerRepetitions(const Dispatch &dispatch, std::span<const uint64_t> name,
                                      bool inclusive, size_t count,
                                      std::span<const uint64_t> rangeEnd)
{
    std::vector<Answer> answers;
    answers.reserve(count);
    std::span<const uint64_t> from = name;
    while (answers.size() < count) {
        // `from` is the name of the answer before, which stays in place
        // until this one is added: the room is reserved.
        Answer &answer = answers.emplace_back(answerGetNext(dispatch, from, inclusive));
        if (answer.outcome != Outcome::kValue ||
            (!rangeEnd.empty() && compareNames(answer.name.span(), rangeEnd) >= 0)) {
            break;
        }
        from = answer.name.span();
        inclusive = false;
    }
    return answers;
}

Outcome answerSet(const Dispatch &dispatch, std::span<const uint64_t> name)
{
    std::optional<RequestRecord> request = RequestRecord::fromName(name);
    if (request) {
        uint32_t used = 0;
        // The plug-in answers readOnly; even another answer changes nothing.
        dispatch(SM_CMD_SET1, request->record(), sizeof(SMSnmpValue), nullptr, 0, &used);
    }
    return Outcome::kNotWritable;
}

} // namespace kelp::agent
