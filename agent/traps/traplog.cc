// A trap's log line from its bindings.
#include "traps/traplog.h"

#include <algorithm>
#include <iterator>

#include "traps/trapnames.h"

namespace kelp::agent {
namespace {

// The trap bindings a log line reads: root.200.N.0.
enum Binding : uint32_t {
    kEventNumber = 1,
    kMessage = 2,
    kLocation1 = 3,
    kLocation2 = 4,
    kRow = 5,
    kNexus = 6,
};

// What the plug-in puts in a text binding it has nothing for.
constexpr const char *kUnknown = "UNKNOWN";

// RFC 1157's generic traps, by number.
constexpr const char *kGenericNames[] = {
    "coldStart", "warmStart", "linkDown", "linkUp", "authenticationFailure", "egpNeighborLoss"};

const Value *bindingOf(const Trap &trap, uint32_t n)
{
    for (const TrapBinding &binding : trap.bindings) {
        const size_t prefix = std::size(kTrapEnterprise);
        if (binding.name.size() == prefix + 2 &&
            std::equal(std::begin(kTrapEnterprise), std::end(kTrapEnterprise),
                       binding.name.begin()) &&
            binding.name[prefix] == n && binding.name[prefix + 1] == 0) {
            return &binding.value;
        }
    }
    return nullptr;
}

std::string oneLine(const std::string &text)
{
    std::string out = text;
    for (char &c : out) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) {
            c = '?';
        }
    }
    return out;
}

// The binding's text, or "" when the trap has no such text binding.
std::string textOf(const Trap &trap, uint32_t n)
{
    const Value *value = bindingOf(trap, n);
    return value != nullptr && value->shape == ValueShape::kBytes ? oneLine(value->bytes) : "";
}

std::string dotted(const std::vector<uint32_t> &arcs)
{
    std::string text;
    for (const uint32_t arc : arcs) {
        text += (text.empty() ? "" : ".") + std::to_string(arc);
    }
    return text;
}

} // namespace

std::string trapLogLine(const Trap &trap, const std::vector<std::string> &destinations)
{
    const bool ours = std::equal(trap.enterprise.begin(), trap.enterprise.end(),
                                 std::begin(kTrapEnterprise), std::end(kTrapEnterprise));
    std::string line = "trap ";
    if (trap.generic < std::size(kGenericNames)) {
        line += kGenericNames[trap.generic];
    } else if (ours && trap.generic == 6) {
        line += std::to_string(trap.specific);
        if (const char *name = trapName(trap.specific)) {
            line += std::string(" ") + name;
        }
    } else {
        line += "enterprise " + dotted(trap.enterprise) + " generic " +
                std::to_string(trap.generic) + " specific " + std::to_string(trap.specific);
    }
    const Value *event = bindingOf(trap, kEventNumber);
    const std::string message = textOf(trap, kMessage);
    if (event != nullptr && event->shape != ValueShape::kBytes) {
        line += " (event " + std::to_string(event->integer) +
                (message.empty() ? "" : ": " + message) + ")";
    } else if (!message.empty()) {
        line += " (" + message + ")";
    }
    if (const std::string nexus = textOf(trap, kNexus); !nexus.empty()) {
        line += " object " + nexus;
    }
    if (const std::string row = textOf(trap, kRow); !row.empty() && row != kUnknown) {
        line += " row " + row;
    }
    std::string at;
    for (const uint32_t n : {kLocation1, kLocation2}) {
        if (const std::string location = textOf(trap, n);
            !location.empty() && location != kUnknown) {
            at += (at.empty() ? " at \"" : ", \"") + location + "\"";
        }
    }
    line += at;
    if (destinations.empty()) {
        return line + " sent nowhere";
    }
    line += " sent to ";
    for (size_t i = 0; i < destinations.size(); i++) {
        line += (i > 0 ? ", " : "") + destinations[i];
    }
    return line;
}

} // namespace kelp::agent
