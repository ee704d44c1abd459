// A name of at most N arcs held in place, for the names a request makes one
// of per varbind: the name asked of the plug-in and the name answered. The
// heap is not touched, and a copy copies the arcs in use only.
#ifndef KELP_AGENT_FIXED_NAME_H
#define KELP_AGENT_FIXED_NAME_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <vector>

namespace kelp::agent {

template <typename Arc, size_t N> class FixedName {
  public:
    using value_type = Arc;
    using iterator = const Arc *;
    using const_iterator = const Arc *;
    static constexpr size_t kCapacity = N;

    FixedName() = default;
    FixedName(const FixedName &other) : size_(other.size_)
    {
        std::copy_n(other.arcs_.data(), size_, arcs_.data());
    }
    FixedName &operator=(const FixedName &other)
    {
        size_ = other.size_;
        std::copy_n(other.arcs_.data(), size_, arcs_.data());
        return *this;
    }

    // Replaces the arcs with `arcs`, converted to Arc; false, leaving the
    // name empty, when they are more than N. The caller sees to it that
    // each arc fits Arc.
    template <typename From> bool assign(std::span<const From> arcs)
    {
        if (arcs.size() > N) {
            size_ = 0;
            return false;
        }
        size_ = arcs.size();
        std::copy(arcs.begin(), arcs.end(), arcs_.begin());
        return true;
    }
    // Appends `arcs`; false, changing nothing, when the name would outgrow N.
    template <typename From> bool append(std::span<const From> arcs)
    {
        if (arcs.size() > N - size_)
            return false;
        std::copy(arcs.begin(), arcs.end(), arcs_.begin() + size_);
        size_ += arcs.size();
        return true;
    }
    bool append(std::initializer_list<Arc> arcs)
    {
        return append(std::span<const Arc>(arcs.begin(), arcs.size()));
    }

    Arc *data() { return arcs_.data(); }
    const Arc *data() const { return arcs_.data(); }
    size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    const Arc *begin() const { return arcs_.data(); }
    const Arc *end() const { return arcs_.data() + size_; }
    std::span<const Arc> span() const { return {arcs_.data(), size_}; }

    friend bool operator==(const FixedName &a, const FixedName &b)
    {
        return std::ranges::equal(a.span(), b.span());
    }
    friend bool operator==(const FixedName &a, const std::vector<Arc> &b)
    {
        return std::ranges::equal(a.span(), b);
    }

  private:
    size_t size_ = 0;
    // Only arcs_[0, size_) are ever read.
    std::array<Arc, N> arcs_;
};

// A name the plug-in is asked for or answers, in its 32-bit arcs: SNMP's
// 128 arcs at most.
using PluginName = FixedName<uint32_t, 128>;

} // namespace kelp::agent

#endif // KELP_AGENT_FIXED_NAME_H
