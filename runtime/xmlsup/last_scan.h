// The calling thread's last scan of a short text. The plug-in asks the data
// store for short answers again and again (a count of associated objects,
// say), a new copy of the same few bytes each time; a scan of them costs far
// more than a compare. (The readiness answer's code is read from its fixed
// place before this, readiness_answer.h.)
//
// A look-up is answered from the last scan only when its text has the same
// bytes (compared whole), and the tag and occurrence are the same: the scan
// would find the same element, at the same offset. Longer texts are not
// kept: they carry a table (flat_answer.h, answer_index.h) or are read once.
#ifndef KELP_RUNTIME_XMLSUP_LAST_SCAN_H
#define KELP_RUNTIME_XMLSUP_LAST_SCAN_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "xmlsup/answer_index.h"

namespace kelp::rt::xml {

// Texts longer than this are not kept.
inline constexpr size_t kLastScanSize = 256;

// Keeps the scan of xml[0..length) for the occurrence-th `tag` and its
// answer `raw` (a view into xml, or nullopt: no such element) as the calling
// thread's last scan. A longer text is not kept and leaves the last scan as
// it is; without memory none is kept.
void rememberScan(const char *xml, size_t length, std::string_view tag, uint32_t occurrence,
                  std::optional<std::string_view> raw);

// The last scan's answer, as a view into xml, when xml has exactly its
// bytes and tag and occurrence are its own (indexed true); indexed false
// otherwise, and the caller scans.
IndexedLookup findInLastScan(const char *xml, size_t length, std::string_view tag,
                             uint32_t occurrence);

// Forgets the calling thread's last scan (tests).
void forgetLastScan();

} // namespace kelp::rt::xml

#endif // KELP_RUNTIME_XMLSUP_LAST_SCAN_H
