#include "scheduler_peekindex.h"

#include <algorithm>
#include <utility>

namespace {

constexpr unsigned kInitialBits = 6;
// Fibonacci hashing spreads the addresses, whose low bits repeat.
constexpr std::uint64_t kGolden = 0x9E3779B97F4A7C15ULL;

}  // namespace

std::size_t peekindex_t::home(const object_t* object) const {
    const auto address = reinterpret_cast<std::uintptr_t>(object);
    return static_cast<std::size_t>((static_cast<std::uint64_t>(address) * kGolden) >>
                                    (64U - bits_));
}

std::optional<std::size_t> peekindex_t::find(const object_t* object,
                                             const peekindex_key_t& key) const {
    if (slots_.empty()) {
        return std::nullopt;
    }
    const std::size_t mask = slots_.size() - 1;
    // The table is never more than half full, so an empty slot ends the walk.
    for (std::size_t at = home(object); slots_[at].object != nullptr; at = (at + 1) & mask) {
        if (slots_[at].object == object && slots_[at].key == key) {
            return at;
        }
    }
    return std::nullopt;
}

void peekindex_t::grow() {
    std::vector<slot_t> old = std::move(slots_);
    bits_ = old.empty() ? kInitialBits : bits_ + 1;
    slots_.assign(std::size_t{1} << bits_, slot_t{});
    used_ = 0;
    for (const slot_t& slot : old) {
        if (slot.object != nullptr) {
            insert(slot.object, slot.key);
        }
    }
}

void peekindex_t::insert(const object_t* object, const peekindex_key_t& key) {
    if ((used_ + 1) * 2 > slots_.size()) {
        grow();
    }
    const std::size_t mask = slots_.size() - 1;
    std::size_t at = home(object);
    while (slots_[at].object != nullptr) {
        at = (at + 1) & mask;
    }
    slots_[at] = {object, key};
    ++used_;
}

bool peekindex_t::rekey(const object_t* object, const peekindex_key_t& from,
                        const peekindex_key_t& to) {
    std::optional<std::size_t> at = find(object, from);
    if (at) {
        slots_[*at].key = to;
    }
    return at.has_value();
}

bool peekindex_t::erase(const object_t* object, const peekindex_key_t& key) {
    std::optional<std::size_t> at = find(object, key);
    if (at) {
        eraseAt(*at);
    }
    return at.has_value();
}

// Backward-shift deletion: the slots after the hole that could live in it move
// up, so that every entry stays reachable from its home without tombstones.
void peekindex_t::eraseAt(std::size_t hole) {
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t next = (hole + 1) & mask; slots_[next].object != nullptr;
         next = (next + 1) & mask) {
        const std::size_t wanted = home(slots_[next].object);
        // Distances from each slot's home, walking forwards with wrap-around.
        if (((next - wanted) & mask) >= ((next - hole) & mask)) {
            slots_[hole] = slots_[next];
            hole = next;
        }
    }
    slots_[hole] = slot_t{};
    --used_;
}

std::optional<peekindex_key_t> peekindex_t::first(const object_t* object) const {
    std::optional<peekindex_key_t> earliest;
    if (slots_.empty()) {
        return earliest;
    }
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t at = home(object); slots_[at].object != nullptr; at = (at + 1) & mask) {
        if (slots_[at].object == object && (!earliest || slots_[at].key < *earliest)) {
            earliest = slots_[at].key;
        }
    }
    return earliest;
}

void peekindex_t::clear() {
    std::fill(slots_.begin(), slots_.end(), slot_t{});
    used_ = 0;
}
