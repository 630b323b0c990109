// Where the agenda files each schedule's entries.
//
// Removing a schedule's entry from the time-ordered agenda must not search
// the agenda. This index keeps, per schedule, the positions of its entries in
// one flat table (open addressing, linear probing), so that a lookup usually
// touches a single cache line instead of a bucket and a node on the heap;
// that matters when a recomputation or a busy second visits many schedules.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

class object_t;

// Position is the agenda's handle of an entry (an iterator); positions are
// compared for equality only, and ordered by the caller's less.
template <typename Position>
class peekindex_t {
  public:
    // A schedule may have several positions; each pair is filed once.
    void insert(const object_t* object, Position position) {
        if ((used_ + 1) * 2 > slots_.size()) {
            grow();
        }
        std::size_t at = home(object);
        while (slots_[at].object != nullptr) {
            at = next(at);
        }
        slots_[at] = {object, position};
        ++used_;
    }

    // False when the pair is not filed.
    bool erase(const object_t* object, const Position& position) {
        for (std::size_t at = start(object); at != kNone; at = following(at)) {
            if (slots_[at].object == object && slots_[at].position == position) {
                eraseAt(at);
                return true;
            }
        }
        return false;
    }

    // The object's first position by less, if it has one.
    template <typename Less>
    std::optional<Position> first(const object_t* object, Less less) const {
        std::optional<Position> earliest;
        for (std::size_t at = start(object); at != kNone; at = following(at)) {
            if (slots_[at].object == object &&
                (!earliest || less(slots_[at].position, *earliest))) {
                earliest = slots_[at].position;
            }
        }
        return earliest;
    }

    // Empties the table and keeps its capacity.
    void clear() {
        std::fill(slots_.begin(), slots_.end(), slot_t{});
        used_ = 0;
    }

    std::size_t size() const { return used_; }

  private:
    struct slot_t {
        const object_t* object = nullptr;
        Position position{};
    };
    static constexpr std::size_t kNone = static_cast<std::size_t>(-1);
    static constexpr unsigned kInitialBits = 6;
    // Fibonacci hashing spreads the addresses, whose low bits repeat.
    static constexpr std::uint64_t kGolden = 0x9E3779B97F4A7C15ULL;

    std::size_t home(const object_t* object) const {
        const auto address = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(object));
        return static_cast<std::size_t>((address * kGolden) >> (64U - bits_));
    }
    std::size_t next(std::size_t at) const { return (at + 1) & (slots_.size() - 1); }
    // The walk from an object's home runs over occupied slots; the table is
    // never more than half full, so an empty slot ends it.
    std::size_t start(const object_t* object) const {
        if (slots_.empty()) {
            return kNone;
        }
        const std::size_t at = home(object);
        return slots_[at].object != nullptr ? at : kNone;
    }
    std::size_t following(std::size_t at) const {
        const std::size_t after = next(at);
        return slots_[after].object != nullptr ? after : kNone;
    }

    void grow() {
        std::vector<slot_t> old = std::move(slots_);
        bits_ = old.empty() ? kInitialBits : bits_ + 1;
        slots_.assign(std::size_t{1} << bits_, slot_t{});
        used_ = 0;
        for (const slot_t& slot : old) {
            if (slot.object != nullptr) {
                insert(slot.object, slot.position);
            }
        }
    }

    // Backward-shift deletion: the slots after the hole that may live in it
    // move up, so that every entry stays reachable from its home without
    // tombstones.
    void eraseAt(std::size_t hole) {
        const std::size_t mask = slots_.size() - 1;
        for (std::size_t at = next(hole); slots_[at].object != nullptr; at = next(at)) {
            const std::size_t wanted = home(slots_[at].object);
            // Distances walked forwards, with wrap-around.
            if (((at - wanted) & mask) >= ((at - hole) & mask)) {
                slots_[hole] = slots_[at];
                hole = at;
            }
        }
        slots_[hole] = slot_t{};
        --used_;
    }

    std::vector<slot_t> slots_;
    std::size_t used_ = 0;
    unsigned bits_ = 0;
};
