// The host-facing entry points of the control socket (kelp/runtime.h), the
// rescan events a host queues as the socket's model changes do, and the
// start from KELP_CONTROL when the runtime is loaded.
#include <cstdio>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "control/commands.h"
#include "control/server.h"
#include "eventif/event_queue.h"
#include "eventif/reader.h"
#include "kelp/runtime.h"
#include "support/config.h"
#include "support/log.h"
#include "support/text.h"

namespace kelp::ctl {
namespace {

// The mutex has constant initialisation, so the load-time constructor below
// may use it whatever order the runtime's other initialisers run in. The
// server is a plain pointer: a static owner would be destroyed at exit on
// its own, after or before StopAtExit, and the server deleted twice.
std::mutex g_controlMutex;
ControlServer *g_server = nullptr; // guarded by g_controlMutex

// Stops the server when the runtime is unloaded or the process exits. It is
// made on the first start, so it goes before the static objects the serving
// thread reads, which were made earlier, and no thread runs on in unloaded
// code or leaves a stale socket file.
struct StopAtExit {
    ~StopAtExit() { kelpRuntimeStopControl(); }
};

// KELP_CONTROL names the socket of a host that sets no path itself. A
// failure must not fail the load of the library, so it is only reported.
__attribute__((constructor)) void controlAttach()
{
    if (&kelpRuntimeHostServesControl != nullptr)
        return;
    std::string path = rt::envValue("KELP_CONTROL");
    if (path.empty())
        return;
    char error[512];
    if (kelpRuntimeStartControl(path.c_str(), error, sizeof error) != 0)
        kelp::rt::logError("no control socket (KELP_CONTROL): %s", error);
}

} // namespace
} // namespace kelp::ctl

extern "C" {

int kelpRuntimeStartControl(const char *path, char *error, unsigned errorSize)
{
    using namespace kelp::ctl;
    if (path == nullptr) {
        kelp::rt::copyToBuffer("the control socket path is null", error, errorSize);
        return 1;
    }
    try {
        static StopAtExit stopAtExit;
        std::lock_guard lock(g_controlMutex);
        // The old server goes first, so that restarting on the same path finds
        // the path free.
        delete g_server;
        g_server = nullptr;
        std::string message;
        g_server = ControlServer::start(path, kReadTimeout, &message).release();
        if (g_server == nullptr) {
            kelp::rt::copyToBuffer(message, error, errorSize);
            return 1;
        }
        kelp::rt::copyToBuffer("", error, errorSize);
        return 0;
    } catch (const std::bad_alloc &) {
        kelp::rt::copyToBuffer("out of memory", error, errorSize);
        return 1;
    }
}

void kelpRuntimeStopControl(void)
{
    std::lock_guard lock(kelp::ctl::g_controlMutex);
    delete kelp::ctl::g_server;
    kelp::ctl::g_server = nullptr;
}

unsigned long kelpRuntimeQueuedEvents(void)
{
    return kelp::ev::queuedEvents();
}

void kelpRuntimeHoldEvents(int hold)
{
    kelp::ev::holdEvents(hold != 0);
}

int kelpRuntimeQueueRescan(char *error, unsigned errorSize)
{
    std::string message;
    bool ok = false;
    try {
        ok = kelp::ctl::queueRescanEvents(&message);
    } catch (const std::bad_alloc &) {
        message = "out of memory";
    }
    kelp::rt::copyToBuffer(ok ? std::string_view() : message, error, errorSize);
    return ok ? 0 : 1;
}

} // extern "C"
