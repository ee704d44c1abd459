// Request and reply records of commands 9 and 10.
#include "records.h"

#include <limits>

#include "vcsupt.h"

namespace kelp::agent {

std::optional<RequestRecord> RequestRecord::fromName(std::span<const uint64_t> name)
{
    if (name.size() > PluginName::kCapacity) {
        return std::nullopt;
    }
    for (const uint64_t arc : name) {
        if (arc > std::numeric_limits<uint32_t>::max()) {
            return std::nullopt;
        }
    }
    PluginName arcs;
    arcs.assign(name);
    return RequestRecord(arcs);
}

RequestRecord::RequestRecord(const PluginName &arcs) : arcs_(arcs)
{
    pointAtArcs();
}

RequestRecord::RequestRecord(RequestRecord &&other) noexcept : arcs_(other.arcs_)
{
    pointAtArcs();
    other.pointAtArcs();
}

RequestRecord &RequestRecord::operator=(RequestRecord &&other) noexcept
{
    arcs_ = other.arcs_;
    pointAtArcs();
    other.pointAtArcs();
    return *this;
}

void RequestRecord::pointAtArcs()
{
    record_ = SMSnmpValue{};
    record_.name.count = static_cast<uint32_t>(arcs_.size());
    record_.name.arcs = arcs_.empty() ? nullptr : arcs_.data();
}

ReplyRecord::ReplyRecord()
{
    preset();
}

ReplyRecord::~ReplyRecord()
{
    if (holdsForeignBuffer()) {
        SMFreeMem(record_.buffer);
    }
}

void ReplyRecord::reset()
{
    if (holdsForeignBuffer()) {
        SMFreeMem(record_.buffer);
    }
    preset();
}

void ReplyRecord::preset()
{
    record_ = SMSnmpValue{};
    record_.name.arcs = arcs_.data();
    record_.value = kValueBytes;
    record_.buffer = bytes_.data();
}

bool ReplyRecord::holdsForeignBuffer() const
{
    // Integer answers clear the pointer; null is nobody's buffer.
    return record_.buffer != nullptr && record_.buffer != bytes_.data();
}

std::optional<std::span<const uint32_t>> ReplyRecord::name() const
{
    if (record_.name.arcs != arcs_.data() || record_.name.count > kNameArcs) {
        return std::nullopt;
    }
    return std::span<const uint32_t>(arcs_.data(), record_.name.count);
}

ValueRead ReplyRecord::readValue(Value *out) const
{
    return kelp::agent::readValue(record_, holdsForeignBuffer() ? kForeignReadable : kValueBytes,
                                  out);
}

} // namespace kelp::agent
