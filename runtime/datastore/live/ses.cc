// SES diagnostic pages: decoding, and reading them through SG_IO or from
// capture files (see ses.h). Every read of a page byte goes through a bounds
// check against the page's own length, which itself is checked against the
// buffer, so no byte pattern reads outside what was handed in.
#include "datastore/live/ses.h"

#include <fcntl.h>
#include <scsi/sg.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <optional>

#include "datastore/live/sgio.h"
#include "support/errno_text.h"
#include "support/file_read.h"
#include "support/unique_fd.h"

namespace kelp::live {

namespace {

// The element types decoded, as data: adding a kind is adding a row.
struct KindRow {
    uint8_t elementType;
    SesKind kind;
};
constexpr KindRow kKinds[] = {
    {0x02, SesKind::kPowerSupply},
    {0x03, SesKind::kCooling},
    {0x04, SesKind::kTemperature},
    {0x07, SesKind::kEsm},
};
constexpr size_t kKindCount = std::size(kKinds);

std::optional<size_t> kindRowOf(uint8_t elementType)
{
    for (size_t i = 0; i < kKindCount; ++i) {
        if (kKinds[i].elementType == elementType)
            return i;
    }
    return std::nullopt;
}

// Temperatures and their thresholds are offset by 20 so that one byte spans
// -19 to 235 C; 0 is reserved.
constexpr int kTemperatureOffset = 20;

unsigned byteAt(std::string_view s, size_t i)
{
    return static_cast<unsigned char>(s[i]);
}

unsigned be16(std::string_view s, size_t i)
{
    return byteAt(s, i) << 8 | byteAt(s, i + 1);
}

uint32_t be32(std::string_view s, size_t i)
{
    return static_cast<uint32_t>(be16(s, i)) << 16 | be16(s, i + 2);
}

std::optional<int> offsetTemperature(unsigned byte)
{
    if (byte == 0)
        return std::nullopt;
    return static_cast<int>(byte) - kTemperatureOffset;
}

// Identification text as the agent shows it (see SesElement::descriptor).
std::string cleanText(std::string_view raw)
{
    raw = raw.substr(0, raw.find('\0'));
    std::string text;
    for (char c : raw)
        text += c >= 0x20 && c <= 0x7e ? c : '?';
    size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos)
        return "";
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

// Checks the 8-byte header every SES status page starts with and sets *page
// to the page as long as its length field says.
bool openPage(std::string_view raw, unsigned code, const char *name, std::string_view *page,
              uint32_t *generation, std::string *error)
{
    std::string what = std::string(name) + " page (0x" + hexText(code, 2) + "): ";
    if (raw.size() < 8) {
        *error = what + "header truncated at " + std::to_string(raw.size()) + " bytes";
        return false;
    }
    if (byteAt(raw, 0) != code) {
        *error = what + "page code is 0x" + hexText(byteAt(raw, 0), 2);
        return false;
    }
    size_t length = 4 + size_t{be16(raw, 2)};
    if (length > raw.size()) {
        *error = what + "page length " + std::to_string(length) + " is past the " +
                 std::to_string(raw.size()) + " bytes read";
        return false;
    }
    if (length < 8) {
        *error = what + "page length " + std::to_string(length) + " does not hold its header";
        return false;
    }
    *page = raw.substr(0, length);
    *generation = be32(raw, 4);
    return true;
}

struct Subenclosure {
    unsigned id;
    std::string vendor, product, revision;
    std::string logicalId;
};

struct TypeHeader {
    unsigned elementType, count;
    size_t subenclosure; // position in the subenclosure list
};

// The enclosure descriptors and type descriptor headers of the configuration
// page. The type descriptor texts after the headers are not needed.
bool decodeConfig(std::string_view page, std::vector<Subenclosure> *subs,
                  std::vector<TypeHeader> *types, std::string *error)
{
    const std::string what = "configuration page: ";
    size_t subCount = 1 + size_t{byteAt(page, 1)};
    size_t typeCount = 0;
    size_t pos = 8;
    for (size_t k = 0; k < subCount; ++k) {
        if (page.size() - pos < 4) {
            *error = what + "enclosure descriptor " + std::to_string(k) + " is past the page";
            return false;
        }
        size_t length = 4 + size_t{byteAt(page, pos + 3)};
        // 40 bytes hold the logical id, vendor, product and revision.
        if (length < 40 || page.size() - pos < length) {
            *error = what + "enclosure descriptor " + std::to_string(k) + " of " +
                     std::to_string(length) + " bytes is " +
                     (length < 40 ? "too short" : "past the page");
            return false;
        }
        std::string_view d = page.substr(pos, length);
        Subenclosure sub;
        sub.id = byteAt(d, 1);
        sub.logicalId = hexText(be32(d, 4), 8) + hexText(be32(d, 8), 8);
        sub.vendor = cleanText(d.substr(12, 8));
        sub.product = cleanText(d.substr(20, 16));
        sub.revision = cleanText(d.substr(36, 4));
        subs->push_back(std::move(sub));
        typeCount += byteAt(d, 2);
        pos += length;
    }
    if ((page.size() - pos) / 4 < typeCount) {
        *error = what + std::to_string(typeCount) + " type descriptor headers are past the page";
        return false;
    }
    for (size_t t = 0; t < typeCount; ++t, pos += 4) {
        unsigned subId = byteAt(page, pos + 2);
        auto sub = std::find_if(subs->begin(), subs->end(),
                                [subId](const Subenclosure &s) { return s.id == subId; });
        if (sub == subs->end()) {
            *error = what + "type descriptor header " + std::to_string(t) + " names subenclosure " +
                     std::to_string(subId) + ", which the page does not describe";
            return false;
        }
        types->push_back(
            {byteAt(page, pos), byteAt(page, pos + 1), static_cast<size_t>(sub - subs->begin())});
    }
    return true;
}

// Checks that an optional page came from the same configuration and holds
// `entries` fixed 4-byte entries after its header.
bool checkFixedEntries(std::string_view page, const char *name, uint32_t generation,
                       uint32_t configGeneration, size_t entries, std::string *error)
{
    if (generation != configGeneration) {
        *error = std::string(name) + " page: generation code " + std::to_string(generation) +
                 " differs from the configuration page's " + std::to_string(configGeneration);
        return false;
    }
    if ((page.size() - 8) / 4 < entries) {
        *error = std::string(name) + " page: holds " + std::to_string((page.size() - 8) / 4) +
                 " of the " + std::to_string(entries) + " entries the configuration counts";
        return false;
    }
    return true;
}

// The texts of the element descriptor page, one per entry (overall ones
// included), in page order.
bool splitDescriptors(std::string_view page, size_t entries, std::vector<std::string> *texts,
                      std::string *error)
{
    size_t pos = 8;
    for (size_t e = 0; e < entries; ++e) {
        if (page.size() - pos < 4 || page.size() - pos - 4 < be16(page, pos + 2)) {
            *error = "element descriptor page: descriptor " + std::to_string(e) + " of the " +
                     std::to_string(entries) + " the configuration counts is past the page";
            return false;
        }
        size_t length = be16(page, pos + 2);
        texts->push_back(cleanText(page.substr(pos + 4, length)));
        pos += 4 + length;
    }
    return true;
}

SesElement decodeElement(SesKind kind, std::string_view status, std::string_view threshold)
{
    SesElement e{};
    e.kind = kind;
    unsigned b0 = byteAt(status, 0);
    e.status = b0 & 0x0f;
    e.predictedFailure = (b0 & 0x80) != 0;
    e.disabled = (b0 & 0x40) != 0;
    e.swapped = (b0 & 0x20) != 0;
    if (kind == SesKind::kCooling) {
        e.fanRpm = ((byteAt(status, 1) & 0x07) << 8 | byteAt(status, 2)) * 10;
        e.speedCode = byteAt(status, 3) & 0x07;
    }
    if (kind == SesKind::kTemperature) {
        e.temperatureC = offsetTemperature(byteAt(status, 2));
        if (!threshold.empty()) {
            e.highCriticalC = offsetTemperature(byteAt(threshold, 0));
            e.highWarningC = offsetTemperature(byteAt(threshold, 1));
            e.lowWarningC = offsetTemperature(byteAt(threshold, 2));
            e.lowCriticalC = offsetTemperature(byteAt(threshold, 3));
        }
    }
    return e;
}

} // namespace

bool decodeSes(const SesPageViews &pages, SesEnclosure *out, std::string *error)
{
    std::string_view config, status, threshold, descriptor;
    uint32_t generation = 0, statusGeneration = 0, otherGeneration = 0;
    if (!openPage(pages.config, 0x01, "configuration", &config, &generation, error) ||
        !openPage(pages.status, 0x02, "enclosure status", &status, &statusGeneration, error))
        return false;
    std::vector<Subenclosure> subs;
    std::vector<TypeHeader> types;
    if (!decodeConfig(config, &subs, &types, error))
        return false;
    size_t entries = 0;
    for (const TypeHeader &t : types)
        entries += 1 + t.count;
    if (!checkFixedEntries(status, "enclosure status", statusGeneration, generation, entries,
                           error))
        return false;
    if (!pages.threshold.empty() &&
        (!openPage(pages.threshold, 0x05, "threshold in", &threshold, &otherGeneration, error) ||
         !checkFixedEntries(threshold, "threshold in", otherGeneration, generation, entries,
                            error)))
        return false;
    std::vector<std::string> texts;
    if (!pages.descriptor.empty()) {
        if (!openPage(pages.descriptor, 0x07, "element descriptor", &descriptor, &otherGeneration,
                      error))
            return false;
        if (otherGeneration != generation) {
            *error = "element descriptor page: generation code " + std::to_string(otherGeneration) +
                     " differs from the configuration page's " + std::to_string(generation);
            return false;
        }
        if (!splitDescriptors(descriptor, entries, &texts, error))
            return false;
    }

    SesEnclosure enclosure;
    enclosure.vendor = subs[0].vendor;
    enclosure.product = subs[0].product;
    enclosure.revision = subs[0].revision;
    enclosure.logicalId = subs[0].logicalId;
    enclosure.generation = generation;
    std::array<unsigned, kKindCount> nextIndex{};
    size_t entry = 0;
    for (const TypeHeader &t : types) {
        std::optional<size_t> row = kindRowOf(static_cast<uint8_t>(t.elementType));
        ++entry; // the overall element, which describes the type as a whole
        for (unsigned i = 0; i < t.count; ++i, ++entry) {
            if (!row)
                continue;
            size_t offset = 8 + 4 * entry;
            SesElement e =
                decodeElement(kKinds[*row].kind, status.substr(offset, 4),
                              threshold.empty() ? std::string_view() : threshold.substr(offset, 4));
            e.index = nextIndex[*row]++;
            if (!texts.empty())
                e.descriptor = texts[entry];
            const Subenclosure &sub = subs[t.subenclosure];
            e.vendor = sub.vendor;
            e.product = sub.product;
            e.revision = sub.revision;
            enclosure.elements.push_back(std::move(e));
        }
    }
    *out = std::move(enclosure);
    return true;
}

bool decodeSes(const SesPages &pages, SesEnclosure *out, std::string *error)
{
    return decodeSes(SesPageViews{pages.config, pages.status, pages.threshold, pages.descriptor},
                     out, error);
}

namespace {

// RECEIVE DIAGNOSTIC RESULTS; its allocation length is 16 bits.
constexpr uint8_t kReceiveDiagnosticResults = 0x1c;
constexpr size_t kLongestPage = 0xffff;
// Most enclosures answer every page within this; a longer page is read again
// at the length its header gives.
constexpr size_t kFirstRead = 4096;
constexpr unsigned kTimeoutMs = 30000;

enum class Receive { kRead, kRefused, kFailed };

// Sends one RECEIVE DIAGNOSTIC RESULTS for pageCode with an allocation length
// of `length` and sets *page to the bytes that came back. kRefused is a
// CHECK CONDITION with ILLEGAL REQUEST (page not supported); *error is set
// for it as for kFailed.
Receive receiveOnce(int fd, unsigned pageCode, size_t length, std::string *page, std::string *error)
{
    std::vector<uint8_t> buffer(length);
    const uint8_t cdb[6] = {kReceiveDiagnosticResults,           0x01 /* PCV */,
                            static_cast<uint8_t>(pageCode),      static_cast<uint8_t>(length >> 8),
                            static_cast<uint8_t>(length & 0xff), 0};
    const std::string what = "page 0x" + hexText(pageCode, 2) + ": ";
    std::string failure;
    const ScsiOutcome outcome =
        sendScsi(fd, cdb, sizeof cdb, buffer.data(), length, kTimeoutMs, &failure);
    if (!outcome.sent || !outcome.ok) {
        *error = what + (outcome.sent ? outcome.failure : failure);
        return refused(outcome) ? Receive::kRefused : Receive::kFailed;
    }
    page->assign(reinterpret_cast<const char *>(buffer.data()), outcome.got);
    return Receive::kRead;
}

// Reads one page whole: a page longer than the first read is read again at
// the length its header gives.
Receive receivePage(int fd, unsigned pageCode, std::string *page, std::string *error)
{
    Receive r = receiveOnce(fd, pageCode, kFirstRead, page, error);
    if (r != Receive::kRead || page->size() < 4)
        return r;
    size_t length = std::min(4 + size_t{be16(*page, 2)}, kLongestPage);
    if (length <= page->size())
        return r;
    return receiveOnce(fd, pageCode, length, page, error);
}

// The pages read, in the order read, with their capture file names.
struct PageRow {
    unsigned code;
    const char *file;
    bool optional;
    std::string SesPages::*member;
};
constexpr PageRow kPageRows[] = {
    {0x01, "page-01.bin", false, &SesPages::config},
    {0x02, "page-02.bin", false, &SesPages::status},
    {0x05, "page-05.bin", true, &SesPages::threshold},
    {0x07, "page-07.bin", true, &SesPages::descriptor},
};

} // namespace

bool readSesPagesSgIo(const std::string &devicePath, SesPages *pages, std::string *error)
{
    rt::UniqueFd fd(open(devicePath.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd) {
        *error = rt::errnoMessage("cannot open", devicePath);
        return false;
    }
    // SG_IO also works on block devices; the version query is the sg
    // driver's own, and it refuses regular files without side effects.
    int version = 0;
    if (ioctl(fd.get(), SG_GET_VERSION_NUM, &version) < 0) {
        *error = devicePath + ": not a SCSI generic device (" + rt::errnoText(errno) + ")";
        return false;
    }
    for (const PageRow &row : kPageRows) {
        std::string *page = &(pages->*row.member);
        page->clear();
        Receive r = receivePage(fd.get(), row.code, page, error);
        if (r == Receive::kRefused && row.optional)
            continue;
        if (r != Receive::kRead) {
            *error = devicePath + ": " + *error;
            return false;
        }
    }
    return true;
}

bool readSesPagesFiles(const std::string &dir, SesPages *pages, std::string *error)
{
    for (const PageRow &row : kPageRows) {
        std::string path = dir + "/" + row.file;
        std::string *page = &(pages->*row.member);
        switch (rt::readRegularFile(path, kLongestPage + 4, page, error)) {
        case rt::FileRead::kRead:
            break;
        case rt::FileRead::kMissing:
            if (row.optional)
                continue;
            return false;
        case rt::FileRead::kRefused:
            return false;
        }
        // An empty page would read as one the enclosure did not give.
        if (page->empty()) {
            *error = path + ": empty";
            return false;
        }
    }
    return true;
}

} // namespace kelp::live
