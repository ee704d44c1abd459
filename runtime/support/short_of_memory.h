// What the runtime does when memory runs short while it answers the plug-in
// (a data-store query, a look-up in an answer): the plug-in gets status 5,
// and may then show fewer rows or none, and the operator gets a line in the
// host's log saying why, at most once a minute with the number of such
// answers since the line before. Runtime-private.
#ifndef KELP_RUNTIME_SUPPORT_SHORT_OF_MEMORY_H
#define KELP_RUNTIME_SUPPORT_SHORT_OF_MEMORY_H

#include <cstddef>
#include <cstdint>

namespace kelp::rt {

// Notes one answer of status 5 for want of memory; `bytes` is the block
// that could not be had, 0 when not known. Logs the first time and
// then at most once a minute. Safe from any thread.
void noteShortOfMemory(size_t bytes);

// A block of `bytes` for a data-store answer, or null: takeFirst(bytes) when
// it is given and answers one (a block the answer is to replace), else
// takeAnswerBlock's. With failAnswerBlocksForTesting(true) every block of
// `atLeast` bytes or more is refused as if memory were short.
void *answerBlock(size_t bytes, void *(*takeFirst)(size_t) = nullptr);
void failAnswerBlocksForTesting(bool fail, size_t atLeast = 0);

// The number of answers noted short of memory so far (for tests).
uint64_t answersShortOfMemory();

} // namespace kelp::rt

#endif // KELP_RUNTIME_SUPPORT_SHORT_OF_MEMORY_H
