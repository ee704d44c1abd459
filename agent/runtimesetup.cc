// Runtime configuration of the agent.
#include "runtimesetup.h"

#include "kelp/runtime.h"
#include "log.h"
#include "queue.h"

namespace kelp::agent {
namespace {

constexpr const char *kIniSection = "general";
constexpr const char *kDebugKey = "DebugSNMP";

std::optional<std::string> iniValue(const char *section, const char *key)
{
    char value[256];
    uint32_t size = sizeof value;
    if (SSGetPrivateIniValue(section, key, value, &size) != 0) {
        return std::nullopt;
    }
    return std::string(value);
}

} // namespace

RuntimeSetup::~RuntimeSetup()
{
    release();
}

bool RuntimeSetup::apply(const Options &options, std::string *error)
{
    kelpRuntimeSetIniPath(options.ini.c_str());
    // Always the state dir, so that debug lines switched on in the ini file
    // land there too rather than in the module's DebugPath.
    const std::string debugFile = options.stateDir + "/debug.log";
    kelpRuntimeSetDebugFile(debugFile.c_str());
    if (options.debug) {
        previousDebug_ = iniValue(kIniSection, kDebugKey);
        if (SSSetPrivateIniValue(kIniSection, kDebugKey, "On") != 0) {
            *error = "cannot set DebugSNMP=On in " + options.ini;
            return false;
        }
        debugSet_ = true;
        logLine("debug printing on, into %s", debugFile.c_str());
    }

    char message[1024];
    if (kelpRuntimeLoadModel(options.model.c_str(), message, sizeof message) != 0) {
        *error = std::string("the model does not load: ") + message;
        return false;
    }
    logLine("serving the model %s", options.model.c_str());
    if (kelpRuntimeStartControl(options.control.c_str(), message, sizeof message) != 0) {
        *error = std::string("the control socket does not start: ") + message;
        return false;
    }
    controlStarted_ = true;
    logLine("control socket %s", options.control.c_str());
    return true;
}

void RuntimeSetup::release()
{
    if (controlStarted_) {
        kelpRuntimeStopControl();
        controlStarted_ = false;
    }
    if (debugSet_) {
        // The store has no removal: a key that was absent becomes Off,
        // which reads the same.
        SSSetPrivateIniValue(kIniSection, kDebugKey,
                             previousDebug_ ? previousDebug_->c_str() : "Off");
        debugSet_ = false;
    }
}

} // namespace kelp::agent
