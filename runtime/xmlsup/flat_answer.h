// The element table of the last one-object answer a thread was handed. The
// plug-in reads an object's answer, and its own copy of it, attribute by
// attribute; each read would otherwise scan the text up to the attribute.
//
// Only a flat text has a table: elements <N>content</N> end to end, every
// name flat (isFlatName) and no content holding '<'. In such a text a scan
// for a flat tag finds exactly the elements of that name, in order, with
// their content, so the table answers as findElement does. A look-up is
// answered from the table only when the text it is handed has the same
// bytes as the answer (compared whole), so a copy, a changed text or a
// freed and reused block can never be answered from a stale table.
//
// The answer's bytes are those of the block it was handed out in, which
// its holder reads and does not write: the block itself is read without
// the compare, and copies are compared with it, until any answer is freed
// (noteAnswerFreed), as the answer index trusts a live answer
// (answer_index.h). When the thread frees the block before any other
// answer is freed, the flat answer keeps it (keepFlatAnswerBlock) instead
// of a copy made for every answer, and copies are compared with the kept
// block until the next answer; otherwise look-ups of copies scan.
#ifndef KELP_RUNTIME_XMLSUP_FLAT_ANSWER_H
#define KELP_RUNTIME_XMLSUP_FLAT_ANSWER_H

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "xmlsup/answer_index.h"

namespace kelp::rt::xml {

// One element of a flat text, as offsets into it.
struct FlatElement {
    uint32_t nameStart;
    uint32_t nameSize;
    uint32_t contentStart;
    uint32_t contentSize;
};

// Whether `name` may name an element of a flat text and be looked up in
// one: not empty, and none of the characters that end a name or start
// other markup for the scan (blanks, '/', '<', '>', '!', '?', quotes, '&',
// '=', NUL).
bool isFlatName(std::string_view name);

// Remembers the block text[0..length) with *elements, its elements in
// order, as the calling thread's flat answer, in place of the one before
// (whose kept block goes back, support/answer_blocks.h). The caller
// vouches that the text is flat and that the elements are all of it, and
// with distinctNames that no two elements have the same name: a look-up of
// a tag's first element then tries, before it scans, the position the
// thread last found that tag at, as answers of one type list their
// attributes alike. The elements are taken by swapping: *elements holds
// the earlier answer's afterwards, whose room the caller may reuse.
void rememberFlatAnswer(const char *text, size_t length, std::vector<FlatElement> *elements,
                        bool distinctNames);

// Forgets the calling thread's flat answer (a model is replaced, a test).
void forgetFlatAnswer();

// Called by freeMem for a block it frees, before noteAnswerFreed: true when
// it is the calling thread's flat answer's block and no answer was freed
// since it was handed out, and the flat answer then owns it (out of bounds
// to any reader under AddressSanitizer); false when the caller frees it.
bool keepFlatAnswerBlock(char *block);

// The block the calling thread's flat answer keeps, handed out for a new
// answer of `bytes` that is to replace it, or null when it keeps none or
// the block is smaller. The flat answer is forgotten with it: the caller
// remembers (or forgets) the answer it makes in the block, which saves
// giving the block back and taking another.
void *takeFlatAnswerBlock(size_t bytes);

// Called by freeMem before an answer's memory is released: from then on no
// thread trusts the block its flat answer was handed out in, as the memory
// may hold another answer, unless the thread keeps it (keepFlatAnswerBlock).
void noteAnswerFreed();

// Answers freed so far by any thread (noteAnswerFreed): a block that was
// out while this stayed the same was freed by nobody, so no other answer
// can have been handed out at its address.
uint64_t answersFreed();

// The occurrence-th `tag` of xml from the calling thread's flat answer's
// table, when xml has exactly that answer's bytes and tag is a flat name
// (indexed true, raw a view into xml, as findElement would answer);
// indexed false otherwise, and the caller scans.
IndexedLookup findInFlatAnswer(const char *xml, size_t length, std::string_view tag,
                               uint32_t occurrence);

} // namespace kelp::rt::xml

#endif // KELP_RUNTIME_XMLSUP_FLAT_ANSWER_H
