// The plug-in as kelpagent meets it: libkelpimp64.so loaded with dlopen,
// started on a copy of the sample model (KELP_MODEL), then driven only
// through its dispatch by a sequence of calls read from the input: any
// command number, any in and out sizes (the buffers are exactly that long),
// request names of any length with any arcs, Get and GetNext in any order,
// and Set with any value. Load, unload and the monitor's start and stop are
// not in the sequence: the host runs them once, around everything else, and
// a monitor started per input would make each run take seconds.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_common.h"
#include "platform/vcsupt.h"
#include "plugin_session.h"

namespace {

using fuzzplugin::kReplyArcs;
using fuzzplugin::kReplyBytes;
using fuzzplugin::kRoot;
using fuzzplugin::kRootArcs;

// The input read from the front, one field after another; past the end
// every field reads as zero. docs/FUZZING.md gives the layout, and
// fuzz/make_dispatch_seeds.py writes inputs in it.
class Reader {
  public:
    Reader(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    bool empty() const { return pos_ >= size_; }
    uint8_t u8() { return pos_ < size_ ? data_[pos_++] : 0; }
    uint32_t u16()
    {
        const uint32_t low = u8();
        return low | uint32_t{u8()} << 8;
    }
    uint32_t u32()
    {
        const uint32_t low = u16();
        return low | u16() << 16;
    }
    std::string bytes(size_t n)
    {
        n = std::min(n, size_ - std::min(pos_, size_));
        std::string text(reinterpret_cast<const char *>(data_ + pos_), n);
        pos_ += n;
        return text;
    }

  private:
    const uint8_t *data_;
    size_t size_;
    size_t pos_ = 0;
};

// The flags byte of a call.
enum : uint8_t {
    kRootFirst = 1,    // the name starts with the MIB root
    kWideArcs = 2,     // arcs are 32 bits each, else 8
    kInSize = 4,       // an in size follows, else the record's
    kOutSize = 8,      // an out size follows, else the record's
    kNullIn = 16,      // a null in-buffer when its size is 0
    kNullOut = 32,     // a null out-buffer when its size is 0
    kStringValue = 64, // Set's value is a string, else a number with its type
    kLongName = 128    // the arc count is 16 bits, else 8
};

// A buffer of exactly `size` bytes starting with `record` (cut when
// shorter), so that a read or write past the size the plug-in was told is
// out of bounds.
std::vector<unsigned char> recordBuffer(const SMSnmpValue &record, uint32_t size)
{
    std::vector<unsigned char> bytes(size);
    if (size == 0) {
        return bytes;
    }
    std::memcpy(bytes.data(), &record, std::min<size_t>(size, sizeof record));
    return bytes;
}

void oneCall(Reader &in)
{
    uint32_t command = in.u8();
    if (command == 0xFF) {
        command = in.u32();
    }
    const uint8_t flags = in.u8();
    if (command == SM_CMD_LOAD || command == SM_CMD_UNLOAD || command == SM_CMD_START_MONITOR ||
        command == SM_CMD_STOP_MONITOR) {
        command = SM_CMD_GETNEXT;
    }
    const uint32_t inSize = (flags & kInSize) != 0 ? in.u8() : uint32_t{sizeof(SMSnmpValue)};
    const uint32_t outSize = (flags & kOutSize) != 0 ? in.u8() : uint32_t{sizeof(SMSnmpValue)};

    std::vector<uint32_t> name;
    if ((flags & kRootFirst) != 0) {
        name.assign(kRoot, kRoot + kRootArcs);
    }
    const uint32_t arcs = (flags & kLongName) != 0 ? in.u16() % 2048 : in.u8();
    for (uint32_t i = 0; i < arcs && !in.empty(); i++) {
        name.push_back((flags & kWideArcs) != 0 ? in.u32() : in.u8());
    }
    SMSnmpValue request{};
    request.name.count = static_cast<uint32_t>(name.size());
    request.name.arcs = name.empty() ? nullptr : name.data();
    std::string text;
    if ((flags & kStringValue) != 0) {
        text = in.bytes(in.u16() % 1500);
        request.type = SM_ASN_OCTET_STRING;
        request.value = static_cast<uint32_t>(text.size());
        request.buffer = text.empty() ? nullptr : text.data();
    } else {
        request.type = in.u8();
        request.value = in.u32();
    }

    std::vector<uint32_t> replyArcs(kReplyArcs);
    std::vector<unsigned char> replyBytes(kReplyBytes);
    SMSnmpValue reply{};
    reply.name.arcs = replyArcs.data();
    reply.value = kReplyBytes;
    reply.buffer = replyBytes.data();

    std::vector<unsigned char> inBuffer = recordBuffer(request, inSize);
    std::vector<unsigned char> outBuffer = recordBuffer(reply, outSize);
    uint32_t used = 0xDEAD;
    const uint32_t status = fuzzplugin::host().call(
        command, inSize == 0 && (flags & kNullIn) != 0 ? nullptr : inBuffer.data(), inSize,
        outSize == 0 && (flags & kNullOut) != 0 ? nullptr : outBuffer.data(), outSize, &used);
    if (outSize < sizeof reply) {
        return;
    }
    std::memcpy(&reply, outBuffer.data(), sizeof reply);
    // What the agent checks of every answer (agent/records.cc), and the
    // plug-in's buffer given back the way the agent gives it back.
    if (status == SM_SNMP_NOERROR && (command == SM_CMD_GET || command == SM_CMD_GETNEXT)) {
        FUZZ_CHECK(reply.name.count <= kReplyArcs);
        if (reply.buffer != nullptr && reply.buffer != replyBytes.data() &&
            reply.type != SM_ASN_INTEGER) {
            // Touch what the agent reads, so that ASan checks it.
            volatile unsigned char sum = 0;
            const auto *bytes = static_cast<const unsigned char *>(reply.buffer);
            for (uint32_t i = 0; i < std::min(reply.value, kReplyBytes); i++) {
                sum = static_cast<unsigned char>(sum + bytes[i]);
            }
        }
    }
    if (reply.buffer != nullptr && reply.buffer != replyBytes.data()) {
        SMFreeMem(reply.buffer);
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzzplugin::start();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    Reader in(data, size);
    for (int calls = 0; calls < 64 && !in.empty(); calls++) {
        oneCall(in);
    }
    return 0;
}
