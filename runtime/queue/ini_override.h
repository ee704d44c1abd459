// Values a host puts in place of the private ini store's
// (kelpRuntimeSetIniOverride): reads answer them, nothing writes them, so a
// start option such as a debug switch never outlives the process in the file.
#ifndef KELP_RUNTIME_QUEUE_INI_OVERRIDE_H
#define KELP_RUNTIME_QUEUE_INI_OVERRIDE_H

#include <optional>
#include <string>
#include <string_view>

namespace kelp::rt::ini {

// The override of section/key (names compared without regard to ASCII
// case), or nullopt. Safe from any thread.
std::optional<std::string> overrideOf(std::string_view section, std::string_view key);

} // namespace kelp::rt::ini

#endif // KELP_RUNTIME_QUEUE_INI_OVERRIDE_H
