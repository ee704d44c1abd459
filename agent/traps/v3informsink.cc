// SNMPv3 informs through a net-snmp client session on the agent's loop.
#include "traps/v3informsink.h"

// net-snmp's headers in the order they need: configuration, library.
#include <net-snmp/net-snmp-config.h>

#include <net-snmp/net-snmp-includes.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

#include "log.h"

namespace kelp::agent {
namespace {

bool makeKu(const std::string &pass, std::string *ku)
{
    u_char key[SNMP_MAXBUF_SMALL];
    size_t length = sizeof key;
    std::vector<u_char> bytes(pass.begin(), pass.end());
    const int status =
        generate_Ku(usmHMAC384SHA512AuthProtocol, OID_LENGTH(usmHMAC384SHA512AuthProtocol),
                    bytes.data(), bytes.size(), key, &length);
    std::fill(bytes.begin(), bytes.end(), 0);
    if (status != SNMPERR_SUCCESS) {
        return false;
    }
    ku->assign(reinterpret_cast<const char *>(key), length);
    std::fill(std::begin(key), std::end(key), 0);
    return true;
}

void wipeString(std::string *text)
{
    std::fill(text->begin(), text->end(), '\0');
    text->clear();
}

} // namespace

void V3InformUser::wipe()
{
    wipeString(&authKu);
    wipeString(&privKu);
}

bool makeV3InformUser(const std::string &name, const std::string &authPass,
                      const std::string &privPass, V3InformUser *user, std::string *why)
{
    user->name = name;
    if (!makeKu(authPass, &user->authKu) || !makeKu(privPass, &user->privKu)) {
        user->wipe();
        *why = "net-snmp cannot make the keys of the SNMPv3 user " + name;
        return false;
    }
    return true;
}

void V3InformSink::PduFree::operator()(snmp_pdu *pdu) const
{
    snmp_free_pdu(pdu);
}

V3InformSink::V3InformSink(std::string name, InformPolicy policy, SinkLimits limits)
    : name_(std::move(name)), policy_(policy), limits_(limits)
{
}

V3InformSink::~V3InformSink()
{
    if (pending_.any()) {
        logAt(LogLevel::kWarning, "%s", dropLine(name_, pending_, limits_).c_str());
    }
    if (const std::string lost = lostAtStopLine(name_, queue_.size(), flying_.size(), true);
        !lost.empty()) {
        logAt(LogLevel::kWarning, "%s", lost.c_str());
    }
    if (session_ != nullptr) {
        // snmp_close calls back every request under way as timed out.
        closing_ = true;
        snmp_close(session_);
    }
}

bool V3InformSink::open(const std::string &target, const V3InformUser &user, std::string *error)
{
    netsnmp_transport *transport = netsnmp_transport_open_client("snmptrap", target.c_str());
    if (transport == nullptr) {
        *error = "net-snmp cannot open a socket to " + target;
        return false;
    }
    netsnmp_session session;
    snmp_sess_init(&session);
    session.version = SNMP_VERSION_3;
    // Retries are this sink's own, so that each is logged as the SNMPv2c
    // sinks log theirs; net-snmp only times each send out.
    session.retries = 0;
    session.timeout = static_cast<long>(policy_.timeout.count());
    session.callback = onEvent;
    session.callback_magic = this;
    // The probe net-snmp makes by itself waits for its answer: this sink
    // sends its own probe without waiting.
    session.flags |= SNMP_FLAGS_DONT_PROBE;
    std::vector<char> securityName(user.name.begin(), user.name.end());
    securityName.push_back('\0');
    session.securityName = securityName.data();
    session.securityNameLen = user.name.size();
    session.securityModel = SNMP_SEC_MODEL_USM;
    session.securityLevel = SNMP_SEC_LEVEL_AUTHPRIV;
    session.securityAuthProto = usmHMAC384SHA512AuthProtocol;
    session.securityAuthProtoLen = OID_LENGTH(usmHMAC384SHA512AuthProtocol);
    session.securityPrivProto = usmAES256PrivProtocol;
    session.securityPrivProtoLen = OID_LENGTH(usmAES256PrivProtocol);
    if (user.authKu.size() > sizeof session.securityAuthKey ||
        user.privKu.size() > sizeof session.securityPrivKey) {
        netsnmp_transport_free(transport);
        *error = "the keys of the SNMPv3 user " + user.name + " do not fit net-snmp's session";
        return false;
    }
    std::memcpy(session.securityAuthKey, user.authKu.data(), user.authKu.size());
    session.securityAuthKeyLen = user.authKu.size();
    std::memcpy(session.securityPrivKey, user.privKu.data(), user.privKu.size());
    session.securityPrivKeyLen = user.privKu.size();
    // snmp_add keeps a copy of the session on net-snmp's list, so that the
    // agent's loop reads its socket and times its requests out; it closes
    // the transport when it fails.
    session_ = snmp_add(&session, transport, nullptr, nullptr);
    std::fill(std::begin(session.securityAuthKey), std::end(session.securityAuthKey), 0);
    std::fill(std::begin(session.securityPrivKey), std::end(session.securityPrivKey), 0);
    if (session_ == nullptr) {
        *error = std::string("net-snmp cannot open the session: ") + snmp_api_errstring(snmp_errno);
        return false;
    }
    // Opening clears the flag; every send would otherwise probe and wait.
    session_->flags |= SNMP_FLAGS_DONT_PROBE;
    return true;
}

bool V3InformSink::discovered() const
{
    return session_ != nullptr && session_->securityEngineIDLen > 0;
}

bool V3InformSink::send(const snmp_pdu &pdu)
{
    if (session_ == nullptr) {
        return false;
    }
    if (queue_.size() >= limits_.messages) {
        pending_.full++;
        reportDrops();
        return false;
    }
    PduPtr copy(snmp_clone_pdu(const_cast<snmp_pdu *>(&pdu)));
    if (!copy) {
        pending_.full++;
        reportDrops();
        return false;
    }
    queue_.push_back(Waiting{std::move(copy), probeSends_});
    sendWaiting();
    return true;
}

int V3InformSink::onEvent(int operation, snmp_session *, int requestId, snmp_pdu *pdu, void *sink)
{
    auto *self = static_cast<V3InformSink *>(sink);
    if (self->closing_) {
        return 1;
    }
    // What runs out of memory here must not unwind into net-snmp, which
    // called from its loop. Only the sends of waiting informs and the
    // report of drops allocate, after the request's own outcome is
    // recorded, so the request is done.
    try {
        switch (operation) {
        case NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE:
            return pdu != nullptr && self->received(requestId, *pdu) ? 1 : 0;
        case NETSNMP_CALLBACK_OP_TIMED_OUT:
        case NETSNMP_CALLBACK_OP_SEND_FAILED:
            self->timedOut(requestId);
            return 1;
        default:
            // A Report's security error: the call with the message follows.
            return 1;
        }
    } catch (const std::bad_alloc &) {
        logAt(LogLevel::kWarning,
              "trap sink %s: out of memory; its waiting informs go with its next event",
              self->name_.c_str());
        return 1;
    }
}

bool V3InformSink::received(int requestId, const snmp_pdu &pdu)
{
    if (probe_ && *probe_ == requestId && recheck_) {
        probe_.reset();
        recheck_ = false;
        if (pdu.command == SNMP_MSG_REPORT && pdu.securityEngineIDLen > 0 && !sameEngine(pdu) &&
            adoptEngineId(pdu) && localizeUser()) {
            logAt(LogLevel::kNotice,
                  "trap sink %s: the receiver's SNMPv3 engine ID changed; informs go to the "
                  "new one",
                  name_.c_str());
        }
        return true;
    }
    if (probe_ && *probe_ == requestId) {
        // net-snmp records the engine ID of a Report in the session, before
        // or after this call depending on its version: recorded here as it
        // does, so that the informs can go at once.
        if (!discovered() && pdu.command == SNMP_MSG_REPORT && pdu.securityEngineIDLen > 0 &&
            !adoptEngineId(pdu)) {
            return false;
        }
        if (!discovered()) {
            // A Report without an engine ID: the timeout sends the probe again.
            return false;
        }
        probe_.reset();
        if (!localizeUser()) {
            logAt(LogLevel::kWarning,
                  "trap sink %s: net-snmp cannot localize the SNMPv3 user's keys to the "
                  "receiver's engine ID",
                  name_.c_str());
        }
        sendWaiting();
        return true;
    }
    auto found = flying_.find(requestId);
    if (found == flying_.end()) {
        // A Report about a message the receiver could not decrypt carries
        // no request-id: net-snmp matched it to its request by message-id.
        found = std::find_if(flying_.begin(), flying_.end(), [&pdu](const auto &entry) {
            return entry.second.messageId == pdu.msgid;
        });
    }
    if (found == flying_.end()) {
        return true;
    }
    if (pdu.command == SNMP_MSG_REPORT &&
        snmpv3_get_report_type(const_cast<snmp_pdu *>(&pdu)) == SNMPERR_UNKNOWN_ENG_ID &&
        pdu.securityEngineIDLen > 0 && !sameEngine(pdu)) {
        // The receiver restarted with another engine ID (one it did not
        // keep): its Report names the new one, which the keys are localized
        // to again; the inform's next send, at its timeout, goes there.
        if (adoptEngineId(pdu) && localizeUser()) {
            logAt(LogLevel::kNotice,
                  "trap sink %s: the receiver's SNMPv3 engine ID changed; informs go to the "
                  "new one",
                  name_.c_str());
        }
        return false;
    }
    if (pdu.command != SNMP_MSG_RESPONSE) {
        // A Report (the receiver does not know the user, its keys differ,
        // or its boots and time moved on): not an acknowledgement. The
        // inform waits for its timeout and is sent again, so that a receiver
        // fixed meanwhile still gets it; an authenticated notInTimeWindow
        // Report has already set the receiver's time the next send uses.
        logAt(LogLevel::kDebug, "trap sink %s: the receiver answered an inform with a Report",
              name_.c_str());
        return false;
    }
    flying_.erase(found);
    if (reportedUnacknowledged_) {
        reportedUnacknowledged_ = false;
        logAt(LogLevel::kNotice, "trap sink %s: informs are acknowledged again", name_.c_str());
    }
    sendWaiting();
    return true;
}

void V3InformSink::timedOut(int requestId)
{
    const double timeout = std::chrono::duration<double>(policy_.timeout).count();
    if (probe_ && *probe_ == requestId && recheck_) {
        // The receiver answers nothing at all: the informs' own retries
        // and give-ups say so.
        probe_.reset();
        recheck_ = false;
        return;
    }
    if (probe_ && *probe_ == requestId) {
        probe_.reset();
        // An inform waiting for the engine ID is given up, as an inform is
        // after its last retry, once as many probes as an inform's sends
        // went unanswered after it was queued; one queued later waits for
        // probes of its own.
        const unsigned long sends = static_cast<unsigned long>(std::max(policy_.retries, 0)) + 1;
        size_t givenUp = 0;
        while (!queue_.empty() && probeSends_ - queue_.front().probesBefore >= sends) {
            queue_.pop_front();
            givenUp++;
        }
        if (givenUp > 0) {
            logAt(LogLevel::kWarning,
                  "trap sink %s: the receiver did not answer SNMPv3 engine ID discovery after "
                  "%lu sends %g s apart; %zu inform%s given up",
                  name_.c_str(), sends, timeout, givenUp, givenUp == 1 ? "" : "s");
            reportDrops();
        }
        if (!queue_.empty()) {
            startDiscovery();
        }
        return;
    }
    const auto found = flying_.find(requestId);
    if (found == flying_.end()) {
        return;
    }
    Flying &flying = found->second;
    if (flying.sends <= policy_.retries) {
        const int retry = flying.sends;
        flying.sends++;
        if (retry == 1) {
            // No answer at all may be a receiver that restarted with another
            // engine ID: its Reports then name an engine (and keys) this
            // session does not hold, and net-snmp drops them. The probe's
            // Report names its engine ID whatever it is; the later retries
            // go there.
            recheckEngine();
        }
        // The first retry of a series is worth a warning; the ones that
        // follow it, until an inform is acknowledged, are not.
        logAt(reportedUnacknowledged_ ? LogLevel::kDebug : LogLevel::kWarning,
              "trap sink %s: an inform was not acknowledged within %g s; sent again "
              "(retry %d of %d)",
              name_.c_str(), timeout, retry, policy_.retries);
        reportedUnacknowledged_ = true;
        if (sendCopy(*flying.pdu, &flying.messageId)) {
            return;
        }
        // Refused (and counted): with no request under way no timeout
        // would ever come for it.
        flying_.erase(found);
        reportDrops();
        sendWaiting();
        return;
    }
    pending_.unacknowledged++;
    pending_.informSends = flying.sends;
    flying_.erase(found);
    reportedUnacknowledged_ = true;
    reportDrops();
    sendWaiting();
}

bool V3InformSink::sameEngine(const snmp_pdu &report) const
{
    return report.securityEngineIDLen == session_->securityEngineIDLen &&
           std::memcmp(report.securityEngineID, session_->securityEngineID,
                       report.securityEngineIDLen) == 0;
}

bool V3InformSink::adoptEngineId(const snmp_pdu &report)
{
    const size_t length = report.securityEngineIDLen;
    auto *security = static_cast<u_char *>(std::malloc(length));
    auto *context = static_cast<u_char *>(std::malloc(length));
    if (security == nullptr || context == nullptr) {
        std::free(security);
        std::free(context);
        return false;
    }
    std::memcpy(security, report.securityEngineID, length);
    std::memcpy(context, report.securityEngineID, length);
    std::free(session_->securityEngineID);
    session_->securityEngineID = security;
    session_->securityEngineIDLen = length;
    // The informs' context is the receiver's engine as well.
    std::free(session_->contextEngineID);
    session_->contextEngineID = context;
    session_->contextEngineIDLen = length;
    // net-snmp makes the user for the session's engine ID once per
    // session: for a new engine ID it makes it again.
    session_->flags &= ~static_cast<u_long>(SNMP_FLAGS_USER_CREATED);
    return true;
}

bool V3InformSink::localizeUser()
{
    // net-snmp localizes the session's keys to the engine ID it now holds
    // and adds the user for that engine to the USM.
    if (usm_create_user_from_session(session_) != SNMPERR_SUCCESS) {
        return false;
    }
    // net-snmp makes it read-only: it is held in memory only, never written
    // to the agent's persistent file, and made again at the next start.
    return usm_get_user(session_->securityEngineID, session_->securityEngineIDLen,
                        session_->securityName) != nullptr;
}

void V3InformSink::startDiscovery()
{
    probeSends_++;
    if (sendProbe()) {
        return;
    }
    // No timeout would come for it: the informs waiting are given up, and
    // the next inform tries again.
    logAt(LogLevel::kWarning,
          "trap sink %s: net-snmp cannot send the SNMPv3 engine ID discovery request (%s); "
          "%zu inform%s given up",
          name_.c_str(), snmp_api_errstring(session_->s_snmp_errno), queue_.size(),
          queue_.size() == 1 ? "" : "s");
    queue_.clear();
}

void V3InformSink::recheckEngine()
{
    if (probe_) {
        return;
    }
    recheck_ = sendProbe();
}

bool V3InformSink::sendProbe()
{
    // net-snmp's USM probe: a Get with no user, unauthenticated and
    // reportable, that the receiver answers with a Report from its engine.
    PduPtr pdu(snmp_pdu_create(SNMP_MSG_GET));
    if (!pdu) {
        return false;
    }
    pdu->version = SNMP_VERSION_3;
    pdu->securityName = strdup("");
    pdu->securityNameLen = 0;
    pdu->securityLevel = SNMP_SEC_LEVEL_NOAUTH;
    pdu->securityModel = SNMP_SEC_MODEL_USM;
    // The USM builds a probe only for a user it holds: the empty user with
    // no keys and no engine ID, as net-snmp's own probe adds it.
    char empty[] = "";
    if (usm_get_user(nullptr, 0, empty) == nullptr) {
        usmUser *user = usm_create_user();
        if (user == nullptr) {
            return false;
        }
        user->name = strdup("");
        user->secName = strdup("");
        // Not for the persistent file (net-snmp's default for a new user).
        user->userStorageType = ST_VOLATILE;
        usm_add_user(user);
    }
    const int requestId = static_cast<int>(pdu->reqid);
    if (snmp_async_send(session_, pdu.get(), onEvent, this) == 0) {
        return false;
    }
    static_cast<void>(pdu.release()); // net-snmp frees it with the request
    probe_ = requestId;
    return true;
}

void V3InformSink::sendWaiting()
{
    if (queue_.empty()) {
        reportDrops();
        return;
    }
    if (!discovered()) {
        if (!probe_) {
            startDiscovery();
        }
        return;
    }
    while (flying_.size() < policy_.window && !queue_.empty()) {
        const int requestId = static_cast<int>(queue_.front().pdu->reqid);
        if (flying_.count(requestId) != 0) {
            queue_.pop_front();
            continue;
        }
        // Its place first: without memory for it the inform stays queued,
        // and none goes out untracked.
        Flying &flying = flying_[requestId];
        PduPtr pdu = std::move(queue_.front().pdu);
        queue_.pop_front();
        if (!sendCopy(*pdu, &flying.messageId)) {
            flying_.erase(requestId);
            continue;
        }
        flying.pdu = std::move(pdu);
        flying.sends = 1;
    }
    reportDrops();
}

bool V3InformSink::sendCopy(const snmp_pdu &pdu, long *messageId)
{
    PduPtr copy(snmp_clone_pdu(const_cast<snmp_pdu *>(&pdu)));
    if (!copy) {
        pending_.refused++;
        pending_.lastRefusalError = ENOMEM;
        return false;
    }
    copy->version = SNMP_VERSION_3;
    copy->securityModel = SNMP_SEC_MODEL_USM;
    copy->securityLevel = SNMP_SEC_LEVEL_AUTHPRIV;
    // A message of its own for each send; the request-id stays the inform's.
    copy->msgid = snmp_get_next_msgid();
    *messageId = copy->msgid;
    if (snmp_async_send(session_, copy.get(), onEvent, this) == 0) {
        logAt(LogLevel::kDebug, "trap sink %s: net-snmp cannot send an inform: %s", name_.c_str(),
              snmp_api_errstring(session_->s_snmp_errno));
        pending_.refused++;
        pending_.lastRefusalError = EIO;
        return false;
    }
    static_cast<void>(copy.release()); // net-snmp frees it with the request
    return true;
}

void V3InformSink::reportDrops()
{
    if (!pending_.any()) {
        return;
    }
    const SinkClock::time_point now = SinkClock::now();
    if (lastReport_ && now - *lastReport_ < kDropReportInterval) {
        return;
    }
    lastReport_ = now;
    logAt(LogLevel::kWarning, "%s", dropLine(name_, pending_, limits_).c_str());
    pending_ = DropReport{};
}

} // namespace kelp::agent
