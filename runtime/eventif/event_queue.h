// The queue of storage events behind vcsif.h: what the control socket queues
// and vcsif32_getEvent hands to the plug-in's event monitor, oldest first.
// Runtime-private (the control socket and the tests use it).
#ifndef KELP_RUNTIME_EVENTIF_EVENT_QUEUE_H
#define KELP_RUNTIME_EVENTIF_EVENT_QUEUE_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelp::ev {

// Largest event text the queue accepts, in bytes.
inline constexpr size_t kMaxEventBytes = 16 * 1024;
// Most events the queue holds, and most bytes of event text it holds in
// all: a reader that never reads cannot make the queue grow without limit.
// An event past either bound is refused; the events held stay.
inline constexpr size_t kMaxQueuedEvents = 10000;
inline constexpr size_t kMaxQueuedBytes = 16 * 1024 * 1024;

// The longest value the plug-in reads from an event: it reads each into a
// buffer of 160 bytes and takes a longer one for a missing one.
inline constexpr size_t kMaxEventValueBytes = 159;

// True when every element of xml the plug-in reads (Parm01 to Parm10,
// Nexus, ObjType, ControllerName, VirtualDiskName, AttributesMask,
// ObjStatus, PreviousStatus; its first of each name) holds at most
// kMaxEventValueBytes once its entities are decoded; else false with
// "NAME has N bytes, over the limit of 159" in *error (when not null).
// The queue itself takes longer values: a data store may send them.
bool eventValuesFit(std::string_view xml, std::string *error);

// Appends one event. The text must hold an "EventID" element whose content is
// a decimal number (0..4294967295, blanks around it allowed), be at most
// kMaxEventBytes long and hold no NUL byte. Answers false with a message in
// *error (when not null) for a text that breaks these rules or when the
// queue is full; nothing is queued then. Events are kept whether or not a
// reader has switched the queue on, so a host may queue before the plug-in
// loads. Thread-safe.
bool queueEvent(const std::string &xml, std::string *error);

// Appends several events as one step: all of them, in order and with no
// other writer's event between them, or none (with the message of the
// first text that breaks the rules, or of a queue without room for all).
// Thread-safe.
bool queueEvents(const std::vector<std::string> &texts, std::string *error);

// The number in the first "EventID" element of xml, as queueEvent reads it;
// nullopt when there is none or it is not such a number (never for a text
// the queue accepted).
std::optional<uint32_t> eventNumber(std::string_view xml);

// Removes and answers the oldest event, or nullopt when none is queued.
std::optional<std::string> takeOldestEvent();

// Puts an event taken with takeOldestEvent back at the head of the queue,
// for a reader that could not deliver it. It may push the queue one past
// kMaxQueuedEvents (or kMaxQueuedBytes) for a moment; nothing is lost.
void requeueOldestEvent(std::string xml);

// The number of events queued.
size_t queuedEvents();

// Drops every queued event and forgets a rescan the reader left open, so that
// the interface is as after load (tests).
void clearEvents();

// Whether a reader switched the queue on (vcsif32_yesEventQ) since the
// runtime was loaded. Informational: events are kept either way.
bool readerSwitchedOn();
void setReaderSwitchedOn();

} // namespace kelp::ev

#endif // KELP_RUNTIME_EVENTIF_EVENT_QUEUE_H
