// Runtime configuration of the agent.
#include "runtimesetup.h"

#include <exception>
#include <new>
#include <string_view>

#include "blockedalerts.h"
#include "kelp/runtime.h"
#include "log.h"
#include "notify.h"
#include "platform/queue.h"
#include "snmpagent.h"

namespace kelp::agent {
namespace {

constexpr const char *kIniSection = "general";
constexpr const char *kDebugKey = "DebugSNMP";
constexpr const char *kEventSection = "vcsipe";
constexpr const char *kBlockedKey = "BlockedAlerts";

// The runtime's warnings and errors, in the agent's log.
void logRuntimeLine(int level, const char *line)
{
    logAt(level == KELP_RUNTIME_LOG_ERROR ? LogLevel::kError : LogLevel::kWarning, "%s", line);
}

// Why a blocked rescan event cannot be served.
std::string blockedRescanError(const std::string &ini, uint32_t event)
{
    return "the ini file " + ini + " blocks event " + std::to_string(event) +
           (event == 3061 ? " (rescan started)" : " (rescan completed)") + " in " + kEventSection +
           "/" + kBlockedKey +
           ": the plug-in would never see a rescan end and would keep its tables locked; "
           "remove it from the list";
}

// Checks the ini file in force: false with a message naming it when it
// cannot serve as the store (not a regular file, too large, unreadable).
bool checkIni(std::string *error)
{
    char message[1024];
    if (kelpRuntimeCheckIni(message, sizeof message) != 0) {
        *error = std::string("the ini file cannot be used: ") + message;
        return false;
    }
    return true;
}

// What the runtime did (control commands that changed the model, live
// rescans), in the agent's log.
void logRuntimeActivity(int level, const char *line)
{
    logAt(level == KELP_RUNTIME_LOG_NOTICE ? LogLevel::kNotice : LogLevel::kInfo, "%s", line);
    // A kelpctl load may have changed the model file the status names.
    notifyServedModelSoon();
    SnmpAgent::wake();
}

// Whether the store's "DebugSNMP" switches printing on, compared as the
// plug-in compares it at load: "On" in any letter case. A missing key is
// off (the plug-in writes it back as "Off" at load; a reload writes nothing).
bool debugSnmpOn(std::string *value)
{
    char buffer[260] = "";
    uint32_t size = sizeof buffer;
    if (SSGetPrivateIniValue(kIniSection, kDebugKey, buffer, &size) != 0) {
        *value = "(not set)";
        return false;
    }
    buffer[sizeof buffer - 1] = '\0';
    *value = buffer;
    auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
    return lower(buffer[0]) == 'o' && lower(buffer[1]) == 'n' && buffer[2] == '\0';
}

} // namespace

RuntimeSetup::~RuntimeSetup()
{
    release();
}

bool RuntimeSetup::apply(const Options &options, std::string *error)
{
    options_ = options;
    kelpRuntimeHoldEvents(0);
    kelpRuntimeSetLog(logRuntimeLine);
    kelpRuntimeSetActivityLog(logRuntimeActivity);
    kelpRuntimeSetIniPath(options.ini.c_str());
    // The store answers nothing from a file it cannot read, and never
    // replaces it: the plug-in runs on its defaults, as with no file.
    if (std::string unreadable; !checkIni(&unreadable)) {
        logAt(LogLevel::kWarning, "%s; the plug-in's defaults apply until it can be read",
              unreadable.c_str());
    }
    if (options.rescanTimeout > 0) {
        kelpRuntimeSetRescanTimeout(options.rescanTimeout);
    }
    if (const std::optional<uint32_t> event = blockedRescanEventInStore(&blockedAlerts_)) {
        *error = blockedRescanError(options.ini, *event);
        return false;
    }
    // Without its catalogue the plug-in would drop every storage trap.
    char catalogue[1024];
    if (kelpRuntimeCatalogueStatus(catalogue, sizeof catalogue) != 0) {
        *error = std::string("the alert catalogue cannot be used: ") + catalogue;
        return false;
    }
    // Always the state dir, so that debug lines switched on in the ini file
    // land there too rather than in the module's DebugPath.
    debugFile_ = options.stateDir + "/" + std::string(kStateDebugLog);
    const std::string &debugFile = debugFile_;
    kelpRuntimeSetDebugFile(debugFile.c_str());
    if (options.debug) {
        // The store answers On for the run without writing the file, so a
        // crash leaves the user's file as it was.
        if (kelpRuntimeSetIniOverride(kIniSection, kDebugKey, "On") != 0) {
            *error = "cannot switch debug printing on";
            return false;
        }
        debugSet_ = true;
        logLine("debug printing on, into %s", debugFile.c_str());
    }

    char message[1024];
    if (options.live) {
        kelpRuntimeSetLiveHealthInterval(options.liveHealthInterval);
        if (kelpRuntimeStartLive(options.liveRoot.c_str(), options.liveInterval, message,
                                 sizeof message) != 0) {
            *error = std::string("the live source does not start: ") + message;
            return false;
        }
        liveStarted_ = true;
        char summary[1024];
        kelpRuntimeLiveSummary(summary, sizeof summary);
        logLine("serving the storage %s: %s (rescan every %g s)",
                options.liveRoot == "/" ? "of this machine" : "of a captured tree", summary,
                options.liveInterval);
    } else {
        if (kelpRuntimeLoadModel(options.model.c_str(), message, sizeof message) != 0) {
            *error = std::string("the model does not load: ") + message;
            return false;
        }
        logLine("serving the model %s", options.model.c_str());
    }
    if (kelpRuntimeStartControl(options.control.c_str(), message, sizeof message) != 0) {
        *error = std::string("the control socket does not start: ") + message;
        // A socket that answers is most often a second agent's; any other
        // failure names its own cause.
        if (std::string_view(message).starts_with("another server is listening")) {
            *error += " (is another kelpagent answering on it? give each agent its own "
                      "--control)";
        }
        return false;
    }
    controlStarted_ = true;
    logLine("control socket %s", options.control.c_str());
    return true;
}

void RuntimeSetup::stopControl()
{
    if (controlStarted_) {
        kelpRuntimeStopControl();
        controlStarted_ = false;
    }
}

void RuntimeSetup::holdEvents()
{
    kelpRuntimeHoldEvents(1);
}

void RuntimeSetup::release()
{
    if (reloadThread_.joinable()) {
        reloadThread_.join();
    }
    stopControl();
    if (liveStarted_) {
        kelpRuntimeStopLive();
        liveStarted_ = false;
    }
    if (debugSet_) {
        kelpRuntimeSetIniOverride(kIniSection, kDebugKey, nullptr);
        debugSet_ = false;
    }
    if (blockedPinned_) {
        kelpRuntimeSetIniOverride(kEventSection, kBlockedKey, nullptr);
        blockedPinned_ = false;
    }
    kelpRuntimeSetLog(nullptr);
    kelpRuntimeSetActivityLog(nullptr);
}

void RuntimeSetup::reload()
{
    std::lock_guard lock(reloadMutex_);
    if (reloadRunning_) {
        reloadAgain_ = true;
        return;
    }
    if (reloadThread_.joinable()) {
        reloadThread_.join(); // the last one has ended
    }
    reloadRunning_ = true;
    try {
        reloadThread_ = std::thread([this] { reloadUntilDone(); });
    } catch (const std::exception &e) {
        reloadRunning_ = false;
        logAt(LogLevel::kError, "SIGHUP: cannot start the reload: %s", e.what());
    }
}

void RuntimeSetup::reloadUntilDone()
{
    notifyReloading("reloading the configuration");
    for (;;) {
        try {
            reloadNow();
        } catch (const std::bad_alloc &) {
            // What reloaded before stays; a later SIGHUP tries again.
            logAt(LogLevel::kError, "SIGHUP: out of memory; the reload stopped where it was");
        }
        std::lock_guard again(reloadMutex_);
        if (!reloadAgain_) {
            reloadRunning_ = false;
            notifyReloaded();
            return;
        }
        reloadAgain_ = false;
    }
}

void RuntimeSetup::reloadNow()
{
    // The store reads the ini file at every look-up, so checking it is
    // re-reading it: the plug-in sees its values from the next look-up on.
    std::string error;
    if (checkIni(&error)) {
        logLine("SIGHUP: re-read the ini file %s", options_.ini.c_str());
        checkBlockedAlerts();
        applyDebugSnmp();
    } else {
        logAt(LogLevel::kError, "SIGHUP: %s", error.c_str());
    }
    reopenDebugFile("SIGHUP");
    char message[1024];
    if (kelpRuntimeReloadCatalogue(message, sizeof message) != 0) {
        logAt(LogLevel::kError,
              "SIGHUP: the alert catalogue does not load: %s; still serving the one loaded "
              "before",
              message);
    } else {
        logLine("SIGHUP: re-read the alert catalogue");
    }
    if (liveStarted_) {
        kelpRuntimeLiveRescan();
        logLine("SIGHUP: rescanning the storage of this machine");
        return;
    }
    // The model served now: the last one kelpctl loaded, else --model.
    char served[4096];
    const std::string model =
        kelpRuntimeServedModelPath(served, sizeof served) == 0 ? served : options_.model;
    if (kelpRuntimeLoadModel(model.c_str(), message, sizeof message) != 0) {
        logAt(LogLevel::kError,
              "SIGHUP: the model does not load: %s; still serving the one loaded before", message);
        return;
    }
    if (kelpRuntimeQueueRescan(message, sizeof message) != 0) {
        logAt(LogLevel::kError,
              "SIGHUP: re-read the model %s, but the rescan events were not queued: %s",
              model.c_str(), message);
        return;
    }
    logLine("SIGHUP: re-read the model %s and queued the rescan events", model.c_str());
}

void RuntimeSetup::applyDebugSnmp()
{
    std::string value;
    const bool on = debugSnmpOn(&value);
    const bool printing = kelpRuntimeDebugPrinting() != 0;
    if (on == printing) {
        return;
    }
    // The plug-in reads DebugSNMP only at load, where it switches the
    // runtime's printer; switching the printer now is what a restart would
    // do, and the plug-in itself is not touched.
    kelpRuntimeSetDebugPrinting(on ? 1 : 0);
    logLine("SIGHUP: DebugSNMP is \"%s\" now: debug printing %s%s", value.c_str(),
            on ? "on, into " : "off", on ? debugFile_.c_str() : "");
}

void RuntimeSetup::reopenDebugFile(const char *why)
{
    if (kelpRuntimeDebugPrinting() == 0) {
        logAt(LogLevel::kInfo, "%s: debug printing is off; no debug file to reopen", why);
        return;
    }
    char message[1024];
    if (kelpRuntimeReopenDebugFile(message, sizeof message) != 0) {
        logAt(LogLevel::kError, "%s: %s", why, message);
        return;
    }
    logAt(LogLevel::kInfo, "%s: reopened the debug file %s", why, debugFile_.c_str());
}

void RuntimeSetup::checkBlockedAlerts()
{
    // The file's own list, without the one pinned at an earlier refusal.
    if (blockedPinned_) {
        kelpRuntimeSetIniOverride(kEventSection, kBlockedKey, nullptr);
        blockedPinned_ = false;
    }
    std::string list;
    if (const std::optional<uint32_t> event = blockedRescanEventInStore(&list)) {
        blockedPinned_ =
            kelpRuntimeSetIniOverride(kEventSection, kBlockedKey, blockedAlerts_.c_str()) == 0;
        logAt(LogLevel::kError, "SIGHUP: refused: %s; the blocked alerts stay \"%s\"",
              blockedRescanError(options_.ini, *event).c_str(), blockedAlerts_.c_str());
        return;
    }
    blockedAlerts_ = list;
}

} // namespace kelp::agent
