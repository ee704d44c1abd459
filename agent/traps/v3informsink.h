// An inform sink that sends SNMPv3 InformRequests (authPriv) as one of the
// agent's SNMPv3 users. The receiver of an inform is the authoritative
// engine, so the sink first discovers the receiver's engine ID (net-snmp's
// USM probe: an unauthenticated request that the receiver answers with a
// Report naming its engine ID), and net-snmp then localizes the user's keys
// to that engine ID and keeps the receiver's boots and time. The messages go
// through a net-snmp client session on the agent's main loop: net-snmp's
// select, read and timeout handling call this sink back, so nothing here
// waits. net-snmp's own synchronous probe is never used (the session is
// opened with SNMP_FLAGS_DONT_PROBE); the probe is sent asynchronously like
// any inform. Informs are retried and given up as the SNMPv2c ones are
// (traps/informwindow.h): a window of them under way, each sent again after
// the timeout, given up after the last retry; the rest wait in a bounded
// queue, as do the informs that arrive while the engine ID is unknown. When
// discovery gets no answer after the retries, the informs waiting for it are
// given up and the next inform starts discovery again. An inform's first
// retry sends the probe again, so that a receiver restarted with another
// engine ID (whose Reports net-snmp cannot read) is found again. Only the
// thread that runs net-snmp touches a sink.
#ifndef KELP_AGENT_TRAPS_V3INFORMSINK_H
#define KELP_AGENT_TRAPS_V3INFORMSINK_H

#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "traps/informwindow.h"
#include "traps/sinkqueue.h"

struct snmp_session;
struct snmp_pdu;

namespace kelp::agent {

// The user an SNMPv3 inform sink sends as: its name and its keys made from
// its pass phrases (SHA-512 and AES-256, as every --v3-user has), not yet
// localized to any engine ID.
struct V3InformUser {
    std::string name;
    std::string authKu;
    std::string privKu;
    // Overwrites the keys before they are freed.
    void wipe();
};

// Makes `user` from the pass phrases of the user `name`. False with the
// reason in *why when net-snmp cannot hash them. Only after init_snmp.
bool makeV3InformUser(const std::string &name, const std::string &authPass,
                      const std::string &privPass, V3InformUser *user, std::string *why);

class V3InformSink {
  public:
    // `name` is the sink as the user gave it, for the log.
    V3InformSink(std::string name, InformPolicy policy, SinkLimits limits = kSinkLimits);
    // Closes the session: informs under way or waiting are lost.
    ~V3InformSink();
    V3InformSink(const V3InformSink &) = delete;
    V3InformSink &operator=(const V3InformSink &) = delete;

    // Opens the client session to `target` (net-snmp's syntax, UDP, port
    // 162 unless named) as `user`. Sends nothing yet. False with the reason
    // in *error when net-snmp cannot make the session.
    bool open(const std::string &target, const V3InformUser &user, std::string *error);

    // Queues a copy of the inform `pdu` (an SNMPv2 InformRequest PDU, whose
    // request-id the copy keeps) and sends what the window allows, starting
    // discovery when the receiver's engine ID is not known. False when the
    // queue was full (the drop is counted and reported).
    bool send(const snmp_pdu &pdu);

    const std::string &name() const { return name_; }
    // The receiver's engine ID has been discovered.
    bool discovered() const;
    size_t waiting() const { return queue_.size(); }
    size_t underWay() const { return flying_.size(); }

  private:
    struct PduFree {
        void operator()(snmp_pdu *pdu) const;
    };
    using PduPtr = std::unique_ptr<snmp_pdu, PduFree>;
    struct Waiting {
        PduPtr pdu;
        // Discovery probes sent before it was queued: it waits for as many
        // after it as an inform is sent, and is then given up.
        unsigned long probesBefore = 0;
    };
    struct Flying {
        PduPtr pdu;
        int sends = 0;
        long messageId = 0; // of the last send
    };

    // net-snmp's callback for every request of the session.
    static int onEvent(int operation, snmp_session *session, int requestId, snmp_pdu *pdu,
                       void *sink);
    // A message came for `requestId`; true when that request is done.
    bool received(int requestId, const snmp_pdu &pdu);
    // `requestId` got no answer within the timeout.
    void timedOut(int requestId);
    // `report` comes from the engine the session sends to.
    bool sameEngine(const snmp_pdu &report) const;
    // Makes the engine ID of `report` (which answered discovery, or named a
    // new engine) the session's security and context engine ID. False when
    // there is no memory for it.
    bool adoptEngineId(const snmp_pdu &report);
    // After discovery: the USM holds the user with its keys localized to
    // the receiver's engine ID. False when net-snmp cannot make it.
    bool localizeUser();
    // Discovery while the engine ID is unknown: the informs wait for it and
    // are given up when it gets no answer.
    void startDiscovery();
    // The same probe while the engine ID is known, when an inform got no
    // answer: a Report from another engine ID makes that one the session's.
    void recheckEngine();
    // Sends the probe; false when net-snmp cannot.
    bool sendProbe();
    void sendWaiting();
    // Sends a copy of `pdu` in a message of its own, whose message-id goes
    // to *messageId; false (counted as refused) when net-snmp cannot.
    bool sendCopy(const snmp_pdu &pdu, long *messageId);
    void reportDrops();

    std::string name_;
    InformPolicy policy_;
    SinkLimits limits_;
    snmp_session *session_ = nullptr; // net-snmp's copy, on its session list
    std::deque<Waiting> queue_;
    std::map<int, Flying> flying_; // by request-id
    // The discovery request under way, and how many were sent in all.
    std::optional<int> probe_;
    unsigned long probeSends_ = 0;
    bool recheck_ = false; // the probe under way rechecks a known engine ID
    DropReport pending_;
    std::optional<SinkClock::time_point> lastReport_;
    // A retry was logged as a warning and no inform was acknowledged since.
    bool reportedUnacknowledged_ = false;
    // Set while the session closes: its callbacks then change nothing.
    bool closing_ = false;
};

} // namespace kelp::agent

#endif // KELP_AGENT_TRAPS_V3INFORMSINK_H
