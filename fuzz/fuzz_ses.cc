// The SES diagnostic pages of an enclosure (decodeSes), as an enclosure's
// firmware or a captured tree's page files give them to the live source.
// The input is binary: three 2-byte big-endian lengths, then the
// configuration page (0x01), the status page (0x02) and the threshold page
// (0x05) of those lengths, then the element descriptor page (0x07), the
// rest. Lengths past the end are cut to it. Each page sits in a buffer of
// exactly its size, so that a read past one is out of bounds.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "datastore/live/ses.h"
#include "fuzz_common.h"

namespace {

using kelp::live::SesElement;
using kelp::live::SesEnclosure;
using kelp::live::SesKind;

// Printable ASCII without blanks at either end, as the decoder trims texts.
bool trimmedPrintable(const std::string &text)
{
    for (char c : text) {
        if (c < 0x20 || c > 0x7e)
            return false;
    }
    return text.empty() || (text.front() != ' ' && text.back() != ' ');
}

bool sameElement(const SesElement &a, const SesElement &b)
{
    return a.kind == b.kind && a.index == b.index && a.status == b.status &&
           a.predictedFailure == b.predictedFailure && a.swapped == b.swapped &&
           a.disabled == b.disabled && a.temperatureC == b.temperatureC && a.fanRpm == b.fanRpm &&
           a.speedCode == b.speedCode && a.highCriticalC == b.highCriticalC &&
           a.highWarningC == b.highWarningC && a.lowWarningC == b.lowWarningC &&
           a.lowCriticalC == b.lowCriticalC && a.descriptor == b.descriptor &&
           a.vendor == b.vendor && a.product == b.product && a.revision == b.revision;
}

void checkDecoded(const SesEnclosure &enc)
{
    FUZZ_CHECK(trimmedPrintable(enc.vendor) && trimmedPrintable(enc.product) &&
               trimmedPrintable(enc.revision));
    FUZZ_CHECK(enc.logicalId.size() == 16);
    for (char c : enc.logicalId)
        FUZZ_CHECK((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'));
    // Each kind's elements are numbered 0, 1, ... in the order they come.
    unsigned next[4] = {0, 0, 0, 0};
    for (const SesElement &e : enc.elements) {
        const auto kind = static_cast<size_t>(e.kind);
        FUZZ_CHECK(kind < 4);
        FUZZ_CHECK(e.index == next[kind]++);
        FUZZ_CHECK(e.status <= 15);
        FUZZ_CHECK(trimmedPrintable(e.descriptor) && trimmedPrintable(e.vendor) &&
                   trimmedPrintable(e.product) && trimmedPrintable(e.revision));
        // Degrees are a byte minus 20; a fan's speed is 11 bits times 10.
        for (const std::optional<int> &c :
             {e.temperatureC, e.highCriticalC, e.highWarningC, e.lowWarningC, e.lowCriticalC}) {
            FUZZ_CHECK(!c || (*c >= -19 && *c <= 235));
        }
        FUZZ_CHECK(e.kind == SesKind::kTemperature ||
                   (!e.temperatureC && !e.highCriticalC && !e.lowCriticalC));
        FUZZ_CHECK(e.kind == SesKind::kCooling ? e.fanRpm && *e.fanRpm <= 20470 && e.speedCode <= 7
                                               : !e.fanRpm && e.speedCode == 0);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view input(reinterpret_cast<const char *>(data), size);
    std::vector<char> pages[4];
    for (size_t i = 0; i < 4; ++i) {
        size_t length = input.size();
        if (i < 3) {
            const size_t high = input.size() > 0 ? static_cast<uint8_t>(input[0]) : 0;
            const size_t low = input.size() > 1 ? static_cast<uint8_t>(input[1]) : 0;
            input.remove_prefix(std::min<size_t>(2, input.size()));
            length = std::min(high << 8 | low, input.size());
        }
        pages[i].assign(input.begin(), input.begin() + static_cast<std::ptrdiff_t>(length));
        input.remove_prefix(length);
    }
    const auto view = [&](size_t i) { return std::string_view(pages[i].data(), pages[i].size()); };
    const kelp::live::SesPageViews views{view(0), view(1), view(2), view(3)};

    SesEnclosure enc;
    enc.vendor = "untouched";
    std::string error;
    if (!kelp::live::decodeSes(views, &enc, &error)) {
        // A refusal says why and leaves the enclosure as it was.
        FUZZ_CHECK(!error.empty());
        FUZZ_CHECK(enc.vendor == "untouched" && enc.elements.empty());
        return 0;
    }
    checkDecoded(enc);
    // The same pages decode the same way again.
    SesEnclosure again;
    FUZZ_CHECK(kelp::live::decodeSes(views, &again, &error));
    FUZZ_CHECK(again.vendor == enc.vendor && again.product == enc.product &&
               again.revision == enc.revision && again.logicalId == enc.logicalId &&
               again.generation == enc.generation && again.elements.size() == enc.elements.size());
    for (size_t i = 0; i < enc.elements.size(); ++i)
        FUZZ_CHECK(sameElement(enc.elements[i], again.elements[i]));
    return 0;
}
