// The calling thread's flat answer: a copy of its text and its element table.
#include "xmlsup/flat_answer.h"

#include <atomic>
#include <cstring>
#include <new>
#include <string>

namespace kelp::rt::xml {
namespace {

struct FlatAnswer {
    bool valid = false;
    std::string text;
    std::vector<FlatElement> elements;
    // The block the answer was handed out in, and g_answersFreed then.
    const char *block = nullptr;
    uint64_t freedBefore = 0;
};

// Per thread: an answer is read by the thread that asked for it, and no
// lock is taken on the way. The buffers keep their capacity from one
// answer to the next.
thread_local FlatAnswer t_flat;

// Answers freed so far, by any thread.
std::atomic<uint64_t> g_answersFreed{0};

} // namespace

bool isFlatName(std::string_view name)
{
    if (name.empty())
        return false;
    for (char c : name) {
        switch (c) {
        case ' ':
        case '\t':
        case '\r':
        case '\n':
        case '/':
        case '<':
        case '>':
        case '!':
        case '?':
        case '"':
        case '\'':
        case '&':
        case '=':
        case '\0':
            return false;
        default:
            break;
        }
    }
    return true;
}

void rememberFlatAnswer(const char *text, size_t length, std::vector<FlatElement> *elements)
{
    FlatAnswer &flat = t_flat;
    flat.valid = false;
    try {
        flat.text.assign(text, length);
        flat.elements.swap(*elements);
        flat.block = text;
        flat.freedBefore = g_answersFreed.load(std::memory_order_acquire);
        flat.valid = true;
    } catch (const std::bad_alloc &) {
        // Look-ups scan, as for any other text.
    }
}

void forgetFlatAnswer()
{
    t_flat.valid = false;
}

void noteAnswerFreed()
{
    g_answersFreed.fetch_add(1, std::memory_order_acq_rel);
}

IndexedLookup findInFlatAnswer(const char *xml, size_t length, std::string_view tag,
                               uint32_t occurrence)
{
    const FlatAnswer &flat = t_flat;
    if (!flat.valid || flat.text.size() != length || tag.empty()) {
        return {};
    }
    // The block handed out holds the remembered bytes for as long as no
    // answer has been freed since; any other text is compared.
    const bool handedOut =
        xml == flat.block && flat.freedBefore == g_answersFreed.load(std::memory_order_acquire);
    if (!handedOut && std::memcmp(xml, flat.text.data(), length) != 0) {
        return {};
    }
    uint32_t seen = 0;
    bool named = false; // tag names an element of the text
    const char first = tag.front();
    for (const FlatElement &e : flat.elements) {
        // Most names differ in length or in their first letter.
        if (e.nameSize != tag.size() || xml[e.nameStart] != first ||
            std::memcmp(xml + e.nameStart, tag.data(), tag.size()) != 0) {
            continue;
        }
        named = true;
        if (seen++ == occurrence) {
            IndexedLookup result;
            result.indexed = true;
            result.raw = std::string_view(xml + e.contentStart, e.contentSize);
            return result;
        }
    }
    // A tag that names an element is flat, as every name in the table is.
    // Any other tag is answered "none" only when it is flat: the scan may
    // match a tag holding markup (a blank, '>') in a way the table cannot.
    IndexedLookup result;
    result.indexed = named || isFlatName(tag);
    return result;
}

} // namespace kelp::rt::xml
