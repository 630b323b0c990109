// The week grid and its terminal form.
#include <algorithm>
#include <array>
#include <string_view>

#include "scheduler/draw.h"

namespace scheduler {

namespace {

constexpr std::uint32_t kDay = 86400;
constexpr std::uint32_t kSlot = 1800;
constexpr std::array<std::string_view, 7> kDays = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
// The default state is the quiet background; the others stand out.
constexpr std::array<char, 10> kMarks = {'.', '#', '=', '+', '%', '@', '&', '*', '~', '$'};
// Background colours (ANSI 256-colour numbers) in the same order.
constexpr std::array<int, 10> kColours = {236, 34, 214, 33, 170, 37, 160, 142, 99, 130};

std::vector<std::string> legendOf(const std::vector<entry_t>& entries,
                                  const std::string& default_state) {
    std::vector<std::string> others;
    for (const entry_t& entry : entries) {
        if (entry.state != default_state &&
            std::find(others.begin(), others.end(), entry.state) == others.end()) {
            others.push_back(entry.state);
        }
    }
    std::sort(others.begin(), others.end());
    others.insert(others.begin(), default_state);
    return others;
}

std::uint8_t indexOf(const std::vector<std::string>& states, const std::string& state) {
    return static_cast<std::uint8_t>(std::find(states.begin(), states.end(), state) -
                                     states.begin());
}

// Paints the entries of one period that starts at origin (seconds since
// Monday 00:00) over the grid: spans first, then the events on top.
void paint(week_grid_t* grid, const std::vector<entry_t>& entries, std::uint32_t origin) {
    auto cell = [grid](std::uint32_t at) -> std::uint8_t* {
        const std::uint32_t slot = at / kSlot;
        if (slot >= static_cast<std::uint32_t>(week_grid_t::kDays * week_grid_t::kSlots)) {
            return nullptr;
        }
        return &grid->cells[slot / week_grid_t::kSlots][slot % week_grid_t::kSlots];
    };
    for (bool events : {false, true}) {
        for (const entry_t& entry : entries) {
            const std::uint8_t state = indexOf(grid->states, entry.state);
            if (events != (entry.begin == entry.end)) {
                continue;
            }
            if (events) {
                if (std::uint8_t* target = cell(origin + entry.begin)) {
                    *target = state;
                }
                continue;
            }
            // Every half hour that the span touches, so that a short span
            // still shows; a later span wins a half hour that two share.
            for (std::uint32_t at = entry.begin / kSlot * kSlot; at < entry.end; at += kSlot) {
                if (std::uint8_t* target = cell(origin + at)) {
                    *target = state;
                }
            }
        }
    }
}

std::string nowLabel(std::uint32_t now) {
    const std::uint32_t inDay = now % kDay;
    char text[16];
    std::snprintf(text, sizeof text, "%.3s %02u:%02u", kDays[now / kDay % 7].data(), inDay / 3600,
                  inDay % 3600 / 60);
    return text;
}

// A run of count cells of one state; with colour, one escape per run.
std::string marks(std::uint8_t state, std::size_t count, bool colour) {
    const std::string run(count, kMarks[state % kMarks.size()]);
    if (!colour) {
        return run;
    }
    return "\033[48;5;" + std::to_string(kColours[state % kColours.size()]) + "m" + run + "\033[0m";
}

std::string row(const std::array<std::uint8_t, week_grid_t::kSlots>& cells, bool colour) {
    std::string out;
    for (std::size_t from = 0; from < cells.size();) {
        std::size_t to = from;
        while (to < cells.size() && cells[to] == cells[from]) {
            ++to;
        }
        out += marks(cells[from], to - from, colour);
        from = to;
    }
    return out;
}

}  // namespace

std::optional<week_grid_t> week_grid(base_t base, const std::vector<entry_t>& entries,
                                     const std::string& default_state,
                                     std::optional<std::uint32_t> now) {
    if (base != base_t::daily && base != base_t::weekly) {
        return std::nullopt;
    }
    week_grid_t grid;
    grid.states = legendOf(entries, default_state);
    if (base == base_t::weekly) {
        paint(&grid, entries, 0);
    } else {
        for (std::uint32_t day = 0; day < 7; ++day) {
            paint(&grid, entries, day * kDay);
        }
    }
    if (now && *now < 7 * kDay) {
        grid.now = now;
        grid.nowLabel = nowLabel(*now);
    }
    return grid;
}

std::string draw_week_text(const week_grid_t& grid, bool colour) {
    // Hour labels every three hours, over the first of their six columns.
    std::string out = "     ";
    for (int hour = 0; hour < 24; hour += 3) {
        char label[8];
        std::snprintf(label, sizeof label, hour < 21 ? "%-6.2d" : "%.2d", hour);
        out += label;
    }
    out += "\n";
    for (int day = 0; day < week_grid_t::kDays; ++day) {
        out += std::string(kDays[static_cast<std::size_t>(day)]) + "  ";
        out += row(grid.cells[static_cast<std::size_t>(day)], colour) + "\n";
        if (grid.now && static_cast<int>(*grid.now / kDay) == day) {
            out +=
                std::string(5 + *grid.now % kDay / kSlot, ' ') + "^ now, " + grid.nowLabel + "\n";
        }
    }
    out += "     ";
    for (std::size_t i = 0; i < grid.states.size(); ++i) {
        out += (i == 0 ? "" : "   ") + marks(static_cast<std::uint8_t>(i), 1, colour) + " " +
               grid.states[i];
    }
    return out + "\n";
}

}  // namespace scheduler
