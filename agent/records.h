// The request and reply records the agent hands to commands 9 and 10 (and
// the request of command 11), with the memory behind them. The reply's buffers are the agent's; a
// value buffer the plug-in puts in their place is the plug-in's and goes back through SMFreeMem.
#ifndef KELP_AGENT_RECORDS_H
#define KELP_AGENT_RECORDS_H

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "fixed_name.h"
#include "platform/smsnmp.h"
#include "value.h"

namespace kelp::agent {

// A request record naming one object. The arcs are the record's own.
class RequestRecord {
  public:
    // nullopt when an arc does not fit the record's 32 bits, or the name is
    // longer than a PluginName: such a name cannot be in the plug-in's tree.
    static std::optional<RequestRecord> fromName(std::span<const uint64_t> name);
    explicit RequestRecord(const PluginName &arcs);
    RequestRecord(RequestRecord &&other) noexcept;
    RequestRecord &operator=(RequestRecord &&other) noexcept;
    RequestRecord(const RequestRecord &) = delete;
    RequestRecord &operator=(const RequestRecord &) = delete;

    SMSnmpValue *record() { return &record_; }
    std::span<const uint32_t> name() const { return arcs_.span(); }

  private:
    void pointAtArcs();

    PluginName arcs_;
    SMSnmpValue record_{};
};

// A reply record: a name buffer of kNameArcs arcs (count 0), a value buffer
// of kValueBytes bytes whose capacity is in field 20, type 0 (nothing
// answered). Neither copyable nor movable: the record points into itself.
class ReplyRecord {
  public:
    static constexpr uint32_t kNameArcs = PluginName::kCapacity;
    static constexpr uint32_t kValueBytes = 1024;
    // What is read at most from a value buffer the plug-in supplied: it
    // promises at least kValueBytes, and no value of the MIB is longer.
    static constexpr size_t kForeignReadable = kValueBytes;

    ReplyRecord();
    ~ReplyRecord();
    // Presets the record as a new one is, after the value buffer the plug-in
    // put in, if any, is released. The buffers keep their bytes: a record
    // reused this way shows a plug-in at most an earlier reply of its own.
    void reset();
    ReplyRecord(const ReplyRecord &) = delete;
    ReplyRecord &operator=(const ReplyRecord &) = delete;

    SMSnmpValue *record() { return &record_; }

    // The name the plug-in wrote, or nullopt when the record no longer
    // points at the agent's name buffer or claims more arcs than it holds.
    std::optional<std::span<const uint32_t>> name() const;
    // The value, read from whichever buffer the record points at.
    ValueRead readValue(Value *out) const;
    // True when the plug-in replaced the value buffer with one of its own.
    bool holdsForeignBuffer() const;

  private:
    void preset();

    std::array<uint32_t, kNameArcs> arcs_{};
    std::array<unsigned char, kValueBytes> bytes_{};
    SMSnmpValue record_{};
};

} // namespace kelp::agent

#endif // KELP_AGENT_RECORDS_H
