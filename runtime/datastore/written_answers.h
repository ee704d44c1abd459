// The single-object answers the data store wrote lately, kept to be copied
// the next time. A walk asks for each row's object once per column, so the
// same answers are written again and again while the model stays as it is.
//
// A WrittenAnswers takes no lock: its owner guards it. The answers are
// written one after the other into a ring of a fixed number of bytes,
// allocated once, so that they neither scatter over the heap nor keep more
// than the ring; a later answer writes over the oldest. They are found
// through a table of slots chosen by the object's position: a slot names
// the answer of one object of one model, named by the model's serial, so an
// answer of a model that is no longer served is never handed out. The table
// has at most a fixed number of slots; a model with more objects shares
// them, and the later answer takes the slot.
#ifndef KELP_RUNTIME_DATASTORE_WRITTEN_ANSWERS_H
#define KELP_RUNTIME_DATASTORE_WRITTEN_ANSWERS_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "xmlsup/flat_answer.h"

namespace kelp::ds {

class Model;

// One kept answer, as views into the ring: its text, and its element
// table when it was written with one (listed). Valid until the next keep.
struct WrittenAnswer {
    std::string_view text;
    std::span<const rt::xml::FlatElement> elements;
    bool listed = false;
};

class WrittenAnswers {
  public:
    // At most maxSlots answers are kept (0: none), in a ring of ringBytes.
    WrittenAnswers(size_t maxSlots, size_t ringBytes);

    // The kept answer of the object at pos of m, or nullopt.
    std::optional<WrittenAnswer> find(const Model &m, size_t pos) const;

    // Keeps a copy of the answer of the object at pos of m (text, and the
    // element table when listed), in place of the one its slot named. An
    // answer longer than the ring is not kept. Kept answers are only a
    // saving: without memory for the ring or the slots, nothing is kept and
    // no exception leaves.
    void keep(const Model &m, size_t pos, const char *text, size_t size, bool listed,
              const std::vector<rt::xml::FlatElement> &elements) noexcept;

    // How many slots the table has now, and the bytes of the ring (0 until
    // an answer is kept) (for tests).
    size_t slots() const { return slots_.size(); }
    size_t ringBytes() const { return ring_ ? ringBytes_ : 0; }

  private:
    struct Slot {
        uint64_t serial = 0; // 0: empty; serials start at 1
        size_t pos = 0;
        uint64_t at = 0;       // where in the ring, counted from its start over every lap
        uint32_t size = 0;     // of the text, after the element table
        uint32_t elements = 0; // in the table
        bool listed = false;
    };
    // The slot of pos in a table of slots_.size() slots (a power of two).
    size_t slotOf(size_t pos) const { return pos & (slots_.size() - 1); }
    // The bytes an answer takes in the ring: its table, then its text,
    // rounded up so that the next table starts aligned.
    static size_t bytesOf(size_t elements, size_t size);

    size_t maxSlots_;
    size_t ringBytes_;
    std::unique_ptr<unsigned char[]> ring_; // storage for tables and texts
    uint64_t head_ = 0;                     // bytes written into the ring over every lap
    std::vector<Slot> slots_;
};

} // namespace kelp::ds

#endif // KELP_RUNTIME_DATASTORE_WRITTEN_ANSWERS_H
