// The private ini store's overrides (see ini_override.h) and
// kelpRuntimeSetIniOverride. A host sets a handful at most, so a list is
// searched.
#include "queue/ini_override.h"

#include <mutex>
#include <new>
#include <vector>

#include "kelp/runtime.h"
#include "queue/ini_text.h"
#include "support/text.h"

namespace kelp::rt::ini {
namespace {

struct Override {
    std::string section;
    std::string key;
    std::string value;
};

std::mutex g_overrideMutex;
std::vector<Override> g_overrides; // guarded by g_overrideMutex; written by the host's calls

std::vector<Override>::iterator findLocked(std::string_view section, std::string_view key)
{
    for (auto it = g_overrides.begin(); it != g_overrides.end(); ++it) {
        if (equalsIgnoreCaseAscii(it->section, section) && equalsIgnoreCaseAscii(it->key, key))
            return it;
    }
    return g_overrides.end();
}

} // namespace

std::optional<std::string> overrideOf(std::string_view section, std::string_view key)
{
    std::lock_guard lock(g_overrideMutex);
    auto it = findLocked(section, key);
    if (it == g_overrides.end())
        return std::nullopt;
    return it->value;
}

} // namespace kelp::rt::ini

extern "C" int kelpRuntimeSetIniOverride(const char *section, const char *key, const char *value)
{
    using namespace kelp::rt::ini;
    if (section == nullptr || key == nullptr)
        return 1;
    // An override holds what the file could hold, so that it reads the same
    // as the entry it stands for.
    if (value != nullptr && !writable(section, key, value))
        return 1;
    try {
        std::lock_guard lock(g_overrideMutex);
        auto it = findLocked(section, key);
        if (value == nullptr) {
            if (it != g_overrides.end())
                g_overrides.erase(it);
        } else if (it != g_overrides.end()) {
            it->value = value;
        } else {
            g_overrides.push_back(Override{section, key, value});
        }
        return 0;
    } catch (const std::bad_alloc &) {
        return 1;
    }
}
