// The agenda: the next change of every planned schedule, in one list ordered
// by due time.
//
// The agenda knows its owners (the schedules) only as values it can hash and
// compare for equality, so the same code serves the live service and the
// copies that simulations run on. Among changes due at the same time the one
// planned last comes first.
#pragma once

#include <algorithm>
#include <compare>
#include <cstdint>
#include <ctime>
#include <limits>
#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "agenda_index.h"
#include "next_change.h"

template <typename Owner>
class agenda_t {
  public:
    struct item_t {
        Owner owner{};
        change_t change;
    };

    agenda_t() = default;
    agenda_t(const agenda_t&) = delete;
    agenda_t& operator=(const agenda_t&) = delete;

    void add(Owner owner, change_t change) {
        auto filed = items_.emplace(keyFor(change.time), item_t{owner, std::move(change)}).first;
        index_.insert(owner, filed);
    }

    // Drops the owner's first change, if it has one.
    void remove(Owner owner) {
        if (std::optional<iterator_t> first = index_.first(owner, earlier)) {
            index_.erase(owner, *first);
            items_.erase(*first);
        }
    }

    // The head, taken out, when it is due (its time is not after now).
    std::optional<item_t> takeDue(time_t now) {
        if (items_.empty() || items_.begin()->second.change.time > now) {
            return std::nullopt;
        }
        item_t head = std::move(items_.begin()->second);
        index_.erase(head.owner, items_.begin());
        items_.erase(items_.begin());
        return head;
    }

    const item_t* head() const { return items_.empty() ? nullptr : &items_.begin()->second; }

    // Microseconds from nowUs (microseconds since the epoch) until the head's
    // second begins: 0 once it has begun, nullopt for an empty agenda. It
    // saturates instead of wrapping, so a head however far ahead is never
    // taken for a due one.
    std::optional<std::int64_t> delayUs(std::int64_t nowUs) const {
        if (items_.empty()) {
            return std::nullopt;
        }
        const std::int64_t due = head()->change.time;
        if (due >= kLongestUs / kMicro) {
            return kLongestUs;
        }
        if (due <= std::numeric_limits<std::int64_t>::min() / kMicro) {
            return 0;
        }
        const std::int64_t dueUs = due * kMicro;
        if (dueUs <= nowUs) {
            return 0;
        }
        return nowUs < 0 && dueUs > kLongestUs + nowUs ? kLongestUs : dueUs - nowUs;
    }

    std::size_t size() const { return items_.size(); }

    void clear() {
        items_.clear();
        index_.clear();
    }

    // The owners in agenda order.
    std::vector<Owner> owners() const {
        std::vector<Owner> owners;
        owners.reserve(items_.size());
        for (const auto& [key, item] : items_) {
            owners.push_back(item.owner);
        }
        return owners;
    }

    // Replaces every change at once, planned in the order of items: sorted
    // first, so that the tree is appended to instead of searched, and into
    // the old nodes, so that a rebuild neither frees nor allocates a node per
    // schedule.
    void replace(std::vector<item_t> items) {
        std::vector<std::pair<key_t, item_t>> keyed;
        keyed.reserve(items.size());
        for (item_t& item : items) {
            keyed.emplace_back(keyFor(item.change.time), std::move(item));
        }
        std::sort(keyed.begin(), keyed.end(),
                  [](const auto& a, const auto& b) { return a.first < b.first; });
        map_t spare;
        spare.swap(items_);
        index_.clear();
        for (auto& [key, item] : keyed) {
            const Owner owner = item.owner;
            iterator_t filed;
            if (spare.empty()) {
                filed = items_.emplace_hint(items_.end(), key, std::move(item));
            } else {
                typename map_t::node_type node = spare.extract(spare.begin());
                node.key() = key;
                node.mapped() = std::move(item);
                filed = items_.insert(items_.end(), std::move(node));
            }
            index_.insert(owner, filed);
        }
    }

  private:
    struct key_t {
        time_t time;
        // Descending planning order: later changes sort first among equals.
        std::uint64_t order;
        auto operator<=>(const key_t&) const = default;
    };
    using map_t = std::map<key_t, item_t>;
    using iterator_t = typename map_t::iterator;
    static constexpr std::int64_t kMicro = 1'000'000;
    static constexpr std::int64_t kLongestUs = std::numeric_limits<std::int64_t>::max();

    static bool earlier(const iterator_t& a, const iterator_t& b) { return a->first < b->first; }

    key_t keyFor(time_t time) {
        return {time, std::numeric_limits<std::uint64_t>::max() - added_++};
    }

    map_t items_;
    agenda_index_t<Owner, iterator_t> index_;
    std::uint64_t added_ = 0;
};
