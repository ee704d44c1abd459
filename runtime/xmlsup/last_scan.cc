// The calling thread's last scan of a short text: its bytes, what was asked,
// and where the answer lay.
#include "xmlsup/last_scan.h"

#include <cstring>
#include <new>
#include <string>

namespace kelp::rt::xml {
namespace {

struct LastScan {
    bool valid = false;
    std::string text;
    std::string tag;
    uint32_t occurrence = 0;
    bool found = false;
    size_t offset = 0; // of the answer in the text, when found
    size_t size = 0;
};

// Per thread, as the look-ups are: no lock on the way. The strings keep
// their room from one scan to the next.
thread_local LastScan t_last;

} // namespace

void rememberScan(const char *xml, size_t length, std::string_view tag, uint32_t occurrence,
                  std::optional<std::string_view> raw)
{
    // A longer text leaves the last short one kept: a short answer asked
    // for again stays found across the scans of other answers between.
    if (length > kLastScanSize)
        return;
    LastScan &last = t_last;
    last.valid = false;
    try {
        last.text.assign(xml, length);
        last.tag.assign(tag);
    } catch (const std::bad_alloc &) {
        return; // look-ups scan
    }
    last.occurrence = occurrence;
    last.found = raw.has_value();
    // An empty answer may lie outside the text (a self-closed element).
    last.offset = raw && !raw->empty() ? static_cast<size_t>(raw->data() - xml) : 0;
    last.size = raw ? raw->size() : 0;
    last.valid = true;
}

IndexedLookup findInLastScan(const char *xml, size_t length, std::string_view tag,
                             uint32_t occurrence)
{
    const LastScan &last = t_last;
    if (!last.valid || last.text.size() != length || last.occurrence != occurrence ||
        last.tag != tag || std::memcmp(xml, last.text.data(), length) != 0) {
        return {};
    }
    IndexedLookup result;
    result.indexed = true;
    if (last.found)
        result.raw = std::string_view(xml + last.offset, last.size);
    return result;
}

void forgetLastScan()
{
    t_last.valid = false;
}

} // namespace kelp::rt::xml
