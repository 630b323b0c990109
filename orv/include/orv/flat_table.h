// A flat hash table: open addressing with linear probing in one array.
//
// Node-based hash maps cost a bucket, a node and then the element itself on
// every lookup; with a few hundred thousand elements each of those is a cache
// miss. Here a lookup usually reads one slot. Slots are small records that
// the user defines; Traits tells an empty slot and a slot's hash:
//
//   struct Traits {
//       static bool empty(const Slot& slot);
//       static std::uint64_t hash(const Slot& slot);
//   };
//
// A default-constructed Slot must be empty. Several slots may share a hash or
// even be equal: finding is up to the caller's match. The table is kept at
// most half full, so that every probe run ends soon at an empty slot, and
// erasing shifts the run back instead of leaving tombstones.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

template <typename Slot, typename Traits>
class orv_flat_table_t {
  public:
    static constexpr std::size_t npos = static_cast<std::size_t>(-1);

    void insert(const Slot& slot) {
        if ((used_ + 1) * 2 > slots_.size()) {
            grow();
        }
        std::size_t at = home(Traits::hash(slot));
        while (!Traits::empty(slots_[at])) {
            at = next(at);
        }
        slots_[at] = slot;
        ++used_;
    }

    // Calls visit(index, slot) for every slot on the probe run of hash, in
    // order, until visit returns true; that index, or npos.
    template <typename Visit>
    std::size_t scan(std::uint64_t hash, Visit visit) const {
        if (slots_.empty()) {
            return npos;
        }
        for (std::size_t at = home(hash); !Traits::empty(slots_[at]); at = next(at)) {
            if (visit(at, slots_[at])) {
                return at;
            }
        }
        return npos;
    }

    // Backward-shift deletion: the slots after the hole that may live in it
    // move up, so that every slot stays reachable from its home.
    void eraseAt(std::size_t hole) {
        const std::size_t mask = slots_.size() - 1;
        for (std::size_t at = next(hole); !Traits::empty(slots_[at]); at = next(at)) {
            const std::size_t wanted = home(Traits::hash(slots_[at]));
            // Distances walked forwards, with wrap-around.
            if (((at - wanted) & mask) >= ((at - hole) & mask)) {
                slots_[hole] = slots_[at];
                hole = at;
            }
        }
        slots_[hole] = Slot{};
        --used_;
    }

    // Empties the table and keeps its capacity.
    void clear() {
        std::fill(slots_.begin(), slots_.end(), Slot{});
        used_ = 0;
    }

    std::size_t size() const { return used_; }

  private:
    static constexpr unsigned kInitialBits = 4;
    // Fibonacci hashing spreads hashes whose low bits repeat, such as
    // addresses.
    static constexpr std::uint64_t kGolden = 0x9E3779B97F4A7C15ULL;

    std::size_t home(std::uint64_t hash) const {
        return static_cast<std::size_t>((hash * kGolden) >> (64U - bits_));
    }
    std::size_t next(std::size_t at) const { return (at + 1) & (slots_.size() - 1); }

    void grow() {
        std::vector<Slot> old = std::move(slots_);
        bits_ = old.empty() ? kInitialBits : bits_ + 1;
        slots_.assign(std::size_t{1} << bits_, Slot{});
        used_ = 0;
        for (const Slot& slot : old) {
            if (!Traits::empty(slot)) {
                insert(slot);
            }
        }
    }

    std::vector<Slot> slots_;
    std::size_t used_ = 0;
    unsigned bits_ = 0;
};
