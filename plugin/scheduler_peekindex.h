// Where the agenda files each schedule's entries.
//
// The agenda is ordered by time; removing a schedule's entry needs the key it
// was filed under. This index keeps those keys per schedule in one flat table
// (open addressing, linear probing), so that a lookup usually touches a
// single cache line instead of a bucket and a node on the heap, which matters
// when a recomputation visits every schedule once.
#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <optional>
#include <vector>

class object_t;

// Entries run in ascending time; among equal times the entry added last comes
// first, so the insertion order is counted downwards.
struct peekindex_key_t {
    time_t time;
    std::uint64_t order;
    auto operator<=>(const peekindex_key_t&) const = default;
};

class peekindex_t {
  public:
    // A schedule may be filed under several keys; each pair is filed once.
    void insert(const object_t* object, const peekindex_key_t& key);
    // Files the pair (object, from) under `to` instead; false when absent.
    bool rekey(const object_t* object, const peekindex_key_t& from, const peekindex_key_t& to);
    bool erase(const object_t* object, const peekindex_key_t& key);
    // The smallest key of the object.
    std::optional<peekindex_key_t> first(const object_t* object) const;
    // Empties the table and keeps its capacity.
    void clear();
    std::size_t size() const { return used_; }

  private:
    struct slot_t {
        const object_t* object = nullptr;
        peekindex_key_t key{};
    };
    std::size_t home(const object_t* object) const;
    std::optional<std::size_t> find(const object_t* object, const peekindex_key_t& key) const;
    void grow();
    void eraseAt(std::size_t at);

    std::vector<slot_t> slots_;
    std::size_t used_ = 0;
    unsigned bits_ = 0;
};
