// The single-object answers a thread wrote lately, kept to be copied the
// next time. A walk asks for each row's object once per column, so the same
// answers are written again and again while the model stays as it is.
//
// Each thread keeps its own (no lock on the request path). The answers sit
// in a table of slots chosen by the object's position: a slot holds the
// answer of one object of one model, named by the model's serial, so an
// answer of a model that is no longer served is never handed out. The
// table has at most a fixed number of slots, and its answers at most a
// fixed number of bytes; a model with more objects shares the slots (the
// later answer takes the slot), and an answer that would go over the bytes
// is not kept.
#ifndef KELP_RUNTIME_DATASTORE_WRITTEN_ANSWERS_H
#define KELP_RUNTIME_DATASTORE_WRITTEN_ANSWERS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "xmlsup/flat_answer.h"

namespace kelp::ds {

class Model;

// One kept answer: its text, and its element table when it was written
// with one (listed).
struct WrittenAnswer {
    std::string text;
    std::vector<rt::xml::FlatElement> elements;
    bool listed = false;
};

class WrittenAnswers {
  public:
    // At most maxSlots answers are kept (0: none), holding at most maxBytes
    // of text and tables together.
    WrittenAnswers(size_t maxSlots, size_t maxBytes) : maxSlots_(maxSlots), maxBytes_(maxBytes) {}

    // The kept answer of the object at pos of m, or null.
    const WrittenAnswer *find(const Model &m, size_t pos) const;

    // Keeps a copy of the answer of the object at pos of m (text, and the
    // element table when listed), in place of the one its slot held. Kept
    // answers are only a saving: without memory for the copy, nothing is
    // kept and no exception leaves.
    void keep(const Model &m, size_t pos, const char *text, size_t size, bool listed,
              const std::vector<rt::xml::FlatElement> &elements) noexcept;

    // How many slots the table has now, and the bytes its answers hold
    // (for tests).
    size_t slots() const { return slots_.size(); }
    size_t bytes() const { return bytes_; }

  private:
    struct Slot {
        uint64_t serial = 0; // 0: empty; serials start at 1
        size_t pos = 0;
        WrittenAnswer answer;
    };
    // The slot of pos in a table of slots_.size() slots (a power of two).
    size_t slotOf(size_t pos) const { return pos & (slots_.size() - 1); }

    // The room a slot's answer holds.
    static size_t bytesOf(const WrittenAnswer &answer);

    size_t maxSlots_;
    size_t maxBytes_;
    size_t bytes_ = 0; // bytesOf every slot
    std::vector<Slot> slots_;
};

} // namespace kelp::ds

#endif // KELP_RUNTIME_DATASTORE_WRITTEN_ANSWERS_H
