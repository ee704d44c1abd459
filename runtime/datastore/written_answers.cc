#include "datastore/written_answers.h"

#include <algorithm>
#include <bit>
#include <new>

#include "datastore/model.h"

namespace kelp::ds {

const WrittenAnswer *WrittenAnswers::find(const Model &m, size_t pos) const
{
    if (slots_.empty())
        return nullptr;
    const Slot &slot = slots_[slotOf(pos)];
    if (slot.serial != m.serial() || slot.pos != pos)
        return nullptr;
    return &slot.answer;
}

size_t WrittenAnswers::bytesOf(const WrittenAnswer &answer)
{
    return answer.text.capacity() + answer.elements.capacity() * sizeof(rt::xml::FlatElement);
}

void WrittenAnswers::keep(const Model &m, size_t pos, const char *text, size_t size, bool listed,
                          const std::vector<rt::xml::FlatElement> &elements) noexcept
{
    if (maxSlots_ == 0)
        return;
    try {
        // As many slots as the model has objects, up to the bound: a small
        // model keeps every answer without paying for a large table.
        const size_t wanted = std::min(std::bit_ceil(std::max<size_t>(m.size(), 1)),
                                       std::bit_floor(maxSlots_));
        if (slots_.size() < wanted)
            slots_.resize(wanted); // the answers kept stay where they are
        Slot &slot = slots_[slotOf(pos)];
        slot.serial = 0;
        bytes_ -= bytesOf(slot.answer);
        const size_t tableBytes = listed ? elements.size() * sizeof(rt::xml::FlatElement) : 0;
        if (bytes_ + size + tableBytes > maxBytes_) {
            // Its room goes back too: what stays kept fits the bound.
            slot.answer = WrittenAnswer{};
            return;
        }
        slot.answer.text.assign(text, size);
        if (listed)
            slot.answer.elements.assign(elements.begin(), elements.end());
        else
            slot.answer.elements.clear();
        bytes_ += bytesOf(slot.answer);
        if (bytes_ > maxBytes_) {
            // The buffers kept room from a longer answer.
            bytes_ -= bytesOf(slot.answer);
            slot.answer = WrittenAnswer{};
            return;
        }
        slot.answer.listed = listed;
        slot.pos = pos;
        slot.serial = m.serial();
    } catch (const std::bad_alloc &) {
        // Not kept: the next ask writes the answer again. The slot's room
        // is counted as it stands.
        if (!slots_.empty()) {
            Slot &slot = slots_[slotOf(pos)];
            slot.serial = 0;
            bytes_ = 0;
            for (const Slot &s : slots_)
                bytes_ += bytesOf(s.answer);
        }
    }
}

} // namespace kelp::ds
