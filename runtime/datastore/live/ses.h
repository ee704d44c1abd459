// Enclosure components from the SCSI Enclosure Services diagnostic pages of
// one enclosure: the raw pages read through SG_IO or from capture files, and
// their decoding into power supplies, fans, temperature sensors and
// enclosure controllers. Device slots are left to the kernel's enclosure
// class in sysfs; this file does not decode them, nor send any control page.
#ifndef KELP_RUNTIME_DATASTORE_LIVE_SES_H
#define KELP_RUNTIME_DATASTORE_LIVE_SES_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kelp::live {

// Raw diagnostic pages of one enclosure, as read: 0x01 configuration, 0x02
// enclosure status, 0x05 threshold in and 0x07 element descriptor. An empty
// threshold or descriptor page means the enclosure did not give it.
struct SesPages {
    std::string config, status, threshold, descriptor;
};

// The same pages as views, so that a caller holding the bytes elsewhere (a
// test's exactly sized buffers, a fuzzer's input) decodes them without a copy.
struct SesPageViews {
    std::string_view config, status, threshold, descriptor;
};

// The element types decoded; all others are skipped.
enum class SesKind {
    kPowerSupply, // element type 0x02
    kCooling,     // element type 0x03
    kTemperature, // element type 0x04
    kEsm,         // enclosure services controller electronics, element type 0x07
};

// One individual element of a decoded kind (overall elements are not listed).
struct SesElement {
    SesKind kind = SesKind::kPowerSupply;
    // 0-based within its kind over the whole enclosure (all subenclosures),
    // in the order of the type descriptor headers.
    unsigned index = 0;
    // The element status code: 0 unsupported, 1 OK, 2 critical, 3
    // noncritical, 4 unrecoverable, 5 not installed, 6 unknown, 7 not
    // available, 8 no access; 9-15 are reserved and passed on as they are.
    unsigned status = 0;
    bool predictedFailure = false, swapped = false, disabled = false;
    // Temperature sensors: degrees C (the byte minus 20); nullopt for the
    // reserved byte 0 and for other kinds.
    std::optional<int> temperatureC = std::nullopt;
    // Cooling: the actual fan speed in rpm (the 11-bit field times 10);
    // nullopt for other kinds.
    std::optional<unsigned> fanRpm = std::nullopt;
    // Cooling: the actual speed code 0 (stopped) to 7 (highest); 0 otherwise.
    unsigned speedCode = 0;
    // Temperature sensors, from the threshold page when given: degrees C
    // (the byte minus 20); nullopt for the reserved byte 0, without the page
    // and for other kinds.
    std::optional<int> highCriticalC = std::nullopt, highWarningC = std::nullopt,
                       lowWarningC = std::nullopt, lowCriticalC = std::nullopt;
    // From the element descriptor page when given: printable ASCII up to the
    // first NUL, other bytes as '?', blanks trimmed; else "".
    std::string descriptor = {};
    // Of the subenclosure the element sits in, trimmed like descriptor.
    std::string vendor = {}, product = {}, revision = {};
};

struct SesEnclosure {
    // Of the primary subenclosure (the first enclosure descriptor), trimmed
    // like SesElement::descriptor; logicalId is 16 lowercase hex digits.
    std::string vendor, product, revision, logicalId;
    uint32_t generation = 0; // of the configuration page
    std::vector<SesElement> elements;
};

// Decodes the pages into *out. Returns false with *error naming the page and
// what is wrong (header truncated, page code not the one asked for, a length
// past the buffer or the page, fewer status, threshold or descriptor entries
// than the configuration counts, a type header naming a subenclosure the page
// does not describe, a generation code that differs from the configuration
// page's); *out is then unchanged. A threshold or descriptor page that is
// given must be whole: a caller that wants the rest despite one can decode
// again without it. Never reads outside the views, whatever the bytes.
// Elements of other types are skipped but counted: the status, threshold and
// descriptor pages hold one overall entry and then one entry per element for
// each type header, in the headers' order.
bool decodeSes(const SesPageViews &pages, SesEnclosure *out, std::string *error);

// decodeSes on views of pages.
bool decodeSes(const SesPages &pages, SesEnclosure *out, std::string *error);

// Reads pages 0x01, 0x02, 0x05 and 0x07 through SG_IO (RECEIVE DIAGNOSTIC
// RESULTS with PCV set, 30 s time-out each, up to 65535 bytes a page) on the
// SCSI generic node devicePath, opened O_RDONLY|O_NONBLOCK; opening one
// usually takes root or the disk group. A threshold or descriptor page the
// enclosure refuses with ILLEGAL REQUEST is left empty. Returns false with
// *error naming the path and the reason (errno text, "not a SCSI generic
// device", SCSI status, sense key and additional sense code) when the node
// cannot be opened or a command fails; *pages is then unspecified. The pages
// are read one after the other: decodeSes tells by their generation codes
// when the configuration changed in between, and the caller reads again.
bool readSesPagesSgIo(const std::string &devicePath, SesPages *pages, std::string *error);

// Reads the pages from the files page-01.bin, page-02.bin, page-05.bin and
// page-07.bin in directory dir (the layout of the sysfs capture tool and the
// test fixtures). page-05.bin and page-07.bin may be missing (their pages are
// then empty). Returns false with *error naming the file when page-01.bin or
// page-02.bin is missing, or when any file that exists is empty, not a
// regular file, over 65539 bytes (the longest page) or unreadable; *pages is
// then unspecified.
bool readSesPagesFiles(const std::string &dir, SesPages *pages, std::string *error);

} // namespace kelp::live

#endif // KELP_RUNTIME_DATASTORE_LIVE_SES_H
