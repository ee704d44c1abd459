// The reader side of the event interface: what vcsif32_getEvent hands out
// and what vcsif32_freeData releases. Rescans are kept well-formed (a rescan
// started event left open past the rescan time-out gets a rescan completed
// event of the runtime's own; a rescan completed event that closes nothing is
// dropped), and event texts are reclaimed: the plug-in's monitor does not
// release the text of an event it blocks. Runtime-private.
#ifndef KELP_RUNTIME_EVENTIF_READER_H
#define KELP_RUNTIME_EVENTIF_READER_H

#include <cstddef>

namespace kelp::ev {

// The next event as a heap text that stays the reader's until it releases it
// with releaseEventText or asks again; null when none is queued (or memory
// runs out: the event then stays for the next call). Texts still held from
// earlier calls are released by it, once the new copy is made (so the new
// text never has the address of the text released just now): the reader
// reads one event at a time.
// Each warning (a rescan completed by the runtime, a dropped event) goes to
// the runtime's log. Thread-safe.
char *readNextEvent();

// Releases a text readNextEvent handed out and answers true; answers false
// and frees nothing for any other pointer (null, another block, a text
// already released or reclaimed). Thread-safe.
bool releaseEventText(char *text);

// Texts handed out and not yet released or reclaimed: at most one while the
// reader reads one event at a time. The rest are released when the runtime
// unloads. Thread-safe.
size_t outstandingEventTexts();

// A reader is about to ask for events: until it has not asked for
// kReaderGoneMs (rescan_gate.h) after this, it counts as present, as if it
// had just read. Thread-safe.
void noteReaderStarting();

// While held, readNextEvent hands out nothing (the events stay queued and
// are counted as such) and a swap does not wait for the reader: a host
// holds them while it stops the plug-in, whose monitor drops, unreported,
// an event it reads once its stop has begun. Thread-safe.
void holdEvents(bool hold);

// Whether a rescan started event was handed out and is still open.
bool rescanOpen();

// Forgets an open rescan and a rescan closed by its time-out (clearEvents).
void forgetRescan();

} // namespace kelp::ev

#endif // KELP_RUNTIME_EVENTIF_READER_H
