// The record of event texts handed out and not yet released
// (eventif/event_texts.h).
#include "eventif/event_texts.h"

#include <cstdlib>

namespace kelp::ev {

HandedOutTexts::HandedOutTexts(Release releaseText) : release_(releaseText) {}

HandedOutTexts::HandedOutTexts() : HandedOutTexts(&std::free) {}

HandedOutTexts::~HandedOutTexts()
{
    releaseAll();
}

void HandedOutTexts::add(char *text)
{
    if (text == nullptr)
        return;
    std::lock_guard lock(mutex_);
    texts_.insert(text);
}

bool HandedOutTexts::release(char *text)
{
    std::lock_guard lock(mutex_);
    if (text == nullptr || texts_.erase(text) == 0)
        return false;
    release_(text);
    return true;
}

size_t HandedOutTexts::releaseAll()
{
    std::lock_guard lock(mutex_);
    const size_t count = texts_.size();
    for (char *text : texts_)
        release_(text);
    texts_.clear();
    return count;
}

size_t HandedOutTexts::held() const
{
    std::lock_guard lock(mutex_);
    return texts_.size();
}

} // namespace kelp::ev
