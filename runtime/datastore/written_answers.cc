#include "datastore/written_answers.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>

#include "datastore/model.h"

namespace kelp::ds {

using rt::xml::FlatElement;

WrittenAnswers::WrittenAnswers(size_t maxSlots, size_t ringBytes)
    : maxSlots_(maxSlots), ringBytes_(ringBytes / alignof(FlatElement) * alignof(FlatElement))
{
}

size_t WrittenAnswers::bytesOf(size_t elements, size_t size)
{
    const size_t bytes = elements * sizeof(FlatElement) + size;
    return (bytes + alignof(FlatElement) - 1) / alignof(FlatElement) * alignof(FlatElement);
}

std::optional<WrittenAnswer> WrittenAnswers::find(const Model &m, size_t pos) const
{
    if (slots_.empty())
        return std::nullopt;
    const Slot &slot = slots_[slotOf(pos)];
    // An answer is whole until the ring has come round to where it starts.
    if (slot.serial != m.serial() || slot.pos != pos || head_ - slot.at > ringBytes_)
        return std::nullopt;
    const unsigned char *start = ring_.get() + slot.at % ringBytes_;
    WrittenAnswer answer;
    answer.elements = {reinterpret_cast<const FlatElement *>(start), slot.elements};
    answer.text = {reinterpret_cast<const char *>(start) + slot.elements * sizeof(FlatElement),
                   slot.size};
    answer.listed = slot.listed;
    return answer;
}

void WrittenAnswers::keep(const Model &m, size_t pos, const char *text, size_t size, bool listed,
                          const std::vector<FlatElement> &elements) noexcept
{
    if (maxSlots_ == 0 || ringBytes_ == 0)
        return;
    try {
        // As many slots as the model has objects, up to the bound: a small
        // model keeps every answer without paying for a large table.
        const size_t wanted =
            std::min(std::bit_ceil(std::max<size_t>(m.size(), 1)), std::bit_floor(maxSlots_));
        // The table grows only for a model with more objects, which finds
        // none of the answers of the models before it anyway.
        if (slots_.size() < wanted)
            slots_.resize(wanted);
        if (!ring_) {
            // Pages of the ring become resident only as answers reach them.
            ring_.reset(new unsigned char[ringBytes_]);
        }
    } catch (const std::bad_alloc &) {
        return; // nothing kept: the slots name nothing new
    }
    Slot &slot = slots_[slotOf(pos)];
    slot.serial = 0;
    const size_t count = listed ? elements.size() : 0;
    const size_t bytes = bytesOf(count, size);
    if (bytes > ringBytes_)
        return;
    // An answer never wraps: one that does not fit before the ring's end
    // starts the next lap.
    if (head_ % ringBytes_ + bytes > ringBytes_)
        head_ += ringBytes_ - head_ % ringBytes_;
    unsigned char *start = ring_.get() + head_ % ringBytes_;
    if (count > 0)
        std::memcpy(start, elements.data(), count * sizeof(FlatElement));
    std::memcpy(start + count * sizeof(FlatElement), text, size);
    slot.at = head_;
    slot.size = static_cast<uint32_t>(size);
    slot.elements = static_cast<uint32_t>(count);
    slot.listed = listed;
    slot.pos = pos;
    slot.serial = m.serial();
    head_ += bytes;
}

} // namespace kelp::ds
