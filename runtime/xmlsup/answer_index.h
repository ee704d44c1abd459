// Element indexes of the texts the data store hands out. The plug-in reads a
// large list answer occurrence by occurrence ("ObjID" 0, 1, 2, ...); with an
// index each look-up is a vector access instead of a scan from the start.
//
// An index lives exactly as long as its answer: the data store registers a
// text when it hands it out and forgets it in freeMem before the memory is
// released, so a later answer at the same address never meets a stale index.
// A text the data store did not hand out has no index and is scanned.
#ifndef KELP_RUNTIME_XMLSUP_ANSWER_INDEX_H
#define KELP_RUNTIME_XMLSUP_ANSWER_INDEX_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace kelp::rt::xml {

// Answers shorter than this are not indexed here: an object's answer is read
// attribute by attribute from the table it was written with, kept for the
// thread that asked (flat_answer.h). Lists of many objects are longer and
// read occurrence by occurrence.
inline constexpr size_t kIndexedAnswerSize = 8192;

// Registers text[0..length) (NUL-terminated at length) as a live answer, if it
// is at least kIndexedAnswerSize long; a shorter one is left unregistered.
void registerAnswer(const char *text, size_t length);

// Forgets a registered answer; call before freeing it. Unknown texts are
// ignored.
void forgetAnswer(const char *text);

struct IndexedLookup {
    bool indexed = false;                // xml is a registered answer of this length
    std::optional<std::string_view> raw; // as findElement would answer
};

// The occurrence-th `tag` of xml through its index, built for a tag on its
// first look-up. indexed is false when xml is not a live answer of exactly
// this length (as every text shorter than kIndexedAnswerSize); the caller then
// scans.
IndexedLookup findIndexed(const char *xml, size_t length, std::string_view tag,
                          uint32_t occurrence);

// Live answers registered (tests).
size_t registeredAnswers();

} // namespace kelp::rt::xml

#endif // KELP_RUNTIME_XMLSUP_ANSWER_INDEX_H
