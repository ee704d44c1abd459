// The Get and GetNext mapping. What a dispatch result means is the table
// kResults; what a reply record holds is read by readValue (value.cc).
#include "answer.h"

#include <algorithm>
#include <limits>
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

Answer outcomeOnly(Outcome outcome)
{
    Answer answer;
    answer.outcome = outcome;
    return answer;
}

} // namespace

bool insideRoot(std::span<const uint32_t> name)
{
    return name.size() >= std::size(kMibRoot) &&
           std::equal(std::begin(kMibRoot), std::end(kMibRoot), name.begin());
}

std::vector<uint32_t> nextCursor(std::span<const uint64_t> name)
{
    std::vector<uint32_t> arcs;
    arcs.reserve(name.size());
    for (const uint64_t arc : name) {
        if (arc > std::numeric_limits<uint32_t>::max()) {
            arcs.push_back(std::numeric_limits<uint32_t>::max());
            break;
        }
        arcs.push_back(static_cast<uint32_t>(arc));
    }
    return arcs;
}

Answer answerGet(const Dispatch &dispatch, std::span<const uint64_t> name)
{
    std::optional<RequestRecord> request = RequestRecord::fromName(name);
    if (!request) {
        return outcomeOnly(Outcome::kNoSuchObject);
    }
    ReplyRecord reply;
    const Outcome outcome = resultRow(call(dispatch, SM_CMD_GET, *request, reply)).get;
    if (outcome != Outcome::kValue) {
        return outcomeOnly(outcome);
    }
    Answer answer;
    switch (reply.readValue(&answer.value)) {
    case ValueRead::kValue:
        answer.outcome = Outcome::kValue;
        answer.name.assign(name.begin(), name.end());
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
    if (inclusive) {
        Answer exact = answerGet(dispatch, name);
        if (exact.outcome == Outcome::kValue) {
            return exact;
        }
    }
    // Every step asks from a name strictly after the previous one, so the
    // walk ends even when the plug-in keeps answering names without values.
    RequestRecord request(nextCursor(name));
    for (int step = 0; step < kMaxGetNextSteps; step++) {
        ReplyRecord reply;
        const Outcome outcome = resultRow(call(dispatch, SM_CMD_GETNEXT, request, reply)).getNext;
        if (outcome != Outcome::kValue) {
            return outcomeOnly(outcome);
        }
        const std::optional<std::span<const uint32_t>> next = reply.name();
        if (!next) {
            return outcomeOnly(Outcome::kGenErr);
        }
        // A name outside the tree, or one that does not move forward, is
        // the plug-in's way of saying that nothing follows here.
        if (!insideRoot(*next) || compareNames(*next, request.name()) <= 0) {
            return outcomeOnly(Outcome::kEndOfSubtree);
        }
        Answer answer;
        const ValueRead read = reply.readValue(&answer.value);
        if (read == ValueRead::kBad) {
            return outcomeOnly(Outcome::kGenErr);
        }
        if (read == ValueRead::kValue && compareNames(*next, name) > 0) {
            answer.outcome = Outcome::kValue;
            answer.name.assign(next->begin(), next->end());
            return answer;
        }
        request = RequestRecord(std::vector<uint32_t>(next->begin(), next->end()));
    }
    return outcomeOnly(Outcome::kGenErr);
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
