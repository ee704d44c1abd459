// One SCSI command through SG_IO, and what came back: the data, the sense
// data, and a failure in words. Shared by the readers of SES pages and of
// a drive's health.
#ifndef KELP_RUNTIME_DATASTORE_LIVE_SGIO_H
#define KELP_RUNTIME_DATASTORE_LIVE_SGIO_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kelp::live {

inline constexpr unsigned kSenseIllegalRequest = 0x5;

// `value` in lower-case hex, zero-padded to `digits`.
std::string hexText(uint32_t value, int digits);

struct Sense {
    unsigned key, asc, ascq;
};

// The sense key and additional sense code of fixed (0x70, 0x71) or
// descriptor (0x72, 0x73) format sense data.
std::optional<Sense> parseSense(std::string_view sense);

struct ScsiOutcome {
    bool sent = false;   // the ioctl went through; else *error says why
    bool ok = false;     // the command completed without error
    size_t got = 0;      // bytes read into the data buffer
    std::string sense;   // the sense data returned, whatever the status
    std::string failure; // for !ok: "SCSI status 0x02, host status 0x00, driver
                         // status 0x08, sense key ILLEGAL REQUEST, asc/ascq 0x24/0x00"
};

// Sends the command block cdb on fd (an sg node, or a block device), reading
// up to `length` bytes into data (nothing when length is 0), waiting at most
// timeoutMs. *error is set only when the ioctl itself fails ("SG_IO: ...").
ScsiOutcome sendScsi(int fd, const uint8_t *cdb, size_t cdbLength, uint8_t *data, size_t length,
                     unsigned timeoutMs, std::string *error);

// The sense key of an outcome's sense data is ILLEGAL REQUEST: the device
// does not support what was asked.
bool refused(const ScsiOutcome &outcome);

} // namespace kelp::live

#endif // KELP_RUNTIME_DATASTORE_LIVE_SGIO_H
