// A schedule as plain data: what an owner stores, sends and reads back.
//
// Entry times count seconds from the start of the period (local wall-clock
// time): the hour, day, week (from Monday 00:00), month or year. A "once"
// schedule's entries hold seconds since the epoch. An entry whose begin
// equals its end is a momentary event.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What the shared library exports; everything else of it stays inside.
#define SCHEDULER_CLIENT_API __attribute__((visibility("default")))

namespace scheduler {

enum class base_t { once, hourly, daily, weekly, monthly, yearly };

// "Once", "Hourly", … as the scheduler names them.
SCHEDULER_CLIENT_API std::string_view base_name(base_t base);
SCHEDULER_CLIENT_API std::optional<base_t> base_from_name(std::string_view name);

struct entry_t {
    std::string state;
    std::uint32_t begin = 0;
    std::uint32_t end = 0;

    bool operator==(const entry_t&) const = default;
};

struct schedule_t {
    std::string id;
    bool enabled = true;
    base_t base = base_t::daily;
    std::string default_state;
    // A permanent override; empty when there is none.
    std::string override_state;
    std::vector<entry_t> entries;

    bool operator==(const schedule_t&) const = default;
};

// A schedule as the scheduler holds it, with the state it last gave the
// client ("Unsynchronized" when the client could not be reached).
struct schedule_status_t {
    schedule_t schedule;
    std::string current_state;
};

// Why the scheduler would refuse the schedule for a type with these states,
// in one sentence, or nullopt when it would take it. The rules are the
// scheduler's: an ID of at most 4096 bytes, at most 1024 entries, known
// states, entries inside the period, begin not after end,
// no overlap and no mix of events and spans among the entries that do not
// hold the default state.
SCHEDULER_CLIENT_API std::optional<std::string> validate(const schedule_t& schedule,
                                                         const std::vector<std::string>& states);

}  // namespace scheduler
