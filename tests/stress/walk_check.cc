#include "walk_check.h"

#include <algorithm>
#include <cstdio>

namespace kelp::stress {

namespace {

bool below(const Name &root, const Name &name)
{
    return name.size() > root.size() && std::equal(root.begin(), root.end(), name.begin());
}

// The value's type and its length, for a message (the bytes need not be
// printable).
std::string valueText(const std::string &value)
{
    if (value.empty()) {
        return "(none)";
    }
    char text[48];
    std::snprintf(text, sizeof text, "type 0x%02x, %zu bytes", static_cast<unsigned char>(value[0]),
                  value.size() - 1);
    return text;
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

bool Reference::addState(const StateWalk &walk)
{
    for (size_t i = 0; i < walk.size(); i++) {
        if (!below(root_, walk[i].name) || (i > 0 && !(walk[i - 1].name < walk[i].name))) {
            return false;
        }
    }
    for (const Binding &binding : walk) {
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

std::vector<Name> Reference::names() const
{
    std::vector<Name> names;
    names.reserve(served_.size());
    for (const auto &entry : served_) {
        names.push_back(entry.first);
    }
    return names;
}

std::string Reference::checkValue(const Binding &binding) const
{
    const auto found = served_.find(binding.name);
    if (found == served_.end()) {
        return nameText(binding.name) + " is served by no state";
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
        previous = &binding.name;
        if (std::string why = checkValue(binding); !why.empty()) {
            fault(why);
        }
    }
    if (end != WalkEnd::kPastTree) {
        return faults;
    }
    // A name every state serves existed throughout the walk: a walk that
    // answered past it must have shown it.
    auto next = walk.begin();
    for (const auto &[name, served] : served_) {
        if (served.states != states_) {
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
