// SCSI sense data, as SG_IO hands it back with a CHECK CONDITION.
#ifndef KELP_RUNTIME_DATASTORE_LIVE_SENSE_H
#define KELP_RUNTIME_DATASTORE_LIVE_SENSE_H

#include <cstddef>
#include <cstdint>
#include <optional>

namespace kelp::live {

inline constexpr unsigned kSenseIllegalRequest = 0x5;

inline constexpr const char *kSenseKeyNames[16] = {
    "NO SENSE",       "RECOVERED ERROR", "NOT READY",      "MEDIUM ERROR",
    "HARDWARE ERROR", "ILLEGAL REQUEST", "UNIT ATTENTION", "DATA PROTECT",
    "BLANK CHECK",    "VENDOR SPECIFIC", "COPY ABORTED",   "ABORTED COMMAND",
    "RESERVED (0xc)", "VOLUME OVERFLOW", "MISCOMPARE",     "COMPLETED",
};

struct Sense {
    unsigned key, asc, ascq;
};

// The sense key and additional sense code of fixed (0x70, 0x71) or
// descriptor (0x72, 0x73) format sense data.
inline std::optional<Sense> parseSense(const uint8_t *sense, size_t length)
{
    if (length < 1)
        return std::nullopt;
    unsigned format = sense[0] & 0x7f;
    if ((format == 0x72 || format == 0x73) && length >= 4)
        return Sense{sense[1] & 0x0fu, sense[2], sense[3]};
    if ((format == 0x70 || format == 0x71) && length >= 3)
        return Sense{sense[2] & 0x0fu, length >= 13 ? sense[12] : 0u,
                     length >= 14 ? sense[13] : 0u};
    return std::nullopt;
}

} // namespace kelp::live

#endif // KELP_RUNTIME_DATASTORE_LIVE_SENSE_H
