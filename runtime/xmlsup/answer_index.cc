// The registry of live data-store answers and their per-tag element indexes.
#include "xmlsup/answer_index.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "xmlsup/xml_scan.h"

namespace kelp::rt::xml {
namespace {

struct AnswerIndex {
    std::string_view text;
    std::mutex lock; // guards byTag: one answer may be read from several threads
    std::unordered_map<std::string, std::vector<std::optional<std::string_view>>> byTag;
};

std::mutex g_registryLock;
std::unordered_map<const char *, std::shared_ptr<AnswerIndex>> g_registry; // by g_registryLock
// g_registry.size(), readable without the lock: most answers are too short to
// be registered, and freeing one then needs no look-up.
std::atomic<size_t> g_registered{0};

} // namespace

void registerAnswer(const char *text, size_t length)
{
    if (length < kIndexedAnswerSize)
        return;
    auto index = std::make_shared<AnswerIndex>();
    index->text = std::string_view(text, length);
    std::lock_guard lock(g_registryLock);
    g_registry[text] = std::move(index);
    g_registered.store(g_registry.size(), std::memory_order_release);
}

void forgetAnswer(const char *text)
{
    // An answer is registered and forgotten by the thread that holds it, so
    // a count of 0 seen here cannot miss this text.
    if (g_registered.load(std::memory_order_acquire) == 0)
        return;
    std::lock_guard lock(g_registryLock);
    g_registry.erase(text);
    g_registered.store(g_registry.size(), std::memory_order_release);
}

IndexedLookup findIndexed(const char *xml, size_t length, std::string_view tag, uint32_t occurrence)
{
    if (length < kIndexedAnswerSize)
        return {};
    std::shared_ptr<AnswerIndex> index;
    {
        std::lock_guard lock(g_registryLock);
        auto it = g_registry.find(xml);
        if (it == g_registry.end() || it->second->text.size() != length)
            return {};
        index = it->second;
    }
    std::lock_guard lock(index->lock);
    auto [entry, added] = index->byTag.try_emplace(std::string(tag));
    if (added)
        entry->second = findAllElements(index->text, tag);
    const auto &occurrences = entry->second;
    IndexedLookup result;
    result.indexed = true;
    if (occurrence < occurrences.size())
        result.raw = occurrences[occurrence];
    return result;
}

size_t registeredAnswers()
{
    std::lock_guard lock(g_registryLock);
    return g_registry.size();
}

} // namespace kelp::rt::xml
