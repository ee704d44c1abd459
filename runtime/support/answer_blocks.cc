// The calling thread's kept answer blocks (answer_blocks.h).
#include "support/answer_blocks.h"

#include <malloc.h>
#include <sanitizer/asan_interface.h>

#include <cstdlib>

namespace kelp::rt {
namespace {

struct KeptBlocks {
    void *block[kKeptAnswerBlocks] = {};
    size_t usable[kKeptAnswerBlocks] = {};
    size_t count = 0;
    size_t takenAgain = 0;
    // Set once the thread's blocks are freed at its end: a block given back
    // after that (a destructor that runs later frees an answer) is freed.
    bool ended = false;

    ~KeptBlocks()
    {
        for (size_t i = 0; i < count; ++i) {
            ASAN_UNPOISON_MEMORY_REGION(block[i], usable[i]);
            std::free(block[i]);
        }
        count = 0;
        ended = true;
    }
};

thread_local KeptBlocks t_kept;

} // namespace

void *takeAnswerBlock(size_t bytes)
{
    KeptBlocks &kept = t_kept;
    size_t best = kept.count;
    for (size_t i = 0; i < kept.count; ++i) {
        if (kept.usable[i] >= bytes && (best == kept.count || kept.usable[i] < kept.usable[best]))
            best = i;
    }
    if (best == kept.count)
        return std::malloc(bytes);
    void *block = kept.block[best];
    ASAN_UNPOISON_MEMORY_REGION(block, kept.usable[best]);
    --kept.count;
    kept.block[best] = kept.block[kept.count];
    kept.usable[best] = kept.usable[kept.count];
    ++kept.takenAgain;
    return block;
}

void giveBackAnswerBlock(void *block)
{
    if (block == nullptr)
        return;
    KeptBlocks &kept = t_kept;
    const size_t usable = malloc_usable_size(block);
    if (kept.ended || kept.count == kKeptAnswerBlocks || usable > kLargestKeptAnswerBlock) {
        std::free(block);
        // A list answer of a large model runs to megabytes; once it is gone
        // what the heap can hand back goes back (kTrimAfterFreeing).
        if (usable >= kTrimAfterFreeing)
            malloc_trim(0);
        return;
    }
    ASAN_POISON_MEMORY_REGION(block, usable);
    kept.block[kept.count] = block;
    kept.usable[kept.count] = usable;
    ++kept.count;
}

size_t answerBlocksKept()
{
    return t_kept.count;
}

size_t answerBlocksTakenAgain()
{
    return t_kept.takenAgain;
}

} // namespace kelp::rt
