// The blocks the data store's answers are made in. The plug-in asks for an
// object's answer, and for the readiness answer, for every cell it reads,
// and frees each at once; an object's answer is about a kilobyte, more than
// the C heap keeps per thread, so every answer cost a full allocation and
// free. Each thread keeps the last few blocks it gave back and hands them
// out again. They are plain malloc blocks throughout: one that reaches
// free() or SMFreeMem instead is released as any other. Runtime-private.
#ifndef KELP_RUNTIME_SUPPORT_ANSWER_BLOCKS_H
#define KELP_RUNTIME_SUPPORT_ANSWER_BLOCKS_H

#include <cstddef>

namespace kelp::rt {

// Blocks a thread keeps, and the largest it keeps (usable bytes): an object's
// answer at its size limit fits, a list answer of a table does not.
constexpr size_t kKeptAnswerBlocks = 4;
constexpr size_t kLargestKeptAnswerBlock = 16 * 1024;

// A block of at least `bytes`: one the calling thread kept, of the
// smallest size class (usable bytes [2^c, 2^(c+1))) that holds them, and of
// those the one given back last; else a new one (malloc). Null when memory
// is short.
void *takeAnswerBlock(size_t bytes);

// A freed block of at least this size is followed by malloc_trim (a list
// answer of a large model runs to megabytes): the free pages of every
// arena's bins and the top of the main one go back to the system. The top
// of another thread's arena stays (README, Performance).
constexpr size_t kTrimAfterFreeing = size_t{1} << 20;

// Gives `block` back (null is ignored): the calling thread keeps it when it
// is no larger than kLargestKeptAnswerBlock and the thread keeps fewer than
// kKeptAnswerBlocks, and frees it otherwise. A kept block is out of bounds
// to every reader until it is handed out again (poisoned under
// AddressSanitizer). A thread's blocks are freed when it ends.
void giveBackAnswerBlock(void *block);

// For tests: the blocks the calling thread keeps, and how many of its
// blocks were kept ones.
size_t answerBlocksKept();
size_t answerBlocksTakenAgain();

} // namespace kelp::rt

#endif // KELP_RUNTIME_SUPPORT_ANSWER_BLOCKS_H
