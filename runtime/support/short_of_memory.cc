// The runtime's answers when memory runs short (short_of_memory.h).
#include "support/short_of_memory.h"

#include <atomic>
#include <chrono>
#include <mutex>

#include "support/answer_blocks.h"
#include "support/log.h"

namespace kelp::rt {
namespace {

constexpr auto kLogInterval = std::chrono::minutes(1);

std::atomic<uint64_t> g_short{0};
std::atomic<bool> g_failBlocks{false};
std::atomic<size_t> g_failAtLeast{0};

std::mutex g_logMutex;
// Guarded by g_logMutex: when the last line went out, and the count then.
bool g_logged = false;
std::chrono::steady_clock::time_point g_lastLine;
uint64_t g_shortAtLastLine = 0;

} // namespace

void noteShortOfMemory(size_t bytes)
{
    const uint64_t count = g_short.fetch_add(1) + 1;
    const auto now = std::chrono::steady_clock::now();
    uint64_t since = 0;
    {
        std::lock_guard lock(g_logMutex);
        if (g_logged && now - g_lastLine < kLogInterval)
            return;
        since = count - g_shortAtLastLine;
        g_logged = true;
        g_lastLine = now;
        g_shortAtLastLine = count;
    }
    // Logged without the lock: the host's log takes its own.
    const auto n = static_cast<unsigned long long>(since);
    const char *plural = since == 1 ? "" : "s";
    if (bytes > 0) {
        logError("out of memory: the runtime could not have %zu bytes for an answer and "
                 "answered status 5, so the plug-in's tables may lack rows (%llu such answer%s "
                 "since the last line)",
                 bytes, n, plural);
    } else {
        logError("out of memory: the runtime answered status 5, so the plug-in's tables may "
                 "lack rows (%llu such answer%s since the last line)",
                 n, plural);
    }
}

void *answerBlock(size_t bytes, void *(*takeFirst)(size_t))
{
    if (g_failBlocks.load(std::memory_order_relaxed) && bytes >= g_failAtLeast.load())
        return nullptr;
    if (takeFirst != nullptr) {
        if (void *block = takeFirst(bytes))
            return block;
    }
    return takeAnswerBlock(bytes);
}

void failAnswerBlocksForTesting(bool fail, size_t atLeast)
{
    g_failAtLeast.store(atLeast);
    g_failBlocks.store(fail);
    std::lock_guard lock(g_logMutex);
    g_logged = false;
    g_shortAtLastLine = g_short.load();
}

uint64_t answersShortOfMemory()
{
    return g_short.load();
}

} // namespace kelp::rt
