// A drive's own word on its health: an NVMe controller's SMART / health
// log, a SCSI disk's informational exceptions log page, an ATA disk's SMART
// status and SMART data (through SCSI-to-ATA translation). Read through the
// kernel's pass-through interfaces on the running system, or from capture
// files for any other live root (the layout of the sysfs capture tool and
// the fixtures):
//
//   /dev/nvmeX.health/smart-log.bin   the 512-byte log page 0x02
//   /dev/nvmeX.health/id-ctrl.bin     the 4096 bytes of Identify Controller
//                                     (optional: the temperature thresholds)
//   /dev/sgN.health/log-2f.bin        LOG SENSE page 0x2f as the disk gave it
//   /dev/sgN.health/log-0d.bin        LOG SENSE page 0x0d (optional: the
//                                     disk's temperature and its reference)
//   /dev/sgN.health/ata-status.bin    the 14-byte ATA status return
//                                     descriptor of SMART RETURN STATUS
//   /dev/sgN.health/ata-smart-data.bin
//                                     the 512 bytes of SMART READ DATA
//                                     (optional: the disk's temperature)
#ifndef KELP_RUNTIME_DATASTORE_LIVE_HEALTH_H
#define KELP_RUNTIME_DATASTORE_LIVE_HEALTH_H

#include <optional>
#include <string>
#include <string_view>

namespace kelp::live {

// How a drive is asked.
enum class HealthKind {
    kNvme, // admin Get Log Page 0x02, then Identify Controller, on the
           // controller's character device
    kScsi, // LOG SENSE, informational exceptions page 0x2f, then the
           // temperature page 0x0d
    kAta,  // ATA PASS-THROUGH(16) SMART RETURN STATUS and SMART READ DATA,
           // unless in standby
};

struct DriveHealth {
    // The drive says it is likely to fail: an NVMe critical warning other
    // than temperature, a SCSI failure prediction (ASC 0x5d), an ATA SMART
    // threshold exceeded.
    bool failurePredicted = false;
    // Rated life left, in percent (NVMe: 100 minus "percentage used",
    // floored at 0).
    std::optional<int> lifeRemaining;
    // The drive has put its media in read-only mode (NVMe critical warning
    // bit 3); unknown for other drives.
    std::optional<bool> readOnly;
    // The drive's own temperature, in degrees Celsius: an NVMe controller's
    // composite temperature, a SCSI disk's most recent temperature reading,
    // an ATA disk's temperature attribute (194, else 190);
    // the temperature from which it warns (the SCSI disk's trip point or
    // reference temperature, the NVMe controller's warning composite
    // temperature threshold); and the one from which it is critical (the
    // NVMe controller's critical composite temperature threshold).
    std::optional<int> temperatureC;
    std::optional<int> highWarningC;
    std::optional<int> highCriticalC;
    // The drive says a temperature is past one of its thresholds: an NVMe
    // critical warning bit 1, a SCSI exception of asc/ascq 0x0b/0x01
    // (specified temperature exceeded). Not a failure prediction.
    bool temperatureAlarm = false;
    // What was seen, for notes: "critical warning 0x04", "asc/ascq 0x5d/0x10".
    std::string why;
};

// The outcome of asking one drive.
enum class HealthRead {
    kRead,        // *health holds the drive's answer
    kUnsupported, // the drive keeps no such log or status (not an error)
    kAsleep,      // an ATA disk in standby: not woken to be asked
    kFailed,      // *error says why
};

// Decoders of the raw answers. False with *error for data that is not such
// an answer (too short, another page, an unknown layout).
bool decodeNvmeSmartLog(std::string_view log, DriveHealth *health, std::string *error);
// Adds to *health an NVMe controller's temperature thresholds from its
// Identify Controller data (4096 bytes): the warning and the critical
// composite temperature thresholds (kelvin, bytes 266-267 and 268-269),
// each where not 0.
bool decodeNvmeIdentifyController(std::string_view data, DriveHealth *health, std::string *error);
bool decodeInformationalExceptions(std::string_view page, DriveHealth *health, std::string *error);
bool decodeAtaSmartStatus(std::string_view descriptor, DriveHealth *health, std::string *error);
// Adds to *health what a SCSI disk's temperature log page (0x0d) says: its
// temperature (parameter 0) and reference temperature (parameter 1, the
// highest it runs at continuously: the high warning), each where given and
// not 0xff, in place of what the informational exceptions page said.
bool decodeTemperaturePage(std::string_view page, DriveHealth *health, std::string *error);
// Adds to *health the temperature of an ATA disk's SMART data (512 bytes):
// the lowest raw byte of attribute 194, else of 190, when it is 1 to 127.
// Data without either leaves *health as it was.
bool decodeAtaSmartData(std::string_view data, DriveHealth *health, std::string *error);

// The ATA status return descriptor (14 bytes, as decodeAtaSmartStatus takes
// it) in the sense data of an ATA PASS-THROUGH sent with CK_COND: found
// among descriptor format sense data's descriptors, or made from fixed
// format sense data's information fields. False when there is none.
bool ataStatusFromSense(std::string_view sense, std::string *descriptor);

// Asks the drive at devicePath (/dev/nvmeX for kNvme, /dev/sgN or /dev/sdX
// otherwise), opened O_RDONLY|O_NONBLOCK: usually root only.
HealthRead readHealthDevice(HealthKind kind, const std::string &devicePath, DriveHealth *health,
                            std::string *error);

// Reads the capture file for `kind` in directory dir (DEVICE.health). A
// missing file is kUnsupported.
HealthRead readHealthFiles(HealthKind kind, const std::string &dir, DriveHealth *health,
                           std::string *error);

} // namespace kelp::live

#endif // KELP_RUNTIME_DATASTORE_LIVE_HEALTH_H
