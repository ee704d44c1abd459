#include "walk_check.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>

namespace kelp::stress {

namespace {

bool below(const Name &root, const Name &name)
{
    return name.size() > root.size() && std::equal(root.begin(), root.end(), name.begin());
}

// The value's type, its length and its first bytes (escaped where not
// printable), for a message.
std::string valueText(const std::string &value)
{
    if (value.empty()) {
        return "(none)";
    }
    char text[48];
    std::snprintf(text, sizeof text,
                  "type 0x%02x, %zu bytes: ", static_cast<unsigned char>(value[0]),
                  value.size() - 1);
    std::string shown = text;
    // Enough of the value to tell one object's from another's.
    constexpr size_t kShown = 40;
    for (size_t i = 1; i < value.size() && i <= kShown; i++) {
        const auto byte = static_cast<unsigned char>(value[i]);
        if (byte >= 0x20 && byte < 0x7f && byte != '\\') {
            shown += static_cast<char>(byte);
        } else {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", byte);
            shown += escaped;
        }
    }
    if (value.size() - 1 > kShown) {
        shown += "...";
    }
    return shown;
}

} // namespace

std::string nameText(const Name &name)
{
    std::string text;
    for (uint32_t arc : name) {
        text += (text.empty() ? "" : ".") + std::to_string(arc);
    }
    return text;
}

bool Reference::addState(const StateWalk &walk, const StateWalk &hidden)
{
    const auto increasing = [this](const StateWalk &bindings) {
        for (size_t i = 0; i < bindings.size(); i++) {
            if (!below(root_, bindings[i].name) ||
                (i > 0 && !(bindings[i - 1].name < bindings[i].name))) {
                return false;
            }
        }
        return true;
    };
    if (!increasing(walk) || !increasing(hidden)) {
        return false;
    }
    std::set<Name> names;
    for (const StateWalk *bindings : {&walk, &hidden}) {
        for (const Binding &binding : *bindings) {
            if (!names.insert(binding.name).second) {
                return false;
            }
        }
    }
    for (const Binding &binding : walk) {
        Served &served = served_[binding.name];
        served.values.insert(binding.value);
        served.states++;
        served.walked++;
    }
    for (const StateWalk *bindings : {&walk, &hidden}) {
        for (const Binding &binding : *bindings) {
            if (binding.name.size() == root_.size() + 5) {
                const Name table(binding.name.begin(),
                                 binding.name.begin() +
                                     static_cast<std::ptrdiff_t>(root_.size() + 2));
                uint32_t &last = lastRow_[table];
                last = std::max(last, binding.name.back());
            }
        }
    }
    for (const Binding &binding : hidden) {
        Served &served = served_[binding.name];
        served.values.insert(binding.value);
        served.states++;
    }
    states_++;
    return true;
}

bool Reference::addRepeat(const StateWalk &first, const StateWalk &second)
{
    if (first.size() != second.size()) {
        return false;
    }
    for (size_t i = 0; i < first.size(); i++) {
        if (first[i].name != second[i].name) {
            return false;
        }
        if (first[i].value != second[i].value) {
            volatile_.insert(first[i].name);
        }
    }
    return true;
}

size_t Reference::alwaysServed() const
{
    return static_cast<size_t>(
        std::count_if(served_.begin(), served_.end(),
                      [this](const auto &entry) { return entry.second.states == states_; }));
}

size_t Reference::hiddenNames() const
{
    return static_cast<size_t>(std::count_if(served_.begin(), served_.end(), [](const auto &entry) {
        return entry.second.walked < entry.second.states;
    }));
}

std::vector<Name> Reference::names() const
{
    std::vector<Name> names;
    names.reserve(served_.size());
    for (const auto &entry : served_) {
        names.push_back(entry.first);
    }
    return names;
}

void Reference::addAppendingTable(uint32_t group, uint32_t table)
{
    Name name = root_;
    name.push_back(group);
    name.push_back(table);
    appending_.insert(name);
}

void Reference::addUncheckedTable(uint32_t group, uint32_t table)
{
    Name name = root_;
    name.push_back(group);
    name.push_back(table);
    unchecked_.insert(name);
}

bool Reference::appendedRow(const Name &name) const
{
    if (name.size() != root_.size() + 5 || !below(root_, name)) {
        return false;
    }
    const Name table(name.begin(), name.begin() + static_cast<std::ptrdiff_t>(root_.size() + 2));
    if (appending_.count(table) == 0) {
        return false;
    }
    const auto last = lastRow_.find(table);
    return name.back() > (last == lastRow_.end() ? 0 : last->second);
}

std::string Reference::checkValue(const Binding &binding) const
{
    if (binding.name.size() > root_.size() + 2 &&
        unchecked_.count(
            Name(binding.name.begin(),
                 binding.name.begin() + static_cast<std::ptrdiff_t>(root_.size() + 2))) != 0) {
        return {};
    }
    const auto found = served_.find(binding.name);
    if (found == served_.end()) {
        if (appendedRow(binding.name)) {
            return {};
        }
        return nameText(binding.name) + " is served by no state (" + valueText(binding.value) + ")";
    }
    const std::set<std::string> &values = found->second.values;
    if (values.count(binding.value) != 0) {
        return {};
    }
    if (volatile_.count(binding.name) != 0 && !binding.value.empty() &&
        binding.value[0] == values.begin()->front()) {
        return {};
    }
    return nameText(binding.name) + " holds a value no state holds there (" +
           valueText(binding.value) + ")";
}

std::string Reference::checkAbsent(const Name &name) const
{
    const auto found = served_.find(name);
    if (found != served_.end() && found->second.states == states_) {
        return nameText(name) + " is served by every state but was answered as absent";
    }
    return {};
}

std::vector<std::string> Reference::checkWalk(const std::vector<Binding> &walk, WalkEnd end,
                                              size_t limit) const
{
    std::vector<std::string> faults;
    const auto fault = [&](std::string what) {
        if (faults.size() < limit) {
            faults.push_back(std::move(what));
        }
    };
    const Name *previous = &root_;
    for (const Binding &binding : walk) {
        if (!below(root_, binding.name)) {
            fault(nameText(binding.name) + " is outside the tree");
            continue;
        }
        if (!(*previous < binding.name)) {
            fault(nameText(binding.name) + " follows " + nameText(*previous));
        }
        if (std::string why = checkValue(binding); !why.empty()) {
            fault(why + ", after " + nameText(*previous));
        }
        previous = &binding.name;
    }
    if (end != WalkEnd::kPastTree) {
        return faults;
    }
    // A name every state serves, and shows in its walk, existed throughout
    // the walk: a walk that answered past it must have shown it.
    auto next = walk.begin();
    for (const auto &[name, served] : served_) {
        if (served.walked != states_) {
            continue;
        }
        while (next != walk.end() && next->name < name) {
            ++next;
        }
        if (next == walk.end() || next->name != name) {
            fault("the walk skipped " + nameText(name) + ", which every state serves");
        }
    }
    return faults;
}

} // namespace kelp::stress
