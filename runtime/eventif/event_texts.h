// A record of heap texts handed out and not yet released: the event reader
// (eventif/reader.h) keeps the event texts it hands out in one, so that it
// can reclaim those the plug-in's monitor never releases. Runtime-private.
#ifndef KELP_RUNTIME_EVENTIF_EVENT_TEXTS_H
#define KELP_RUNTIME_EVENTIF_EVENT_TEXTS_H

#include <cstddef>
#include <mutex>
#include <unordered_set>

namespace kelp::ev {

class HandedOutTexts {
  public:
    using Release = void (*)(void *);

    // Texts are released with releaseText (std::free unless a test counts).
    explicit HandedOutTexts(Release releaseText);
    HandedOutTexts();
    // Releases every text still held.
    ~HandedOutTexts();
    HandedOutTexts(const HandedOutTexts &) = delete;
    HandedOutTexts &operator=(const HandedOutTexts &) = delete;

    // Records a heap text as handed out; null is ignored.
    void add(char *text);

    // Releases text when it is held and answers true; answers false and does
    // nothing for null, for a pointer never added, and for one already
    // released or reclaimed.
    bool release(char *text);

    // Releases every text held; answers how many.
    size_t releaseAll();

    // The number of texts held.
    size_t held() const;

  private:
    Release release_;
    mutable std::mutex mutex_;
    std::unordered_set<char *> texts_; // guarded by mutex_
};

} // namespace kelp::ev

#endif // KELP_RUNTIME_EVENTIF_EVENT_TEXTS_H
