// Drive health through NVMe admin pass-through and SG_IO, or from capture
// files (see health.h). The decoders check every length before reading a
// byte, so no answer, however made, reads outside what was handed in.
#include "datastore/live/health.h"

#include <fcntl.h>
#include <linux/nvme_ioctl.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <optional>

#include "datastore/live/sgio.h"
#include "support/errno_text.h"
#include "support/file_read.h"
#include "support/unique_fd.h"

namespace kelp::live {
namespace {

constexpr unsigned kTimeoutMs = 10000;
constexpr size_t kSmartLogBytes = 512;
constexpr size_t kIdentifyBytes = 4096;
constexpr size_t kLogPageBytes = 1024;
constexpr size_t kAtaDescriptorBytes = 14;
constexpr size_t kAtaSmartDataBytes = 512;

// SMART attributes that hold the temperature in their lowest raw byte.
constexpr unsigned kAtaAttributeTemperature = 194;
constexpr unsigned kAtaAttributeAirflowTemperature = 190;

// NVMe critical warning bits that say the drive is wearing out or failing:
// spare below threshold (0), reliability degraded (2), read-only media (3),
// volatile memory backup failed (4), persistent memory region read-only (5).
// Bit 1 is temperature alone, which the drive's temperature probe reports.
constexpr unsigned kNvmeFailureBits = 0x3d;
constexpr unsigned kNvmeReadOnlyBit = 0x08;
constexpr unsigned kNvmeTemperatureBit = 0x02;

// SCSI additional sense code of a failure prediction threshold exceeded;
// code and qualifier of a warning that a specified temperature was exceeded.
constexpr unsigned kAscFailurePrediction = 0x5d;
constexpr unsigned kAscWarning = 0x0b;
constexpr unsigned kAscqTemperatureExceeded = 0x01;

constexpr int kKelvinAtZeroCelsius = 273;

// A temperature byte of a SCSI log page: 0xff is "not available", and disks
// without a sensor leave 0.
std::optional<int> scsiTemperature(unsigned value)
{
    if (value == 0 || value == 0xff)
        return std::nullopt;
    return static_cast<int>(value);
}

// "0x5d"
std::string hex2(unsigned value)
{
    return "0x" + hexText(value & 0xffu, 2);
}

uint8_t byteAt(std::string_view data, size_t at)
{
    return static_cast<uint8_t>(data[at]);
}

// Walks the parameters of LOG SENSE page `pageCode` in `page` (a 4-byte
// header, then each parameter's code (2 bytes), control byte, length and
// data), handing each to visit(code, data) with its data cut to what the
// page holds, until visit returns false. False with *error for another
// page or a header cut short.
template <typename Visit>
bool forEachLogParameter(std::string_view page, unsigned pageCode, std::string *error, Visit visit)
{
    if (page.size() < 4 || (byteAt(page, 0) & 0x3f) != pageCode) {
        *error = page.size() < 4
                     ? std::string("log page cut short")
                     : "log page " + hex2(byteAt(page, 0) & 0x3f) + ", not " + hex2(pageCode);
        return false;
    }
    const size_t end = std::min(page.size(), 4 + (size_t{byteAt(page, 2)} << 8 | byteAt(page, 3)));
    for (size_t at = 4; at + 4 <= end;) {
        const unsigned code = unsigned{byteAt(page, at)} << 8 | byteAt(page, at + 1);
        const size_t length = byteAt(page, at + 3);
        if (!visit(code, page.substr(at + 4, std::min(length, end - (at + 4)))))
            break;
        at += 4 + length;
    }
    return true;
}

} // namespace

bool decodeNvmeSmartLog(std::string_view log, DriveHealth *health, std::string *error)
{
    // Bytes 0 (critical warning), 3 and 4 (spare, its threshold) and 5
    // (percentage used) are all this reads, but the page is 512 bytes.
    if (log.size() < kSmartLogBytes) {
        *error = "SMART log of " + std::to_string(log.size()) + " bytes, not " +
                 std::to_string(kSmartLogBytes);
        return false;
    }
    *health = DriveHealth{};
    const unsigned warning = byteAt(log, 0);
    health->failurePredicted = (warning & kNvmeFailureBits) != 0;
    const int used = byteAt(log, 5);
    health->lifeRemaining = std::max(0, 100 - used);
    health->readOnly = (warning & kNvmeReadOnlyBit) != 0;
    health->temperatureAlarm = (warning & kNvmeTemperatureBit) != 0;
    // Composite temperature in kelvin, little endian; 0 when not reported.
    const int kelvin = byteAt(log, 1) | byteAt(log, 2) << 8;
    if (kelvin != 0)
        health->temperatureC = kelvin - kKelvinAtZeroCelsius;
    health->why =
        "critical warning " + hex2(warning) + ", " + std::to_string(used) + "% of rated life used";
    return true;
}

bool decodeNvmeIdentifyController(std::string_view data, DriveHealth *health, std::string *error)
{
    if (data.size() < kIdentifyBytes) {
        *error = "Identify Controller data of " + std::to_string(data.size()) + " bytes, not " +
                 std::to_string(kIdentifyBytes);
        return false;
    }
    // WCTEMP and CCTEMP, in kelvin, little endian; 0 when the controller
    // reports none.
    const int warning = byteAt(data, 266) | byteAt(data, 267) << 8;
    const int critical = byteAt(data, 268) | byteAt(data, 269) << 8;
    if (warning != 0)
        health->highWarningC = warning - kKelvinAtZeroCelsius;
    if (critical != 0)
        health->highCriticalC = critical - kKelvinAtZeroCelsius;
    return true;
}

bool decodeInformationalExceptions(std::string_view page, DriveHealth *health, std::string *error)
{
    // Parameter 0 holds the exception's additional sense code and
    // qualifier, then (if long enough) the most recent temperature reading
    // and the temperature trip point, both in degrees Celsius.
    bool general = false;
    const bool walked =
        forEachLogParameter(page, 0x2f, error, [&](unsigned code, std::string_view data) {
            if (code != 0 || data.size() < 2)
                return true;
            const unsigned asc = byteAt(data, 0), ascq = byteAt(data, 1);
            *health = DriveHealth{};
            health->failurePredicted = asc == kAscFailurePrediction;
            health->temperatureAlarm = asc == kAscWarning && ascq == kAscqTemperatureExceeded;
            health->why = "asc/ascq " + hex2(asc) + "/" + hex2(ascq);
            if (data.size() >= 3)
                health->temperatureC = scsiTemperature(byteAt(data, 2));
            if (data.size() >= 4)
                health->highWarningC = scsiTemperature(byteAt(data, 3));
            general = true;
            return false;
        });
    if (walked && !general)
        *error = "log page 0x2f without its general parameter";
    return walked && general;
}

bool decodeAtaSmartStatus(std::string_view d, DriveHealth *health, std::string *error)
{
    // ATA Status Return descriptor: code 0x09, length 0x0c, ..., LBA mid
    // (7:0) at byte 9, LBA high (7:0) at byte 11.
    if (d.size() < kAtaDescriptorBytes || byteAt(d, 0) != 0x09 || byteAt(d, 1) != 0x0c) {
        *error = "not an ATA status return descriptor";
        return false;
    }
    const unsigned mid = byteAt(d, 9), high = byteAt(d, 11);
    *health = DriveHealth{};
    if (mid == 0x4f && high == 0xc2) {
        health->why = "SMART status passed";
    } else if (mid == 0xf4 && high == 0x2c) {
        health->failurePredicted = true;
        health->why = "SMART status: threshold exceeded";
    } else {
        *error = "SMART status registers " + hex2(mid) + "/" + hex2(high);
        return false;
    }
    return true;
}

bool decodeTemperaturePage(std::string_view page, DriveHealth *health, std::string *error)
{
    // Parameters 0 (temperature) and 1 (reference temperature): a reserved
    // byte, then the degrees.
    return forEachLogParameter(page, 0x0d, error, [&](unsigned code, std::string_view data) {
        if ((code == 0 || code == 1) && data.size() >= 2 && byteAt(data, 1) != 0xff)
            (code == 0 ? health->temperatureC : health->highWarningC) = byteAt(data, 1);
        return true;
    });
}

bool decodeAtaSmartData(std::string_view data, DriveHealth *health, std::string *error)
{
    if (data.size() < kAtaSmartDataBytes) {
        *error = "SMART data of " + std::to_string(data.size()) + " bytes, not " +
                 std::to_string(kAtaSmartDataBytes);
        return false;
    }
    // After the 2-byte revision, 30 attributes of 12 bytes: id, flags (2),
    // value, worst, raw (6, little endian), reserved.
    std::optional<int> temperature, airflow;
    for (size_t at = 2; at + 12 <= 2 + 30 * 12; at += 12) {
        const unsigned id = byteAt(data, at);
        const int raw = byteAt(data, at + 5);
        if (raw < 1 || raw > 127)
            continue;
        if (id == kAtaAttributeTemperature && !temperature)
            temperature = raw;
        else if (id == kAtaAttributeAirflowTemperature && !airflow)
            airflow = raw;
    }
    if (temperature || airflow)
        health->temperatureC = temperature ? temperature : airflow;
    return true;
}

namespace {

// LOG SENSE, cumulative values (PC 01b), of page `pageCode`: *answer holds
// the bytes that came back.
ScsiOutcome logSense(int fd, uint8_t pageCode, std::string *answer, std::string *error)
{
    std::array<uint8_t, kLogPageBytes> page{};
    const uint8_t cdb[10] = {0x4d,
                             0,
                             static_cast<uint8_t>(0x40 | pageCode),
                             0,
                             0,
                             0,
                             0,
                             kLogPageBytes >> 8,
                             kLogPageBytes & 0xff,
                             0};
    ScsiOutcome outcome =
        sendScsi(fd, cdb, sizeof cdb, page.data(), page.size(), kTimeoutMs, error);
    answer->assign(reinterpret_cast<const char *>(page.data()), outcome.got);
    return outcome;
}

HealthRead readScsi(int fd, DriveHealth *health, std::string *error)
{
    std::string answer;
    const ScsiOutcome outcome = logSense(fd, 0x2f, &answer, error);
    if (!outcome.sent)
        return HealthRead::kFailed;
    if (!outcome.ok) {
        if (refused(outcome))
            return HealthRead::kUnsupported;
        *error = outcome.failure;
        return HealthRead::kFailed;
    }
    if (!decodeInformationalExceptions(answer, health, error))
        return HealthRead::kFailed;
    // The temperature page, where the disk keeps one, says the temperature
    // in the standard's own terms; the exceptions page's reading stands
    // otherwise.
    std::string ignored;
    if (const ScsiOutcome more = logSense(fd, 0x0d, &answer, &ignored); more.sent && more.ok)
        decodeTemperaturePage(answer, health, &ignored);
    return HealthRead::kRead;
}

// An ATA command without data through ATA PASS-THROUGH(16), its registers
// returned (CK_COND) into *descriptor.
bool ataNonData(int fd, uint8_t command, uint8_t feature, uint8_t lbaMid, uint8_t lbaHigh,
                std::string *descriptor, std::string *error)
{
    uint8_t cdb[16] = {};
    cdb[0] = 0x85;   // ATA PASS-THROUGH(16)
    cdb[1] = 3 << 1; // protocol: non-data
    cdb[2] = 0x20;   // CK_COND: return the registers
    cdb[4] = feature;
    cdb[10] = lbaMid;
    cdb[12] = lbaHigh;
    cdb[14] = command;
    const ScsiOutcome outcome = sendScsi(fd, cdb, sizeof cdb, nullptr, 0, kTimeoutMs, error);
    if (!outcome.sent)
        return false;
    // The registers come back as sense data, with CHECK CONDITION or (from
    // some translations) with GOOD status.
    if (!ataStatusFromSense(outcome.sense, descriptor)) {
        *error = outcome.ok ? std::string("ATA PASS-THROUGH returned no registers")
                            : "ATA PASS-THROUGH: " + outcome.failure;
        return false;
    }
    return true;
}

// SMART READ DATA through ATA PASS-THROUGH(16), PIO data-in of one block,
// into *data. False when the disk or its translation does not give it.
bool ataSmartData(int fd, std::string *data)
{
    std::array<uint8_t, kAtaSmartDataBytes> block{};
    uint8_t cdb[16] = {};
    cdb[0] = 0x85;   // ATA PASS-THROUGH(16)
    cdb[1] = 4 << 1; // protocol: PIO data-in
    cdb[2] = 0x0e;   // from the device, in blocks, as many as the count says
    cdb[4] = 0xd0;   // SMART READ DATA
    cdb[6] = 1;
    cdb[10] = 0x4f;
    cdb[12] = 0xc2;
    cdb[14] = 0xb0;
    std::string error;
    const ScsiOutcome outcome =
        sendScsi(fd, cdb, sizeof cdb, block.data(), block.size(), kTimeoutMs, &error);
    // Some translations report the registers as a recovered error (ATA
    // pass-through information available) even without CK_COND.
    const auto sense = parseSense(outcome.sense);
    const bool recovered = sense && sense->key == 0x1 && sense->asc == 0 && sense->ascq == 0x1d;
    if (!outcome.sent || (!outcome.ok && !recovered) || outcome.got < block.size())
        return false;
    data->assign(reinterpret_cast<const char *>(block.data()), block.size());
    return true;
}

HealthRead readAta(int fd, DriveHealth *health, std::string *error)
{
    // CHECK POWER MODE first: a disk in standby (count 0) is left asleep,
    // as SMART commands may spin it up.
    std::string registers;
    if (!ataNonData(fd, 0xe5, 0, 0, 0, &registers, error))
        return HealthRead::kFailed;
    if (byteAt(registers, 5) == 0x00)
        return HealthRead::kAsleep;
    if (!ataNonData(fd, 0xb0, 0xda /* SMART RETURN STATUS */, 0x4f, 0xc2, &registers, error))
        return HealthRead::kFailed;
    if (!decodeAtaSmartStatus(registers, health, error))
        return HealthRead::kFailed;
    // The temperature is an extra: a disk that does not give its SMART data
    // still gave its status.
    std::string data, ignored;
    if (ataSmartData(fd, &data))
        decodeAtaSmartData(data, health, &ignored);
    return HealthRead::kRead;
}

// One admin command that reads `data`: false with *error (naming `what`)
// when the kernel or the controller refuses it.
bool nvmeAdminRead(int fd, const char *what, uint8_t opcode, uint32_t nsid, uint32_t cdw10,
                   uint8_t *data, size_t size, std::string *error)
{
    nvme_admin_cmd cmd{};
    cmd.opcode = opcode;
    cmd.nsid = nsid;
    cmd.addr = reinterpret_cast<uintptr_t>(data);
    cmd.data_len = static_cast<uint32_t>(size);
    cmd.cdw10 = cdw10;
    cmd.timeout_ms = kTimeoutMs;
    const int r = ioctl(fd, NVME_IOCTL_ADMIN_CMD, &cmd);
    if (r < 0) {
        *error = std::string(what) + ": " + rt::errnoText(errno);
        return false;
    }
    if (r > 0) {
        char status[16];
        std::snprintf(status, sizeof status, "0x%x", static_cast<unsigned>(r));
        *error = std::string(what) + ": NVMe status " + status;
        return false;
    }
    return true;
}

HealthRead readNvme(int fd, DriveHealth *health, std::string *error)
{
    std::array<uint8_t, kSmartLogBytes> log{};
    if (!nvmeAdminRead(fd, "Get Log Page", 0x02, 0xffffffffu,
                       static_cast<uint32_t>((log.size() / 4 - 1) << 16 | 0x02), log.data(),
                       log.size(), error))
        return HealthRead::kFailed;
    const std::string_view answer(reinterpret_cast<const char *>(log.data()), log.size());
    if (!decodeNvmeSmartLog(answer, health, error))
        return HealthRead::kFailed;
    // The thresholds are an extra: a controller that does not identify
    // itself still gave its log.
    std::array<uint8_t, kIdentifyBytes> identify{};
    std::string ignored;
    if (nvmeAdminRead(fd, "Identify", 0x06, 0, 0x01 /* CNS: the controller */, identify.data(),
                      identify.size(), &ignored))
        decodeNvmeIdentifyController(
            std::string_view(reinterpret_cast<const char *>(identify.data()), identify.size()),
            health, &ignored);
    return HealthRead::kRead;
}

// The capture files of each kind of drive: the first is its answer, a
// second (optional) adds to it.
struct FileRow {
    HealthKind kind;
    bool optional;
    const char *file;
    size_t maxBytes;
    bool (*decode)(std::string_view, DriveHealth *, std::string *);
};
constexpr FileRow kFiles[] = {
    {HealthKind::kNvme, false, "smart-log.bin", kSmartLogBytes, decodeNvmeSmartLog},
    {HealthKind::kNvme, true, "id-ctrl.bin", kIdentifyBytes, decodeNvmeIdentifyController},
    {HealthKind::kScsi, false, "log-2f.bin", kLogPageBytes, decodeInformationalExceptions},
    {HealthKind::kScsi, true, "log-0d.bin", kLogPageBytes, decodeTemperaturePage},
    {HealthKind::kAta, false, "ata-status.bin", kAtaDescriptorBytes, decodeAtaSmartStatus},
    {HealthKind::kAta, true, "ata-smart-data.bin", kAtaSmartDataBytes, decodeAtaSmartData},
};

} // namespace

bool ataStatusFromSense(std::string_view sense, std::string *descriptor)
{
    const size_t length = sense.size();
    const unsigned format = length > 0 ? byteAt(sense, 0) & 0x7fu : 0;
    if ((format == 0x72 || format == 0x73) && length >= 8) {
        const size_t end = std::min(length, size_t{8} + byteAt(sense, 7));
        for (size_t at = 8; at + 2 <= end; at += 2 + size_t{byteAt(sense, at + 1)}) {
            if (byteAt(sense, at) == 0x09 && byteAt(sense, at + 1) == 0x0c &&
                at + kAtaDescriptorBytes <= end) {
                descriptor->assign(sense.substr(at, kAtaDescriptorBytes));
                return true;
            }
        }
        return false;
    }
    if ((format == 0x70 || format == 0x71) && length >= 12) {
        // Information: error, status, device, count (7:0); command-specific
        // information: flags, LBA (23:16) = high, (15:8) = mid, (7:0) = low.
        std::string d(kAtaDescriptorBytes, '\0');
        d[0] = 0x09;
        d[1] = 0x0c;
        d[3] = sense[3];
        d[5] = sense[6];
        d[7] = sense[11];
        d[9] = sense[10];
        d[11] = sense[9];
        d[12] = sense[5];
        d[13] = sense[4];
        *descriptor = std::move(d);
        return true;
    }
    return false;
}

HealthRead readHealthDevice(HealthKind kind, const std::string &devicePath, DriveHealth *health,
                            std::string *error)
{
    rt::UniqueFd fd(open(devicePath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd) {
        *error = rt::errnoMessage("cannot open", devicePath);
        return HealthRead::kFailed;
    }
    HealthRead r = kind == HealthKind::kNvme   ? readNvme(fd.get(), health, error)
                   : kind == HealthKind::kScsi ? readScsi(fd.get(), health, error)
                                               : readAta(fd.get(), health, error);
    if (r == HealthRead::kFailed)
        *error = devicePath + ": " + *error;
    return r;
}

HealthRead readHealthFiles(HealthKind kind, const std::string &dir, DriveHealth *health,
                           std::string *error)
{
    bool answered = false;
    for (const FileRow &row : kFiles) {
        if (row.kind != kind || row.optional != answered)
            continue;
        const std::string path = dir + "/" + row.file;
        std::string data;
        switch (rt::readRegularFile(path, row.maxBytes, &data, error)) {
        case rt::FileRead::kMissing:
            if (row.optional)
                continue;
            return HealthRead::kUnsupported;
        case rt::FileRead::kRefused:
            return HealthRead::kFailed;
        case rt::FileRead::kRead:
            break;
        }
        if (!row.decode(data, health, error)) {
            *error = path + ": " + *error;
            return HealthRead::kFailed;
        }
        answered = true;
    }
    if (!answered) {
        *error = "no capture file for this kind of drive";
        return HealthRead::kFailed;
    }
    return HealthRead::kRead;
}

} // namespace kelp::live
