// SG_IO for the live source's readers (see sgio.h).
#include "datastore/live/sgio.h"

#include <scsi/sg.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "support/errno_text.h"

namespace kelp::live {
namespace {

constexpr const char *kSenseKeyNames[16] = {
    "NO SENSE",       "RECOVERED ERROR", "NOT READY",      "MEDIUM ERROR",
    "HARDWARE ERROR", "ILLEGAL REQUEST", "UNIT ATTENTION", "DATA PROTECT",
    "BLANK CHECK",    "VENDOR SPECIFIC", "COPY ABORTED",   "ABORTED COMMAND",
    "RESERVED (0xc)", "VOLUME OVERFLOW", "MISCOMPARE",     "COMPLETED",
};

unsigned byteAt(std::string_view data, size_t at)
{
    return static_cast<uint8_t>(data[at]);
}

} // namespace

std::string hexText(uint32_t value, int digits)
{
    char buf[16];
    std::snprintf(buf, sizeof buf, "%0*x", digits, value);
    return buf;
}

std::optional<Sense> parseSense(std::string_view sense)
{
    const size_t length = sense.size();
    if (length < 1)
        return std::nullopt;
    const unsigned format = byteAt(sense, 0) & 0x7f;
    if ((format == 0x72 || format == 0x73) && length >= 4)
        return Sense{byteAt(sense, 1) & 0x0fu, byteAt(sense, 2), byteAt(sense, 3)};
    if ((format == 0x70 || format == 0x71) && length >= 3)
        return Sense{byteAt(sense, 2) & 0x0fu, length >= 13 ? byteAt(sense, 12) : 0u,
                     length >= 14 ? byteAt(sense, 13) : 0u};
    return std::nullopt;
}

ScsiOutcome sendScsi(int fd, const uint8_t *cdb, size_t cdbLength, uint8_t *data, size_t length,
                     unsigned timeoutMs, std::string *error)
{
    uint8_t sense[64] = {};
    sg_io_hdr_t io{};
    io.interface_id = 'S';
    io.dxfer_direction = length > 0 ? SG_DXFER_FROM_DEV : SG_DXFER_NONE;
    io.cmd_len = static_cast<unsigned char>(cdbLength);
    io.mx_sb_len = sizeof sense;
    io.dxfer_len = static_cast<unsigned>(length);
    io.dxferp = length > 0 ? data : nullptr;
    io.cmdp = const_cast<uint8_t *>(cdb);
    io.sbp = sense;
    io.timeout = timeoutMs;
    ScsiOutcome outcome;
    if (ioctl(fd, SG_IO, &io) < 0) {
        *error = "SG_IO: " + rt::errnoText(errno);
        return outcome;
    }
    outcome.sent = true;
    outcome.got = length - std::min<size_t>(length, static_cast<size_t>(std::max(io.resid, 0)));
    outcome.sense.assign(reinterpret_cast<const char *>(sense),
                         std::min<size_t>(io.sb_len_wr, sizeof sense));
    outcome.ok = (io.info & SG_INFO_OK_MASK) == SG_INFO_OK;
    if (!outcome.ok) {
        outcome.failure = "SCSI status 0x" + hexText(io.status, 2) + ", host status 0x" +
                          hexText(io.host_status, 2) + ", driver status 0x" +
                          hexText(io.driver_status, 2);
        if (std::optional<Sense> s = parseSense(outcome.sense)) {
            outcome.failure += std::string(", sense key ") + kSenseKeyNames[s->key] +
                               ", asc/ascq 0x" + hexText(s->asc, 2) + "/0x" + hexText(s->ascq, 2);
        }
    }
    return outcome;
}

bool refused(const ScsiOutcome &outcome)
{
    std::optional<Sense> s = parseSense(outcome.sense);
    return s && s->key == kSenseIllegalRequest;
}

} // namespace kelp::live
