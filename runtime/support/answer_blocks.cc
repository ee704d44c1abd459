// The calling thread's kept answer blocks (answer_blocks.h), by size class:
// class c holds the blocks of usable size [2^c, 2^(c+1)). Every block of a
// class above a request's holds it, so a request takes a fitting block of
// its own class, else one of the lowest non-empty class above it, which a
// bit mask finds.
#include "support/answer_blocks.h"

#include <malloc.h>
#include <sanitizer/asan_interface.h>

#include <bit>
#include <cstdint>
#include <cstdlib>

namespace kelp::rt {
namespace {

constexpr size_t kClasses = std::bit_width(kLargestKeptAnswerBlock);
static_assert(kClasses <= 32, "the class mask is 32 bits");

// The class of a block of `usable` bytes (at least 1).
size_t classOf(size_t usable)
{
    return static_cast<size_t>(std::bit_width(usable)) - 1;
}

// Plain data, reached without a guard on each answer: the blocks are freed
// at the thread's end by t_reaper, which a thread sets up when it first
// keeps one.
struct KeptBlocks {
    void *block[kClasses][kKeptAnswerBlocks];
    size_t usable[kClasses][kKeptAnswerBlocks];
    uint8_t inClass[kClasses];
    uint32_t nonEmpty; // bit c: class c has blocks
    size_t count;
    size_t takenAgain;
    bool reaperSet;
    // Set once the thread's blocks are freed at its end: a block given back
    // after that (a destructor that runs later frees an answer) is freed.
    bool ended;
};

constinit thread_local KeptBlocks t_kept{};

struct Reaper {
    ~Reaper()
    {
        KeptBlocks &kept = t_kept;
        for (size_t c = 0; c < kClasses; ++c) {
            for (size_t i = 0; i < kept.inClass[c]; ++i) {
                ASAN_UNPOISON_MEMORY_REGION(kept.block[c][i], kept.usable[c][i]);
                std::free(kept.block[c][i]);
            }
            kept.inClass[c] = 0;
        }
        kept.nonEmpty = 0;
        kept.count = 0;
        kept.ended = true;
    }
};

thread_local Reaper t_reaper;

// Hands out block i of class c.
void *takeFrom(KeptBlocks &kept, size_t c, size_t i)
{
    void *block = kept.block[c][i];
    ASAN_UNPOISON_MEMORY_REGION(block, kept.usable[c][i]);
    const size_t last = --kept.inClass[c];
    kept.block[c][i] = kept.block[c][last];
    kept.usable[c][i] = kept.usable[c][last];
    if (last == 0)
        kept.nonEmpty &= ~(uint32_t{1} << c);
    --kept.count;
    ++kept.takenAgain;
    return block;
}

} // namespace

void *takeAnswerBlock(size_t bytes)
{
    KeptBlocks &kept = t_kept;
    const uint32_t nonEmpty = kept.nonEmpty;
    if (nonEmpty == 0 || bytes > kLargestKeptAnswerBlock)
        return std::malloc(bytes);
    const size_t c = classOf(bytes | 1);
    if ((nonEmpty >> c & 1) != 0) {
        // The last one given back first: its memory is the likeliest to be
        // in the cache still.
        for (size_t i = kept.inClass[c]; i-- > 0;) {
            if (kept.usable[c][i] >= bytes)
                return takeFrom(kept, c, i);
        }
    }
    const uint32_t above = nonEmpty & ~((uint32_t{2} << c) - 1);
    if (above == 0)
        return std::malloc(bytes);
    const auto higher = static_cast<size_t>(std::countr_zero(above));
    return takeFrom(kept, higher, kept.inClass[higher] - size_t{1});
}

void giveBackAnswerBlock(void *block)
{
    if (block == nullptr)
        return;
    KeptBlocks &kept = t_kept;
    const size_t usable = malloc_usable_size(block);
    if (kept.ended || kept.count == kKeptAnswerBlocks || usable > kLargestKeptAnswerBlock ||
        usable == 0) {
        std::free(block);
        // A list answer of a large model runs to megabytes; once it is gone
        // what the heap can hand back goes back (kTrimAfterFreeing).
        if (usable >= kTrimAfterFreeing)
            malloc_trim(0);
        return;
    }
    if (!kept.reaperSet) {
        kept.reaperSet = true;
        static_cast<void>(&t_reaper); // registers its destructor for the thread's end
    }
    ASAN_POISON_MEMORY_REGION(block, usable);
    const size_t c = classOf(usable);
    const size_t i = kept.inClass[c]++;
    kept.block[c][i] = block;
    kept.usable[c][i] = usable;
    kept.nonEmpty |= uint32_t{1} << c;
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
