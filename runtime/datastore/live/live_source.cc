// The live source's thread: one rescan at start, then one per interval and
// one per burst of udev events (block, scsi, nvme, enclosure), coalesced so
// that a hot-plug storm costs one rescan. A rescan reads the machine holding
// no lock, swaps the new model in, and queues what changed: the rescan pair
// (3061, 3060) first when objects came or went, then the change's events, all
// in one step so that nothing sits between the pair.
#include "datastore/live/live_source.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <libudev.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "control/commands.h"
#include "datastore/live/burst.h"
#include "datastore/live/changes.h"
#include "datastore/live/live_model.h"
#include "datastore/live/rescan_line.h"
#include "datastore/live/scan.h"
#include "datastore/live/sysroot.h"
#include "datastore/model_store.h"
#include "eventif/event_queue.h"
#include "support/log.h"
#include "support/text.h"
#include "support/unique_fd.h"

namespace kelp::live {
namespace {

using Clock = std::chrono::steady_clock;

// A burst of udev events ends when none came for this long, or at the latest
// after kLongestBurst, so a storm cannot hold the rescan back for ever.
constexpr auto kQuietAfterBurst = std::chrono::milliseconds(250);
constexpr auto kLongestBurst = std::chrono::seconds(2);
// The cause of a rescan asked for rather than timed or caused by udev, as
// the rescan line says it.
constexpr const char *kAsked = "asked";

// Where device events come from: udev's netlink monitor, or (tests) any
// descriptor that becomes readable, drained by reading it.
struct EventSource {
    virtual ~EventSource() = default;
    virtual int fd() const = 0;
    virtual void drain() = 0;
};

struct FdEvents : EventSource {
    explicit FdEvents(int descriptor) : fd_(descriptor) {}
    int fd() const override { return fd_; }
    void drain() override
    {
        char buffer[4096];
        while (read(fd_, buffer, sizeof buffer) > 0) {
        }
    }
    int fd_;
};

// udev's monitor of the events udevd passes on once its rules ran ("udev"),
// or, where no udevd runs (containers, minimal systems), of the kernel's own
// uevents ("kernel"): sysfs is complete when the kernel sends them, and a
// rescan reads nothing else. Listening needs no privilege either way.
struct UdevMonitor : EventSource {
    udev *context = nullptr;
    udev_monitor *monitor = nullptr;
    ~UdevMonitor() override
    {
        if (monitor != nullptr)
            udev_monitor_unref(monitor);
        if (context != nullptr)
            udev_unref(context);
    }
    bool open(const char *source)
    {
        context = udev_new();
        if (context == nullptr)
            return false;
        monitor = udev_monitor_new_from_netlink(context, source);
        if (monitor == nullptr)
            return false;
        for (const char *subsystem : {"block", "scsi", "nvme", "enclosure"})
            udev_monitor_filter_add_match_subsystem_devtype(monitor, subsystem, nullptr);
        return udev_monitor_enable_receiving(monitor) == 0;
    }
    int fd() const override { return monitor ? udev_monitor_get_fd(monitor) : -1; }
    // Reads every event waiting.
    void drain() override
    {
        while (udev_device *d = udev_monitor_receive_device(monitor))
            udev_device_unref(d);
    }
};

class Source {
  public:
    explicit Source(LiveOptions options) : options_(std::move(options)) {}
    ~Source() { stop(); }

    bool start(std::string *error)
    {
        if (!root_.open(options_.root, error))
            return false;
        wake_ = rt::UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (!wake_) {
            *error = std::string("eventfd: ") + std::strerror(errno);
            return false;
        }
        if (!rescan(error))
            return false;
        if (options_.eventFdForTesting >= 0) {
            udev_ = std::make_unique<FdEvents>(options_.eventFdForTesting);
            events_ = "test";
        } else if (options_.udev && root_.isSystemRoot()) {
            const char *source = root_.exists("/run/udev/control") ? "udev" : "kernel";
            auto monitor = std::make_unique<UdevMonitor>();
            if (monitor->open(source)) {
                udev_ = std::move(monitor);
                events_ = source;
            } else {
                rt::logWarning("live source: udev events cannot be received; rescanning every "
                               "%g s only",
                               options_.intervalSeconds);
            }
        }
        thread_ = std::thread([this] { run(); });
        return true;
    }

    void stop()
    {
        if (!thread_.joinable())
            return;
        stopping_.store(true);
        poke();
        thread_.join();
    }

    void poke()
    {
        uint64_t one = 1;
        [[maybe_unused]] ssize_t n = write(wake_.get(), &one, sizeof one);
    }

    void requestRescan()
    {
        rescanAsked_.store(true);
        poke();
    }

    // One scan, compare, swap and queue; every scan after the first is one
    // line in the host's log, saying `cause`. Thread: the live source's, or
    // the starting thread before it runs.
    bool rescan(std::string *error, const std::string &cause = kAsked)
    {
        std::lock_guard serial(rescanMutex_);
        const auto begin = Clock::now();
        LiveScan scan;
        ScanOptions scanOptions;
        // A rescan asked for (SIGHUP, kelpctl, the first) asks every drive anew.
        scanOptions.healthMaxAgeSeconds = cause == kAsked ? 0 : options_.healthIntervalSeconds;
        scanMachine(root_, &scan, scanOptions);
        const std::string origin = "live " + root_.root();
        std::optional<ds::ModelData> before;
        if (served_)
            before = served_->data();
        ds::ModelData data = maker_.make(scan, before ? &*before : nullptr, origin);
        before.reset();
        std::shared_ptr<const ds::Model> next = ds::Model::build(std::move(data), error);
        if (next == nullptr) {
            rt::logError("live source: the scan of %s makes no valid model: %s",
                         root_.root().c_str(), error->c_str());
            return false;
        }
        // The events are made while both models are at hand; the old one is
        // let go before the swap, which frees it.
        std::vector<std::string> events;
        RescanReport report;
        const bool reported = served_ != nullptr;
        if (served_) {
            events = changeEvents(*served_, *next);
            report.before = countTypes(*served_);
            report.after = countTypes(*next);
        }
        served_.reset();
        ds::serveLiveModel(next);
        served_ = std::move(next);
        if (!events.empty()) {
            std::string queueError;
            if (!ev::queueEvents(events, &queueError)) {
                rt::logWarning("live source: %zu events not queued: %s", events.size(),
                               queueError.c_str());
                report.queueError = queueError;
            }
        }
        const double ms = std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
        if (reported) {
            for (const std::string &text : events) {
                uint32_t id = 0;
                if (eventIdOf(text, &id))
                    report.events.push_back(id);
            }
            report.cause = cause;
            report.ms = ms;
            const std::string line = rescanLine(report);
            if (rescanChanged(report))
                rt::logNotice("%s", line.c_str());
            else
                rt::logInfo("%s", line.c_str());
        }
        {
            std::lock_guard lock(statusMutex_);
            status_.running = true;
            status_.root = root_.root();
            status_.components = scan.components;
            status_.udev = udev_ != nullptr;
            status_.events = events_;
            status_.scans++;
            status_.lastScanMs = ms;
            status_.notes = scan.notes;
        }
        return true;
    }

    LiveStatus status()
    {
        std::lock_guard lock(statusMutex_);
        LiveStatus s = status_;
        s.udev = udev_ != nullptr;
        s.events = events_;
        return s;
    }

  private:
    void run()
    {
        const auto interval = std::chrono::milliseconds(
            static_cast<long long>(std::llround(options_.intervalSeconds * 1000)));
        auto due = Clock::now() + interval;
        while (!stopping_.load()) {
            pollfd fds[2] = {{wake_.get(), POLLIN, 0}, {udev_ ? udev_->fd() : -1, POLLIN, 0}};
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(due - Clock::now());
            const int timeout = static_cast<int>(std::max<long long>(0, left.count()));
            int ready = poll(fds, udev_ ? 2 : 1, timeout);
            if (stopping_.load())
                break;
            bool now = ready == 0 || Clock::now() >= due;
            std::string cause = now ? periodCause() : "";
            if (ready > 0 && (fds[0].revents & POLLIN)) {
                uint64_t count = 0;
                [[maybe_unused]] ssize_t n = read(wake_.get(), &count, sizeof count);
                if (rescanAsked_.exchange(false)) {
                    now = true;
                    cause = kAsked;
                }
            }
            if (ready > 0 && udev_ && (fds[1].revents & POLLIN)) {
                udev_->drain();
                waitForQuiet();
                now = true;
                cause = events_ + " device events";
            }
            if (!now || stopping_.load())
                continue;
            std::string error;
            rescan(&error, cause);
            due = Clock::now() + interval;
        }
    }

    std::string periodCause() const
    {
        char text[48];
        std::snprintf(text, sizeof text, "every %g s", options_.intervalSeconds);
        return text;
    }

    // Lets a burst of udev events end before the rescan it causes.
    void waitForQuiet()
    {
        live::waitForQuiet(
            udev_->fd(), [this] { udev_->drain(); },
            std::chrono::duration_cast<std::chrono::milliseconds>(kQuietAfterBurst),
            std::chrono::duration_cast<std::chrono::milliseconds>(kLongestBurst), stopping_);
    }

    // What an event's first insert names: the object's numbers as its
    // display name gives them, without the kind the message already says
    // ("0:0:4" of "Physical Disk 0:0:4").
    static std::vector<std::string> changeEvents(const ds::Model &before, const ds::Model &after)
    {
        const ChangeSet set = findChanges(before, after);
        std::vector<std::string> texts;
        if (set.setChanged) {
            texts.push_back(ctl::eventXml(ctl::kRescanStartedEvent, {}, {}, {}));
            texts.push_back(ctl::eventXml(ctl::kRescanCompletedEvent, {}, {}, {}));
        }
        for (const Change &c : set.changes) {
            const ds::Model &m = c.fromBefore ? before : after;
            std::vector<std::pair<std::string, std::string>> fields;
            ds::eventFieldsIn(m, c.position, &fields);
            // The status the object had before the change.
            if (!c.fromBefore) {
                if (auto old = before.findByNexus(m.typeOf(c.position), *m.nexusOf(c.position))) {
                    if (auto s = before.attribute(*old, "ObjStatus"))
                        fields.emplace_back("PreviousStatus", *s);
                }
            }
            std::vector<std::string> parms = {ds::eventInsertName(m, c.position)};
            parms.insert(parms.end(), c.parms.begin(), c.parms.end());
            texts.push_back(ctl::eventXml(c.event, fields, parms, {}));
        }
        return texts;
    }

    LiveOptions options_;
    SysRoot root_;
    LiveModelMaker maker_;
    std::shared_ptr<const ds::Model> served_; // the model this source served last
    rt::UniqueFd wake_;
    std::unique_ptr<EventSource> udev_; // null: the period alone
    std::string events_;                // what udev_ listens to: "udev", "kernel", "test"
    std::thread thread_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> rescanAsked_{false};
    std::mutex rescanMutex_; // one rescan at a time: guards maker_ and served_
    std::mutex statusMutex_;
    LiveStatus status_; // guarded by statusMutex_
};

std::mutex g_sourceMutex;
std::unique_ptr<Source> g_source; // guarded by g_sourceMutex

} // namespace

bool startLive(const LiveOptions &options, std::string *error)
{
    std::lock_guard lock(g_sourceMutex);
    if (g_source) {
        *error = "a live source already runs";
        return false;
    }
    auto source = std::make_unique<Source>(options);
    if (!source->start(error))
        return false;
    g_source = std::move(source);
    return true;
}

void stopLive()
{
    std::unique_ptr<Source> source;
    {
        std::lock_guard lock(g_sourceMutex);
        source = std::move(g_source);
    }
    source.reset();
}

bool requestLiveRescan()
{
    std::lock_guard lock(g_sourceMutex);
    if (!g_source)
        return false;
    g_source->requestRescan();
    return true;
}

LiveStatus liveStatus()
{
    std::lock_guard lock(g_sourceMutex);
    return g_source ? g_source->status() : LiveStatus();
}

std::atomic<double> g_healthInterval{LiveOptions().healthIntervalSeconds};

bool rescanNowForTesting()
{
    std::lock_guard lock(g_sourceMutex);
    std::string error;
    return g_source && g_source->rescan(&error);
}

} // namespace kelp::live

extern "C" void kelpRuntimeSetLiveHealthInterval(double seconds)
{
    if (seconds >= 0)
        kelp::live::g_healthInterval.store(seconds);
}

extern "C" int kelpRuntimeStartLive(const char *root, double intervalSeconds, char *error,
                                    unsigned errorSize)
{
    std::string message;
    bool ok = false;
    try {
        if (root == nullptr || root[0] == '\0')
            message = "no live root named";
        else if (!(intervalSeconds > 0))
            message = "the live interval must be above 0 seconds";
        else {
            kelp::live::LiveOptions options{root, intervalSeconds, true, -1};
            options.healthIntervalSeconds = kelp::live::g_healthInterval.load();
            ok = kelp::live::startLive(options, &message);
        }
    } catch (const std::exception &e) {
        message = e.what();
    }
    kelp::rt::copyToBuffer(ok ? std::string_view() : message, error, errorSize);
    return ok ? 0 : 1;
}

extern "C" int kelpRuntimeLiveRescan(void)
{
    return kelp::live::requestLiveRescan() ? 0 : 1;
}

extern "C" void kelpRuntimeStopLive(void)
{
    kelp::live::stopLive();
}

extern "C" void kelpRuntimeLiveSummary(char *summary, unsigned size)
{
    std::string line;
    try {
        const kelp::live::LiveStatus live = kelp::live::liveStatus();
        const kelp::ds::ModelStatus model = kelp::ds::modelStatus();
        if (!live.running) {
            line = "no live source";
        } else {
            line = "live " + live.root + ":";
            for (const auto &[type, count] : model.counts) {
                if (count != 0)
                    line += " " + std::to_string(count) + " " + type + ",";
            }
            if (line.back() == ',')
                line.pop_back();
            line += "; " + live.components + "; " + std::to_string(live.notes.size()) +
                    " notes; udev " + (live.udev ? "on (" + live.events + " events)" : "off");
        }
    } catch (const std::exception &) {
        line = "out of memory";
    }
    kelp::rt::copyToBuffer(line, summary, size);
}
