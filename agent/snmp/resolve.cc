// The Get and GetNext mapping. What a dispatch result means is the table
// kResults; what a reply record holds is read by readValue (value.cc); which
// names are asked for is the served tree's (tree.cc).
#include "snmp/resolve.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <initializer_list>
#include <memory>
#include <mutex>
#include <optional>

#include "kelp/runtime.h"
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

// A table whose cell of column 1, row 1 does not answer is taken by the
// plug-in's walk for an empty one: it passes over the rest of it. Rows keep
// their index while the plug-in stays loaded, and a device that goes leaves
// a hole, so a first row that went hides every row after it from a walk,
// though each of them answers Get. The agent reads such a table itself,
// cell by cell with Get, in walk order.

// The highest row of each table the agent has answered a cell of: rows
// keep their index while the plug-in stays loaded, so a table has at least
// as many. A rebuild appends the rows of new objects after all the rows
// before it, holes included, and a rebuild the agent did not see (no walk
// came between two reconfigurations) leaves as many rows as it appended
// before them: past the highest row seen and the last row found, a table
// whose column 1 does not answer in a run of twice the rows seen (kHoleRun
// at least) has no more rows. Rows the agent never saw count too: every row
// was built from a model the data store served, so the most objects and
// links a served model held stands for rows seen as well (objects that
// went before any manager looked leave their holes all the same).
constexpr uint32_t kHoleRun = 64;
// The most rows the size of the served models stands for: past it, a model
// of a million objects would make every GetNext in such a table read
// millions of cells.
constexpr unsigned long kModelRowsAtMost = 1ul << 16;
std::atomic<uint32_t> rowsSeen[std::size(kServedTables)];
static_assert(std::size(kServedTables) == 18 + 6, "tableIndexOf numbers 130.1-18, 140.1-6");

// The index in kServedTables of the table an instance name lies in, or
// std::size(kServedTables).
size_t tableIndexOf(std::span<const uint64_t> name)
{
    if (name.size() != kCellLength)
        return std::size(kServedTables);
    const uint64_t group = name[kMibRootLength];
    const uint64_t table = name[kMibRootLength + 1];
    // 130.1 to 130.18, then 140.1 to 140.6, in that order.
    if (group == 130 && table >= 1 && table <= 18)
        return static_cast<size_t>(table - 1);
    if (group == 140 && table >= 1 && table <= 6)
        return static_cast<size_t>(18 + table - 1);
    return std::size(kServedTables);
}

void noteRow(std::span<const uint64_t> name)
{
    const size_t index = tableIndexOf(name);
    if (index == std::size(kServedTables))
        return;
    const auto row = static_cast<uint32_t>(name.back());
    if (row > rowsSeen[index].load(std::memory_order_relaxed))
        rowsSeen[index].store(row, std::memory_order_relaxed);
}

// The instance name root.G.T.1.C.R.
FixedName<uint64_t, kCellLength> cellName(const ServedTable &table, uint32_t column, uint32_t row)
{
    FixedName<uint64_t, kCellLength> name;
    name.assign(std::span<const uint32_t>(kMibRoot));
    name.append(std::initializer_list<uint64_t>{table.group, table.table, 1, column, row});
    return name;
}

Answer getCell(const Dispatch &dispatch, const ServedTable &table, uint32_t column, uint32_t row)
{
    const FixedName<uint64_t, kCellLength> name = cellName(table, column, row);
    return answerGet(dispatch, name.span());
}

// Where `name` lies against `table`: before its names, inside its subtree
// (the table's arcs after the root in *inside: entry, column, row, ...),
// or after them.
enum class Place { kBefore, kInside, kAfter };
Place placeOf(std::span<const uint32_t> name, const ServedTable &table,
              std::span<const uint32_t> *inside)
{
    const uint32_t prefix[] = {table.group, table.table};
    for (size_t i = 0; i < 2; i++) {
        if (name.size() <= kMibRootLength + i) {
            return Place::kBefore;
        }
        const uint32_t arc = name[kMibRootLength + i];
        if (arc != prefix[i]) {
            return arc < prefix[i] ? Place::kBefore : Place::kAfter;
        }
    }
    *inside = name.subspan(kMibRootLength + 2);
    return Place::kInside;
}

// The last row a scan of column 1 found in each table, kept for a while: a
// walk through a table whose row 1 went meets the plug-in passing over it at
// every column's end (and at every cell without a value), and the scan,
// which reads up to three times the largest model served, would be made
// again each time. Rows change only when the plug-in rebuilds its tables
// after the served model changed, so the row is kept until the model
// changes, a Get or walk answers a row past it and past the rows seen when
// it was found, or kScanKeptFor passes (a rebuild that comes later than the
// change).
constexpr std::chrono::milliseconds kScanKeptFor{1000};
struct KeptScan {
    std::mutex mutex;
    uint32_t lastRow = 0;
    uint32_t known = 0; // lastRow, or the rows seen before the scan when more
    unsigned long modelChanges = 0;
    std::chrono::steady_clock::time_point until; // the epoch: nothing kept
};
KeptScan keptScans[std::size(kServedTables)];

std::optional<uint32_t> keptLastRow(size_t index)
{
    KeptScan &kept = keptScans[index];
    std::lock_guard lock(kept.mutex);
    if (std::chrono::steady_clock::now() >= kept.until ||
        kept.modelChanges != kelpRuntimeModelChanges() ||
        rowsSeen[index].load(std::memory_order_relaxed) > kept.known) {
        return std::nullopt;
    }
    return kept.lastRow;
}

void keepLastRow(size_t index, uint32_t lastRow, uint32_t seenBefore, unsigned long modelChanges)
{
    KeptScan &kept = keptScans[index];
    std::lock_guard lock(kept.mutex);
    kept.lastRow = lastRow;
    kept.known = std::max(lastRow, seenBefore);
    kept.modelChanges = modelChanges;
    kept.until = std::chrono::steady_clock::now() + kScanKeptFor;
}

// How far column 1 of `table` is read for its rows: rows run at least to
// the rows seen; past them and past `lastFound`, a run of holes as long as
// twice the rows seen ends the table (the comment on kHoleRun).
bool withinRows(const ServedTable &table, uint32_t r, uint32_t lastFound)
{
    const uint32_t seen = std::max<uint32_t>(
        rowsSeen[static_cast<size_t>(&table - kServedTables)].load(std::memory_order_relaxed),
        static_cast<uint32_t>(std::min(kelpRuntimePeakModelSize(), kModelRowsAtMost)));
    const uint64_t holeRun = std::max<uint64_t>(kHoleRun, 2 * uint64_t{seen});
    return r != 0 && (r <= seen || r - std::max(lastFound, seen) <= holeRun);
}

// The first cell of `table` at or after (column, row) that answers and
// sorts after `name`, by Get; an Answer with kEndOfSubtree when none does,
// or the failure of a Get. Column 1 says which rows there are.
Answer scanTable(const Dispatch &dispatch, const ServedTable &table, uint32_t column, uint32_t row,
                 std::span<const uint64_t> name)
{
    const auto index = static_cast<size_t>(&table - kServedTables);
    std::optional<uint32_t> lastRow = keptLastRow(index);
    // Counted before any row is read: a change meanwhile makes the last row
    // found stale at once.
    const unsigned long changes = kelpRuntimeModelChanges();
    const uint32_t seenBefore = rowsSeen[index].load(std::memory_order_relaxed);
    if (column <= 1) {
        // Column 1 from the cursor's row on, up to the last row kept or as
        // far as rows may run past the cursor's.
        const uint32_t from = std::max<uint32_t>(row, 1);
        for (uint32_t r = from; lastRow ? r <= *lastRow : withinRows(table, r, from - 1); r++) {
            Answer cell = getCell(dispatch, table, 1, r);
            if (failed(cell.outcome) ||
                (cell.outcome == Outcome::kValue && compareNames(cell.name.span(), name) > 0)) {
                return cell;
            }
        }
        // When the cursor's row answers, it is the last row: a scan from
        // row 1 would have read on from it just as far.
        if (!lastRow && from > 1) {
            Answer cursorRow = getCell(dispatch, table, 1, from - 1);
            if (failed(cursorRow.outcome))
                return cursorRow;
            if (cursorRow.outcome == Outcome::kValue) {
                lastRow = from - 1;
                keepLastRow(index, *lastRow, seenBefore, changes);
            }
        }
    }
    if (!lastRow) {
        // Column 1 from row 1 on, for the last row that answers.
        lastRow = 0;
        for (uint32_t r = 1; withinRows(table, r, *lastRow); r++) {
            Answer cell = getCell(dispatch, table, 1, r);
            if (failed(cell.outcome))
                return cell;
            if (cell.outcome == Outcome::kValue)
                lastRow = r;
        }
        keepLastRow(index, *lastRow, seenBefore, changes);
    }
    if (column <= 1) {
        column = 2;
        row = 1;
    }
    for (; column <= table.columns; column++, row = 1) {
        for (uint32_t r = row; r <= *lastRow; r++) {
            Answer cell = getCell(dispatch, table, column, r);
            if (failed(cell.outcome)) {
                return cell;
            }
            if (cell.outcome == Outcome::kValue && compareNames(cell.name.span(), name) > 0) {
                return cell;
            }
        }
    }
    return outcomeOnly(Outcome::kEndOfSubtree);
}

// Whether two names inside the root lie in one table's subtree.
bool sameTable(std::span<const uint32_t> a, std::span<const uint32_t> b)
{
    constexpr size_t kTableArcs = kMibRootLength + 2;
    return a.size() >= kTableArcs && b.size() >= kTableArcs &&
           (a[kMibRootLength] == 130 || a[kMibRootLength] == 140) &&
           a[kMibRootLength] == b[kMibRootLength] && a[kMibRootLength + 1] == b[kMibRootLength + 1];
}

// The first column after `column` that a walk of `table` visits, or 0.
uint32_t columnAfter(const ServedTable &table, uint32_t column)
{
    for (uint32_t next = column + 1; next <= table.columns; next++) {
        if (table.hasColumn(next))
            return next;
    }
    return 0;
}

// What passedOver found: the instance after the name, or a Get's failure,
// in `answer`; or that the plug-in is to be asked again from the same
// cursor.
struct PassedOver {
    std::optional<Answer> answer;
    bool askAgain = false;
};

// The first instance after `name` in a table the plug-in's walk from
// `cursor` passed over on its way to `upTo` (nullopt: to the end of its
// walk) because the table's first row does not answer: no answer when there
// is none.
//
// The tables can change between the plug-in's answer and the agent's Gets:
// a model swapped in, or a rebuild, takes a first row away or brings it
// back. A table whose first row answers now, though the walk passed over
// it, had none when the plug-in answered. Seen from before its first cell,
// the table's first cell is the answer. Seen from within it, the walk left
// it past its last cell, or over the missing row: then the cell right after
// the cursor, or row 1 of the next column, answers now. The first is the
// answer; for the second the plug-in is asked again (askAgain), and when
// `askedAgain` says it was, its answer stands. Asking again costs as much
// as the walk's way out of the table, which can be long, so it is not done
// where the walk left past the last cell.
PassedOver passedOver(const Dispatch &dispatch, std::span<const uint32_t> cursor,
                      std::optional<std::span<const uint32_t>> upTo, std::span<const uint64_t> name,
                      bool askedAgain)
{
    for (const ServedTable &table : kServedTables) {
        std::span<const uint32_t> rest;
        if (upTo && placeOf(*upTo, table, &rest) != Place::kAfter) {
            break; // the walk ended before this table or went into it
        }
        uint32_t column = 1;
        uint32_t row = 1;
        bool fromACell = false; // the cursor is at or past the first cell
        switch (placeOf(cursor, table, &rest)) {
        case Place::kAfter:
            continue;
        case Place::kBefore:
            break;
        case Place::kInside:
            if (!rest.empty() && rest[0] > 1) {
                continue; // past the entry
            }
            if (rest.size() >= 2 && rest[0] == 1) {
                column = std::max<uint32_t>(rest[1], 1);
                row = rest.size() >= 3 && rest[1] > 0 ? rest[2] + 1 : 1;
                fromACell = rest[1] > 1 || (rest[1] == 1 && rest.size() >= 3 && rest[2] >= 1);
                if (row == 0) { // after row 2^32-1
                    column++;
                    row = 1;
                }
            }
            break;
        }
        if (fromACell && askedAgain) {
            continue; // the plug-in, asked again, left this table too
        }
        Answer first = getCell(dispatch, table, 1, 1);
        if (failed(first.outcome)) {
            return {first};
        }
        if (first.outcome == Outcome::kValue) {
            if (!fromACell) {
                if (compareNames(first.name.span(), name) > 0)
                    return {first};
                continue;
            }
            Answer after = getCell(dispatch, table, column, row);
            if (failed(after.outcome) ||
                (after.outcome == Outcome::kValue && compareNames(after.name.span(), name) > 0)) {
                return {after};
            }
            if (const uint32_t nextColumn = columnAfter(table, column); nextColumn != 0) {
                Answer columnStart = getCell(dispatch, table, nextColumn, 1);
                if (failed(columnStart.outcome)) {
                    return {columnStart};
                }
                if (columnStart.outcome == Outcome::kValue) {
                    return {std::nullopt, true};
                }
            }
            continue; // the plug-in walked this table cell by cell
        }
        Answer found = scanTable(dispatch, table, column, row, name);
        if (found.outcome == Outcome::kValue) {
            noteRow(found.name.span());
        }
        if (found.outcome != Outcome::kEndOfSubtree) {
            return {found};
        }
    }
    return {};
}

} // namespace

void forgetKeptScans()
{
    for (KeptScan &kept : keptScans) {
        std::lock_guard lock(kept.mutex);
        kept.until = {};
    }
}

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
        // A row a Get answered is one a walk must reach too.
        noteRow(name);
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
    // Whether the plug-in was asked again from this cursor (passedOver).
    bool askedAgain = false;
    // Every step asks from a name strictly after the previous one, or asks
    // again from the same one once, so the walk ends even when the plug-in
    // keeps answering names without values.
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
            std::optional<PluginName> following = nextTableRoot(request.name());
            std::optional<std::span<const uint32_t>> upTo;
            if (following)
                upTo = following->span();
            PassedOver skipped = passedOver(dispatch, request.name(), upTo, name, askedAgain);
            if (skipped.answer)
                return *skipped.answer;
            if (skipped.askAgain) {
                askedAgain = true;
                continue;
            }
            cursor = std::move(following);
            askedAgain = false;
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
                // Within the cursor's table the plug-in's walk passed over nothing.
                if (!sameTable(*next, request.name())) {
                    PassedOver skipped =
                        passedOver(dispatch, request.name(), *next, name, askedAgain);
                    if (skipped.answer)
                        return *skipped.answer;
                    if (skipped.askAgain) {
                        askedAgain = true;
                        continue;
                    }
                }
                answer.outcome = Outcome::kValue;
                noteRow(answer.name.span());
                return answer;
            }
        }
        cursor.emplace().assign(*next); // the reply's name fits a PluginName
        askedAgain = false;
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
