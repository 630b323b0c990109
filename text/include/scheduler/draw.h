// Pictures of a schedule: the week grid that people know from thermostats
// and timers, as text for a terminal and as SVG.
//
// The grid has a row per day, Monday first, and 48 half hours across. Each
// cell shows the state of the span that covers it, the latest one where two
// share it, so that a short span still shows; a cell in which an event falls
// shows the event's state. A Daily schedule shows the same row seven times.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "scheduler/schedule.h"

namespace scheduler {

struct week_grid_t {
    static constexpr int kDays = 7;
    static constexpr int kSlots = 48;
    // The legend: the default state first, then the others by name.
    std::vector<std::string> states;
    // Index into states for each day and half hour.
    std::array<std::array<std::uint8_t, kSlots>, kDays> cells{};
    // The present moment as seconds since Monday 00:00 of its week, if shown.
    std::optional<std::uint32_t> now;
    // The present moment as people read it, e.g. "Tue 14:05".
    std::string nowLabel;
};

// The grid of a Daily or Weekly schedule (nullopt for the other bases).
SCHEDULER_CLIENT_API std::optional<week_grid_t> week_grid(base_t base,
                                                          const std::vector<entry_t>& entries,
                                                          const std::string& default_state,
                                                          std::optional<std::uint32_t> now);

// For a terminal: hour labels, a row per day, the present moment marked
// under today's row, and a legend. With colour, each state also gets a
// background colour of its own (ANSI escapes).
SCHEDULER_CLIENT_API std::string draw_week_text(const week_grid_t& grid, bool colour);
// The same picture as a standalone SVG document, titled.
SCHEDULER_CLIENT_API std::string draw_week_svg(const week_grid_t& grid, const std::string& title);

}  // namespace scheduler
