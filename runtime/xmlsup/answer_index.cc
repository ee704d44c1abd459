// The registry of live data-store answers and their per-tag element indexes.
#include "xmlsup/answer_index.h"

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

} // namespace

void registerAnswer(const char *text, size_t length)
{
    auto index = std::make_shared<AnswerIndex>();
    index->text = std::string_view(text, length);
    std::lock_guard lock(g_registryLock);
    g_registry[text] = std::move(index);
}

void forgetAnswer(const char *text)
{
    std::lock_guard lock(g_registryLock);
    g_registry.erase(text);
}

IndexedLookup findIndexed(const char *xml, size_t length, std::string_view tag, uint32_t occurrence)
{
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
