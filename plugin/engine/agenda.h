// The agenda: the next change of every planned schedule, in one list ordered
// by due time.
//
// The agenda knows its owners (the schedules) only as values it can hash and
// compare for equality, so the same code serves the live service and the
// copies that simulations run on. Among changes due at the same time the one
// planned last comes first.
//
// The list is a 4-ary min-heap in one array of small nodes (a key and a
// handle), so that a sift compares neighbouring nodes instead of chasing
// tree nodes all over the heap of the process. The changes themselves stay
// put in a pool indexed by handle; a dense array, also indexed by handle,
// tells where each node is in the heap, and the index by owner holds
// handles, so removing an owner's change neither searches the heap nor
// follows it through a sift. That array is kept apart from the pool so that
// a sift, which moves a node per level, writes four bytes per move into a
// small array that stays in the cache, not into a large pool entry.
#pragma once

#include <algorithm>
#include <compare>
#include <cstdint>
#include <ctime>
#include <limits>
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
        const key_t key = keyFor(change.time);
        const handle_t handle = store(item_t{owner, std::move(change)});
        index_.insert(owner, handle);
        heap_.push_back(node_t{key, handle});
        siftUp(heap_.size() - 1);
    }

    // Drops the owner's first change, if it has one.
    void remove(Owner owner) {
        const auto earlier = [this](handle_t a, handle_t b) { return keyOf(a) < keyOf(b); };
        if (std::optional<handle_t> first = index_.first(owner, earlier)) {
            index_.erase(owner, *first);
            eraseAt(slots_[*first]);
            release(*first);
        }
    }

    // The head, taken out, when it is due (its time is not after now).
    std::optional<item_t> takeDue(time_t now) {
        if (heap_.empty() || heap_.front().key.time > now) {
            return std::nullopt;
        }
        const handle_t handle = heap_.front().handle;
        item_t head = std::move(pool_[handle]);
        index_.erase(head.owner, handle);
        eraseAt(0);
        release(handle);
        return head;
    }

    const item_t* head() const { return heap_.empty() ? nullptr : &pool_[heap_[0].handle]; }

    // Microseconds from nowUs (microseconds since the epoch) until the head's
    // second begins: 0 once it has begun, nullopt for an empty agenda. It
    // saturates instead of wrapping, so a head however far ahead is never
    // taken for a due one.
    std::optional<std::int64_t> delayUs(std::int64_t nowUs) const {
        if (heap_.empty()) {
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

    std::size_t size() const { return heap_.size(); }

    void clear() {
        heap_.clear();
        pool_.clear();
        slots_.clear();
        free_.clear();
        index_.clear();
    }

    // The owners in agenda order. A heap keeps no order beyond its head, so
    // a copy of the nodes is sorted; only simulations ask for this.
    std::vector<Owner> owners() const {
        std::vector<node_t> sorted = heap_;
        std::sort(sorted.begin(), sorted.end(),
                  [](const node_t& a, const node_t& b) { return a.key < b.key; });
        std::vector<Owner> owners;
        owners.reserve(sorted.size());
        for (const node_t& node : sorted) {
            owners.push_back(pool_[node.handle].owner);
        }
        return owners;
    }

    // Replaces every change at once, planned in the order of items. The heap
    // is built bottom-up in linear time instead of by one sift per change,
    // and the arrays keep their capacity from one recompute to the next.
    void replace(std::vector<item_t> items) {
        clear();
        heap_.reserve(items.size());
        pool_.reserve(items.size());
        slots_.reserve(items.size());
        for (item_t& item : items) {
            const handle_t handle = static_cast<handle_t>(pool_.size());
            index_.insert(item.owner, handle);
            heap_.push_back(node_t{keyFor(item.change.time), handle});
            pool_.push_back(std::move(item));
            slots_.push_back(handle);
        }
        for (std::size_t at = heap_.size() / kArity + 1; at-- > 0;) {
            if (at < heap_.size()) {
                siftDown(at);
            }
        }
    }

  private:
    struct key_t {
        time_t time;
        // Descending planning order: later changes sort first among equals.
        std::uint64_t order;
        auto operator<=>(const key_t&) const = default;
    };
    using handle_t = std::uint32_t;
    struct node_t {
        key_t key;
        handle_t handle;
    };
    static constexpr std::size_t kArity = 4;
    static constexpr std::int64_t kMicro = 1'000'000;
    static constexpr std::int64_t kLongestUs = std::numeric_limits<std::int64_t>::max();

    key_t keyFor(time_t time) {
        return {time, std::numeric_limits<std::uint64_t>::max() - added_++};
    }
    const key_t& keyOf(handle_t handle) const { return heap_[slots_[handle]].key; }

    handle_t store(item_t item) {
        if (free_.empty()) {
            pool_.push_back(std::move(item));
            slots_.push_back(0);
            return static_cast<handle_t>(pool_.size() - 1);
        }
        const handle_t handle = free_.back();
        free_.pop_back();
        pool_[handle] = std::move(item);
        return handle;
    }
    void release(handle_t handle) {
        pool_[handle] = item_t{};
        free_.push_back(handle);
    }

    // Puts node at slot and remembers where it went.
    void place(std::size_t slot, const node_t& node) {
        heap_[slot] = node;
        slots_[node.handle] = static_cast<handle_t>(slot);
    }

    void siftUp(std::size_t slot) {
        const node_t node = heap_[slot];
        while (slot > 0) {
            const std::size_t parent = (slot - 1) / kArity;
            if (!(node.key < heap_[parent].key)) {
                break;
            }
            place(slot, heap_[parent]);
            slot = parent;
        }
        place(slot, node);
    }

    void siftDown(std::size_t slot) {
        const node_t node = heap_[slot];
        const std::size_t size = heap_.size();
        for (;;) {
            const std::size_t first = slot * kArity + 1;
            if (first >= size) {
                break;
            }
            std::size_t least = first;
            for (std::size_t child = first + 1; child < std::min(first + kArity, size); ++child) {
                if (heap_[child].key < heap_[least].key) {
                    least = child;
                }
            }
            if (!(heap_[least].key < node.key)) {
                break;
            }
            place(slot, heap_[least]);
            slot = least;
        }
        place(slot, node);
    }

    // Takes the node at slot out of the heap: the last node fills the gap and
    // moves up or down to where it belongs.
    void eraseAt(std::size_t slot) {
        const node_t last = heap_.back();
        heap_.pop_back();
        if (slot == heap_.size()) {
            return;
        }
        heap_[slot] = last;
        if (slot > 0 && last.key < heap_[(slot - 1) / kArity].key) {
            siftUp(slot);
        } else {
            siftDown(slot);
        }
    }

    std::vector<node_t> heap_;
    std::vector<item_t> pool_;
    // Per handle, where its node is in heap_.
    std::vector<handle_t> slots_;
    std::vector<handle_t> free_;
    agenda_index_t<Owner, handle_t> index_;
    std::uint64_t added_ = 0;
};
