// Requests read from a socket but not yet answered, held per source and
// handed out in turn, so that a source sending without pause gets one
// answer for every one each other waiting source gets, and no more. When
// the queue is full, the source with the most requests waiting loses one:
// a single busy manager alone may fill it, and a flooder beside polite
// managers loses its excess while theirs get through. Free of net-snmp;
// not thread-safe.
#ifndef KELP_AGENT_FAIRQUEUE_H
#define KELP_AGENT_FAIRQUEUE_H

#include <cstddef>
#include <deque>
#include <map>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

namespace kelp::agent {

template <typename Item> class FairQueue {
    // An item moves in and out of the queue once everything that may
    // fail has been done.
    static_assert(std::is_nothrow_move_constructible_v<Item>);

  public:
    // Holds at most `capacity` items (at least one) over all sources.
    explicit FairQueue(size_t capacity) : capacity_(capacity > 0 ? capacity : 1) {}

    // Queues `item` from `source` (any key: an address's bytes, say). When
    // the queue was full, one item of the source with the most waiting is
    // dropped to make room (the newest of that source, `item` itself when
    // its own source has the most): returned with its source, for the
    // caller to release and log. When memory runs out (std::bad_alloc) the
    // queue is as it was and `item` is untouched, still the caller's.
    std::optional<std::pair<std::string, Item>> push(const std::string &source, Item &&item)
    {
        auto longest = waiting_.end();
        std::string longestSource;
        if (size_ == capacity_) {
            for (auto it = waiting_.begin(); it != waiting_.end(); ++it) {
                if (longest == waiting_.end() || it->second.size() > longest->second.size()) {
                    longest = it;
                }
            }
            const auto own = waiting_.find(source);
            if (own != waiting_.end() && own->second.size() >= longest->second.size()) {
                return std::make_pair(source, std::move(item));
            }
            // Copied before anything changes: all that may fail comes first.
            longestSource = longest->first;
        }
        auto [it, added] = waiting_.try_emplace(source);
        if (added) {
            try {
                turns_.push_back(source);
            } catch (...) {
                waiting_.erase(it);
                throw;
            }
        }
        try {
            it->second.push_back(std::move(item));
        } catch (...) {
            if (added) {
                turns_.pop_back();
                waiting_.erase(it);
            }
            throw;
        }
        size_++;
        std::optional<std::pair<std::string, Item>> dropped;
        if (longest != waiting_.end()) {
            dropped.emplace(std::move(longestSource), std::move(longest->second.back()));
            longest->second.pop_back();
            size_--;
            if (longest->second.empty()) {
                forget(longest);
            }
        }
        return dropped;
    }

    // The oldest item of the source whose turn it is, or nullopt when none
    // waits. That source's next item, if any, waits for every other waiting
    // source's turn. When memory runs out (std::bad_alloc) the queue is as
    // it was.
    std::optional<std::pair<std::string, Item>> pop()
    {
        if (turns_.empty()) {
            return std::nullopt;
        }
        auto it = waiting_.find(turns_.front());
        // The source's next turn is queued before anything is taken: all
        // that may fail comes first.
        const bool more = it->second.size() > 1;
        if (more) {
            turns_.push_back(turns_.front());
        }
        std::optional<std::pair<std::string, Item>> next;
        next.emplace(std::move(turns_.front()), std::move(it->second.front()));
        turns_.pop_front();
        it->second.pop_front();
        size_--;
        if (!more) {
            waiting_.erase(it);
        }
        return next;
    }

    // Drops the item pop() would hand out, and answers it; nullopt when none
    // waits. Allocates nothing, so that a caller whose pop ran out of
    // memory can still make room: the source keeps its turn, first, for
    // its next item, if any.
    std::optional<Item> dropFirst() noexcept
    {
        if (turns_.empty()) {
            return std::nullopt;
        }
        auto it = waiting_.find(turns_.front());
        std::optional<Item> dropped(std::move(it->second.front()));
        it->second.pop_front();
        size_--;
        if (it->second.empty()) {
            turns_.pop_front();
            waiting_.erase(it);
        }
        return dropped;
    }

    size_t size() const { return size_; }
    // The sources with items waiting.
    size_t sources() const { return waiting_.size(); }
    bool empty() const { return size_ == 0; }
    size_t capacity() const { return capacity_; }

  private:
    using Waiting = std::map<std::string, std::deque<Item>>;

    void forget(typename Waiting::iterator it)
    {
        for (auto turn = turns_.begin(); turn != turns_.end(); ++turn) {
            if (*turn == it->first) {
                turns_.erase(turn);
                break;
            }
        }
        waiting_.erase(it);
    }

    size_t capacity_;
    size_t size_ = 0;
    Waiting waiting_;               // each source with at least one item waiting
    std::deque<std::string> turns_; // the sources of waiting_, next turn first
};

} // namespace kelp::agent

#endif // KELP_AGENT_FAIRQUEUE_H
