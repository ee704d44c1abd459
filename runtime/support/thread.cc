// Threads of the support library and the scaled, stop-aware Sleep. A thread
// started here can be stopped promptly: SMThreadStop requests the stop (which
// cuts the thread's Sleep and finite event waits short) and joins it.
#include <cstdio>
#include <exception>
#include <memory>
#include <new>
#include <system_error>
#include <thread>

#include "os.h"
#include "support/config.h"
#include "support/log.h"
#include "support/thread_control.h"
#include "vcsupt.h"

struct SMThreadRec {
    std::thread thread;
    std::shared_ptr<kelp::rt::ThreadControl> control;
};

namespace {

void runThread(std::shared_ptr<kelp::rt::ThreadControl> control, SMThreadFn fn, void *arg)
{
    kelp::rt::setCurrentThreadControl(std::move(control));
    try {
        fn(arg);
    } catch (const std::exception &e) {
        // A C++ body must not take the process down through std::terminate.
        kelp::rt::logError("thread function ended with an exception: %s", e.what());
    } catch (...) {
        kelp::rt::logError("thread function ended with an exception");
    }
    kelp::rt::setCurrentThreadControl(nullptr);
}

} // namespace

extern "C" {

SMThreadHandle SMThreadStart(SMThreadFn fn, void *arg)
{
    if (fn == nullptr)
        return nullptr;
    try {
        auto rec = std::make_unique<SMThreadRec>();
        rec->control = std::make_shared<kelp::rt::ThreadControl>();
        rec->thread = std::thread(runThread, rec->control, fn, arg);
        return rec.release();
    } catch (const std::system_error &e) {
        kelp::rt::logError("cannot start a thread for the plug-in: %s; its work is not done",
                           e.what());
        return nullptr;
    } catch (const std::bad_alloc &) {
        kelp::rt::logError("cannot start a thread for the plug-in: out of memory; its work is "
                           "not done");
        return nullptr;
    }
}

// A thread cannot join itself: stopping oneself only detaches (the control
// block lives on with the thread) and answers 5; no stop is requested, so the
// thread's own waits keep their length.
uint32_t SMThreadStop(SMThreadHandle thread)
{
    if (thread == nullptr)
        return SM_STATUS_SUCCESS;
    std::unique_ptr<SMThreadRec> rec(thread);
    if (rec->thread.get_id() == std::this_thread::get_id()) {
        rec->thread.detach();
        return SM_STATUS_FAILURE;
    }
    rec->control->requestStop();
    if (rec->thread.joinable())
        rec->thread.join();
    return SM_STATUS_SUCCESS;
}

void Sleep(uint32_t ms)
{
    auto deadline = std::chrono::steady_clock::now() + kelp::rt::scaledMs(ms);
    kelp::rt::ThreadControl *control = kelp::rt::currentThreadControl();
    if (control == nullptr) {
        std::this_thread::sleep_until(deadline);
        return;
    }
    kelp::rt::StopAwareWait registration(control->sleepCv, control->sleepMutex);
    std::unique_lock lock(control->sleepMutex);
    while (!registration.stopping()) {
        if (control->sleepCv.wait_until(lock, deadline) == std::cv_status::timeout)
            return;
    }
}

} // extern "C"
