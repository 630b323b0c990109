// Where the agenda files each schedule's entries.
//
// Removing a schedule's entry from the time-ordered agenda must not search
// the agenda. This index keeps, per schedule, the positions of its entries in
// one flat table, so that a lookup usually touches a single cache line; that
// matters when a recomputation or a busy second visits many schedules.
#pragma once

#include <cstdint>
#include <optional>

#include "orv/flat_table.h"

// Owner is a pointer that names a schedule. Position is the agenda's handle
// of an entry, which stays the same while the entry moves in the agenda;
// positions are compared for equality only, and ordered by the caller's less.
template <typename Owner, typename Position>
class agenda_index_t {
  public:
    // A schedule may have several positions; each pair is filed once.
    void insert(Owner object, Position position) { table_.insert({object, position}); }

    // False when the pair is not filed.
    bool erase(Owner object, const Position& position) {
        const std::size_t at = table_.scan(hashOf(object), [&](std::size_t, const slot_t& slot) {
            return slot.object == object && slot.position == position;
        });
        if (at == table_t::npos) {
            return false;
        }
        table_.eraseAt(at);
        return true;
    }

    // The object's first position by less, if it has one.
    template <typename Less>
    std::optional<Position> first(Owner object, Less less) const {
        std::optional<Position> earliest;
        table_.scan(hashOf(object), [&](std::size_t, const slot_t& slot) {
            if (slot.object == object && (!earliest || less(slot.position, *earliest))) {
                earliest = slot.position;
            }
            return false;
        });
        return earliest;
    }

    // Empties the table and keeps its capacity.
    void clear() { table_.clear(); }
    std::size_t size() const { return table_.size(); }

  private:
    struct slot_t {
        Owner object = nullptr;
        Position position{};
    };
    static std::uint64_t hashOf(Owner object) {
        return static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(object));
    }
    struct traits_t {
        static bool empty(const slot_t& slot) { return slot.object == nullptr; }
        static std::uint64_t hash(const slot_t& slot) { return hashOf(slot.object); }
    };
    using table_t = orv_flat_table_t<slot_t, traits_t>;
    table_t table_;
};
