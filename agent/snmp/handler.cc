// net-snmp glue of the request path: every varbind below the root becomes
// an answerGet, answerGetNext, answerRepetitions or answerSet (resolve.cc),
// whose outcome is written back. A GETBULK reaches the handler once per PDU,
// and the handler answers all repetitions of a varbind in one pass (over
// AgentX the master sends GETNEXTs instead). The main loop only tries the
// plug-in's lock; a varbind that finds it held goes, with the rest of its
// PDU, to the worker as a delegated request.
#include "snmp/handler.h"

// net-snmp's headers in the order they need: configuration, library, agent.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <new>
#include <optional>
#include <type_traits>
#include <utility>
#include <vector>

#include "bulkfit.h"
#include "log.h"
#include "snmp/budget.h"
#include "snmp/delegate.h"
#include "snmpvalue.h"

namespace kelp::agent {

static_assert(std::is_same_v<oid, uint64_t>, "net-snmp names are read as 64-bit arcs");

namespace {

// One varbind to answer, copied out of net-snmp's structures so that the
// worker can resolve it; `request` is touched on the main loop only.
struct Item {
    netsnmp_request_info *request = nullptr;
    int mode = MODE_GET;
    std::vector<uint64_t> name;
    bool inclusive = false;
    size_t repetitions = 1;
    std::vector<uint64_t> rangeEnd;
    std::vector<Answer> answers;
};

bool failed(const Answer &answer)
{
    return answer.outcome == Outcome::kGenErr || answer.outcome == Outcome::kLockTimeOut;
}

// net-snmp counts a response's error (snmpOutGenErrs) only when the PDU is
// answered within the handler call: it wraps a delegated request up with
// no error status, so the genErr of one the worker answered goes uncounted.
// Counted here, once per PDU.
void countDelegatedGenErr(netsnmp_agent_request_info *reqinfo)
{
    static constexpr const char *kCounted = "kelp: genErr counted";
    static char marker;
    if (netsnmp_agent_get_list_data(reqinfo, kCounted) != nullptr) {
        return;
    }
    if (netsnmp_data_list *mark = netsnmp_create_data_list(kCounted, &marker, nullptr)) {
        netsnmp_agent_add_list_data(reqinfo, mark);
    }
    snmp_increment_statistic(STAT_SNMPOUTGENERRS);
}

// The repetitions a GETBULK varbind may still fill: itself and as many of
// the varbinds after it as it has repetitions left.
size_t repetitionsOf(const netsnmp_request_info *request)
{
    size_t count = 1;
    for (const netsnmp_variable_list *var = request->requestvb->next_variable;
         var != nullptr && static_cast<long>(count) <= request->repeat; var = var->next_variable) {
        count++;
    }
    return count;
}

Item itemOf(int mode, netsnmp_request_info *request)
{
    Item item;
    item.request = request;
    item.mode = mode;
    const netsnmp_variable_list *var = request->requestvb;
    item.name.assign(var->name, var->name + var->name_length);
    item.inclusive = request->inclusive != 0;
    if (mode == MODE_GETBULK) {
        item.repetitions = repetitionsOf(request);
        if (request->range_end != nullptr) {
            item.rangeEnd.assign(request->range_end, request->range_end + request->range_end_len);
        }
    }
    return item;
}

void resolveItem(const Dispatch &dispatch, Item *item)
{
    switch (item->mode) {
    case MODE_GET:
        item->answers = {answerGet(dispatch, item->name)};
        break;
    case MODE_GETNEXT:
        item->answers = {answerGetNext(dispatch, item->name, item->inclusive)};
        break;
    default:
        item->answers = answerRepetitions(dispatch, item->name, item->inclusive, item->repetitions,
                                          item->rangeEnd);
        break;
    }
}

// genErr answers, logged by cause at most once a minute each with the
// count since the line before, so that a user sees why a manager failed.
struct GenErrLog {
    LogRateLimit limit{std::chrono::minutes(1), 4};
    unsigned long locked = 0;
    unsigned long failed = 0;

    void note(Outcome outcome)
    {
        const bool lock = outcome == Outcome::kLockTimeOut;
        unsigned long &count = lock ? locked : failed;
        count++;
        if (!limit.allow(lock ? "lock" : "plug-in", LogRateLimit::Clock::now())) {
            return;
        }
        logAt(LogLevel::kWarning,
              lock ? "answered genErr: the storage tables stayed locked past the request's "
                     "time (a rescan is rebuilding them); %lu such answer%s since the last line"
                   : "answered genErr: the plug-in failed to answer; %lu such answer%s since the "
                     "last line",
              count, count == 1 ? "" : "s");
        count = 0;
    }
};

GenErrLog g_genErrs; // main loop only

void writeAnswer(netsnmp_agent_request_info *reqinfo, netsnmp_request_info *request,
                 const Answer &answer, bool setName)
{
    netsnmp_variable_list *var = request->requestvb;
    switch (answer.outcome) {
    case Outcome::kValue:
        if ((setName && snmp_set_var_objid(var, answer.name.data(), answer.name.size()) != 0) ||
            !setVarValue(var, answer.value)) {
            netsnmp_set_request_error(reqinfo, request, SNMP_ERR_GENERR);
        }
        break;
    case Outcome::kNoSuchObject:
        netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHOBJECT);
        break;
    case Outcome::kNoSuchInstance:
        netsnmp_set_request_error(reqinfo, request, SNMP_NOSUCHINSTANCE);
        break;
    case Outcome::kGenErr:
    case Outcome::kLockTimeOut:
        g_genErrs.note(answer.outcome);
        netsnmp_set_request_error(reqinfo, request, SNMP_ERR_GENERR);
        break;
    case Outcome::kNotWritable:
        netsnmp_set_request_error(reqinfo, request, SNMP_ERR_NOTWRITABLE);
        break;
    case Outcome::kEndOfSubtree:
        // Untouched: net-snmp asks the next registration and answers
        // endOfMibView itself at the end of the view. Answering it here
        // would cut GETBULK responses short.
        break;
    }
}

// After a written repetition of a GETBULK varbind: seeds the varbind of the
// next repetition with the answered name, the way net-snmp's bulk-to-next
// helper does over many passes, and makes it the request's. False when the
// repetitions end here: the answer was no value, none are left, or the next
// varbind cannot be seeded. A repetition the plug-in has nothing for stays
// NULL, and net-snmp carries it on to the next registration with the
// repetitions left; net-snmp checks the view of every repetition afterwards.
bool nextRepetition(netsnmp_agent_request_info *reqinfo, netsnmp_request_info *request,
                    const Answer &answer)
{
    netsnmp_variable_list *var = request->requestvb;
    netsnmp_variable_list *next = var->next_variable;
    if (answer.outcome != Outcome::kValue || var->type == ASN_NULL || next == nullptr ||
        request->repeat <= 0) {
        return false;
    }
    request->repeat--;
    if (snmp_set_var_objid(next, var->name, var->name_length) != 0) {
        netsnmp_set_request_error(reqinfo, request, SNMP_ERR_GENERR);
        return false;
    }
    next->type = ASN_NULL;
    request->requestvb = next;
    // 2 is net-snmp's mark for a varbind it moved to the end of a range; it
    // holds for that varbind only.
    if (request->inclusive == 2) {
        request->inclusive = 0;
    }
    return true;
}

// The repetitions a worker resolved, written as nextRepetition goes.
void writeRepetitions(netsnmp_agent_request_info *reqinfo, netsnmp_request_info *request,
                      const std::vector<Answer> &answers)
{
    for (size_t i = 0; i < answers.size(); i++) {
        writeAnswer(reqinfo, request, answers[i], true);
        if (i + 1 == answers.size() || !nextRepetition(reqinfo, request, answers[i])) {
            return;
        }
    }
}

// Resolves and writes one varbind (every repetition of a GETBULK one) on
// the main loop. False, with nothing of the varbind written but the
// repetitions before, when the plug-in's tables were locked: the request,
// as it stands then, goes to the worker.
bool answerNow(const Dispatch &dispatch, netsnmp_agent_request_info *reqinfo,
               netsnmp_request_info *request)
{
    const netsnmp_variable_list *var = request->requestvb;
    const std::span<const uint64_t> name(var->name, var->name_length);
    if (reqinfo->mode == MODE_GET || reqinfo->mode == MODE_GETNEXT) {
        const Answer answer = reqinfo->mode == MODE_GET
                                  ? answerGet(dispatch, name)
                                  : answerGetNext(dispatch, name, request->inclusive != 0);
        if (answer.outcome == Outcome::kLockTimeOut) {
            return false;
        }
        writeAnswer(reqinfo, request, answer, reqinfo->mode == MODE_GETNEXT);
        return true;
    }
    for (;;) {
        var = request->requestvb;
        const Answer answer =
            answerGetNext(dispatch, std::span<const uint64_t>(var->name, var->name_length),
                          request->inclusive != 0);
        if (answer.outcome == Outcome::kLockTimeOut) {
            return false;
        }
        writeAnswer(reqinfo, request, answer, true);
        if (request->range_end != nullptr &&
            snmp_oid_compare(var->name, var->name_length, request->range_end,
                             request->range_end_len) >= 0) {
            return true;
        }
        if (!nextRepetition(reqinfo, request, answer)) {
            return true;
        }
    }
}

void writeItem(netsnmp_agent_request_info *reqinfo, const Item &item)
{
    if (item.mode == MODE_GETBULK) {
        writeRepetitions(reqinfo, item.request, item.answers);
    } else {
        writeAnswer(reqinfo, item.request, item.answers.front(), item.mode == MODE_GETNEXT);
    }
}

} // namespace

struct RequestPath::Impl {
    Dispatch dispatch;
    RequestSettings settings;
    Delegator delegator;
    bool stopped = false;

    Impl(Dispatch plugin, const RequestSettings &s, std::function<void()> wake)
        : dispatch(withLockBudget(std::move(plugin))), settings(s),
          delegator(s.maxDelegated, std::move(wake))
    {
    }

    // Hands `items` (their requests are the rest of one handler call) to
    // the worker. The PDU fails as a whole on its first genErr, so after
    // one the worker answers nothing more of it.
    void delegate(netsnmp_mib_handler *handler, netsnmp_handler_registration *reginfo,
                  netsnmp_agent_request_info *reqinfo, std::vector<Item> &&pending)
    {
        // What may run out of memory (std::bad_alloc) comes before any
        // request is marked delegated: then none is, and the caller answers.
        auto items = std::make_shared<std::vector<Item>>(std::move(pending));
        netsnmp_delegated_cache *cache = netsnmp_create_delegated_cache(
            handler, reginfo, reqinfo, items->front().request, nullptr);
        if (cache == nullptr || stopped) {
            answerAll(reqinfo, *items, Outcome::kGenErr);
            netsnmp_free_delegated_cache(cache);
            return;
        }
        const auto deadline = LockBudget::Clock::now() + settings.delegatedBudget;
        // A job that is not queued leaves its requests to the main loop.
        const auto undo = [&items, cache] {
            for (Item &item : *items) {
                item.request->delegated = 0;
            }
            netsnmp_free_delegated_cache(cache);
        };
        Delegator::Job job;
        try {
            job.work = [this, items, deadline] {
                LockBudget budget(deadline);
                std::optional<Outcome> pduFailed;
                for (Item &item : *items) {
                    if (pduFailed) {
                        item.answers = {Answer{*pduFailed, {}, {}}};
                        continue;
                    }
                    resolveItem(dispatch, &item);
                    if (failed(item.answers.back())) {
                        pduFailed = item.answers.back().outcome;
                    }
                }
            };
            job.finish = [items, cache](bool ran) {
                netsnmp_delegated_cache *valid = netsnmp_handler_check_cache(cache);
                if (valid != nullptr) {
                    for (Item &item : *items) {
                        item.request->delegated = 0;
                    }
                    // The varbind of the first genErr, for the error-index.
                    const Item *genErr = ran ? nullptr : &items->front();
                    if (ran) {
                        for (const Item &item : *items) {
                            writeItem(valid->reqinfo, item);
                            if (genErr == nullptr &&
                                std::any_of(item.answers.begin(), item.answers.end(), failed)) {
                                genErr = &item;
                            }
                        }
                    } else {
                        answerAll(valid->reqinfo, *items, Outcome::kGenErr);
                    }
                    if (genErr != nullptr) {
                        countDelegatedGenErr(valid->reqinfo);
                        if (const netsnmp_agent_session *asp = valid->reqinfo->asp) {
                            answerGenErr(asp->pdu, asp->orig_pdu, genErr->request->index);
                        }
                    }
                }
                netsnmp_free_delegated_cache(cache);
            };
            for (Item &item : *items) {
                item.request->delegated = 1;
            }
            if (delegator.submit(std::move(job))) {
                return;
            }
        } catch (const std::bad_alloc &) {
            undo();
            throw;
        }
        undo();
        logOverflow();
        answerAll(reqinfo, *items, Outcome::kGenErr);
    }

    static void answerAll(netsnmp_agent_request_info *reqinfo, const std::vector<Item> &items,
                          Outcome outcome)
    {
        for (const Item &item : items) {
            Answer answer;
            answer.outcome = outcome;
            writeAnswer(reqinfo, item.request, answer, false);
        }
    }

    void logOverflow()
    {
        static LogRateLimit limit(std::chrono::minutes(1), 1);
        if (limit.allow("full", LogRateLimit::Clock::now())) {
            logAt(LogLevel::kWarning,
                  "%zu requests already wait for the storage tables' lock; answering genErr",
                  settings.maxDelegated);
        }
    }
};

namespace {

// A request the agent had no memory to answer fails with genErr, which
// fails its PDU: the manager asks again. Logged once a minute, without
// allocating.
void answerShortOfMemory(netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    for (netsnmp_request_info *request = requests; request != nullptr; request = request->next) {
        if (!request->delegated) {
            netsnmp_set_request_error(reqinfo, request, SNMP_ERR_GENERR);
            break;
        }
    }
    static LogInterval shortLog(std::chrono::minutes(1));
    shortLog.warn("out of memory: a request was answered genErr (logged once a minute)");
}

int handleRequests(netsnmp_mib_handler *handler, netsnmp_handler_registration *reginfo,
                   netsnmp_agent_request_info *reqinfo, netsnmp_request_info *requests)
{
    auto &path = *static_cast<RequestPath::Impl *>(handler->myvoid);
    const bool answered = reqinfo->mode == MODE_GET || reqinfo->mode == MODE_GETNEXT ||
                          reqinfo->mode == MODE_GETBULK || reqinfo->mode == MODE_SET_RESERVE1;
    if (path.stopped && answered) {
        // The plug-in is unloaded or about to be. Requests still come while
        // net-snmp shuts down: a subagent reads its master's requests while
        // it waits for the answer to its Close. They fail with genErr.
        for (netsnmp_request_info *request = requests; request != nullptr;
             request = request->next) {
            if (!request->processed && !request->delegated) {
                netsnmp_set_request_error(reqinfo, request, SNMP_ERR_GENERR);
                break;
            }
        }
        return SNMP_ERR_NOERROR;
    }
    if (reqinfo->mode == MODE_SET_RESERVE1) {
        // The first set phase refuses; the later ones then have nothing to
        // undo.
        for (netsnmp_request_info *request = requests; request != nullptr;
             request = request->next) {
            if (request->processed) {
                continue;
            }
            const netsnmp_variable_list *var = request->requestvb;
            Answer refusal;
            try {
                refusal.outcome = answerSet(path.dispatch,
                                            std::span<const uint64_t>(var->name, var->name_length));
            } catch (const std::bad_alloc &) {
                answerShortOfMemory(reqinfo, requests);
                return SNMP_ERR_NOERROR;
            }
            writeAnswer(reqinfo, request, refusal, false);
        }
        return SNMP_ERR_NOERROR;
    }
    if (reqinfo->mode != MODE_GET && reqinfo->mode != MODE_GETNEXT &&
        reqinfo->mode != MODE_GETBULK) {
        return SNMP_ERR_NOERROR;
    }
    // The main loop never waits for the plug-in's lock.
    const LockBudget budget = LockBudget::tryOnly();
    try {
        std::vector<Item> pending;
        for (netsnmp_request_info *request = requests; request != nullptr;
             request = request->next) {
            if (request->processed ||
                (pending.empty() && answerNow(path.dispatch, reqinfo, request))) {
                continue;
            }
            pending.push_back(itemOf(reqinfo->mode, request));
        }
        if (!pending.empty()) {
            path.delegate(handler, reginfo, reqinfo, std::move(pending));
        }
    } catch (const std::bad_alloc &) {
        answerShortOfMemory(reqinfo, requests);
    }
    return SNMP_ERR_NOERROR;
}

} // namespace

RequestPath::RequestPath(Dispatch plugin, const RequestSettings &settings,
                         std::function<void()> wake)
    : impl_(std::make_unique<Impl>(std::move(plugin), settings, std::move(wake)))
{
}

RequestPath::~RequestPath()
{
    stop();
}

bool RequestPath::registerRoot(std::string *error)
{
    oid root[std::size(kMibRoot)];
    std::copy(std::begin(kMibRoot), std::end(kMibRoot), root);
    // Registered writable so that a Set reaches the handler, which refuses
    // it after the plug-in has seen it (command 11); a read-only
    // registration is refused by net-snmp before that. GETBULK comes in
    // whole rather than through net-snmp's bulk-to-next helper, which asks
    // once per repetition.
    netsnmp_handler_registration *registration = netsnmp_create_handler_registration(
        "kelp", handleRequests, root, std::size(root), HANDLER_CAN_RWRITE | HANDLER_CAN_GETBULK);
    if (registration == nullptr) {
        *error = "net-snmp cannot make the handler registration";
        return false;
    }
    registration->handler->myvoid = impl_.get();
    // On failure net-snmp has already freed the registration.
    const int status = netsnmp_register_handler(registration);
    if (status != MIB_REGISTERED_OK) {
        *error = "net-snmp refuses to register the subtree (status " + std::to_string(status) + ")";
        return false;
    }
    return true;
}

void RequestPath::completeDelegated()
{
    impl_->delegator.runFinished();
    netsnmp_check_outstanding_agent_requests();
}

void RequestPath::stop()
{
    if (impl_->stopped) {
        return;
    }
    impl_->stopped = true;
    impl_->delegator.stop();
    netsnmp_check_outstanding_agent_requests();
}

} // namespace kelp::agent
