// The data store's readiness answer, which the plug-in asks for and reads
// the code of before every cell it answers: one of two fixed texts. A
// look-up of its code in a text with exactly the bytes of either is answered
// from where the code lies in them, without a scan; the scan would find the
// same element at the same offset.
#ifndef KELP_RUNTIME_XMLSUP_READINESS_ANSWER_H
#define KELP_RUNTIME_XMLSUP_READINESS_ANSWER_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "xmlsup/answer_index.h"

namespace kelp::rt::xml {

// The readiness answers of a ready store and of one that is not.
inline constexpr std::string_view kReadyAnswer = "<DataStoreReady><Code>0</Code></DataStoreReady>";
inline constexpr std::string_view kNotReadyAnswer =
    "<DataStoreReady><Code>1</Code></DataStoreReady>";

// The first "Code" of xml[0..length) (indexed true, raw a view into xml)
// when the text is either readiness answer; indexed false for any other
// text, tag or occurrence, and the caller scans.
IndexedLookup findInReadinessAnswer(const char *xml, size_t length, std::string_view tag,
                                    uint32_t occurrence);

} // namespace kelp::rt::xml

#endif // KELP_RUNTIME_XMLSUP_READINESS_ANSWER_H
