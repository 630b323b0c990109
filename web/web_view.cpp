#include "web_view.h"

#include <algorithm>
#include <optional>

#include "orv/variant.h"
#include "scheduler/draw.h"
#include "scheduler/text.h"

namespace {

using scheduler::base_t;
using scheduler::json;

constexpr std::size_t kUpcoming = 8;

// Seconds since Monday 00:00 of the local week.
std::uint32_t weekSeconds(std::time_t now) {
    struct tm local {};
    localtime_r(&now, &local);
    const int day = (local.tm_wday + 6) % 7;
    return static_cast<std::uint32_t>(day * 86400 + local.tm_hour * 3600 + local.tm_min * 60 +
                                      local.tm_sec);
}

std::optional<scheduler::week_grid_t> gridOf(const scheduler::schedule_t& schedule,
                                             std::time_t now) {
    return scheduler::week_grid(schedule.base, schedule.entries, schedule.default_state,
                                weekSeconds(now));
}

json gridView(const std::optional<scheduler::week_grid_t>& grid) {
    if (!grid) {
        return nullptr;
    }
    json cells = json::array();
    for (const auto& day : grid->cells) {
        cells.push_back(json(std::vector<int>(day.begin(), day.end())));
    }
    return {{"states", grid->states},
            {"cells", std::move(cells)},
            {"now", grid->now ? json(*grid->now) : json(nullptr)},
            {"nowLabel", grid->nowLabel}};
}

json entriesView(const std::vector<scheduler::entry_t>& entries) {
    json list = json::array();
    for (const auto& entry : entries) {
        list.push_back({{"begin", entry.begin}, {"end", entry.end}, {"state", entry.state}});
    }
    return list;
}

// The pending change, or nothing when the scheduler publishes the epoch
// (no change pending) or no time at all.
std::optional<std::time_t> nextChange(const json& parameters) {
    auto it = parameters.find("NextStateChange");
    if (it == parameters.end() || !it->is_string()) {
        return std::nullopt;
    }
    std::optional<std::int64_t> t = orv_parseIsoTime(it->get<std::string>());
    if (!t || *t <= 0) {
        return std::nullopt;
    }
    return static_cast<std::time_t>(*t);
}

// The canonical text wants its entries in order; the bus keeps them as
// they were written.
std::string textOf(const scheduler::schedule_t& s) {
    scheduler::text_schedule_t text{s.base, s.entries, s.default_state};
    std::sort(text.entries.begin(), text.entries.end(), [](const auto& a, const auto& b) {
        return std::pair(a.begin, a.end) < std::pair(b.begin, b.end);
    });
    return scheduler::format_text(text);
}

}  // namespace

std::string web_localTime(std::time_t t) {
    struct tm local {};
    localtime_r(&t, &local);
    char text[32];
    const std::size_t n = std::strftime(text, sizeof text, "%a %d %b %H:%M", &local);
    return std::string(text, n);
}

json web_changesView(const std::vector<web_change_t>& changes) {
    json list = json::array();
    for (const auto& change : changes) {
        list.push_back({{"time", orv_isoTime(change.time)},
                        {"local", web_localTime(change.time)},
                        {"state", change.state}});
    }
    return list;
}

json web_scheduleView(const std::string& type, const web_held_t& held, std::time_t now,
                      const std::vector<web_change_t>& upcoming) {
    const scheduler::schedule_t& s = held.status.schedule;
    const std::optional<std::time_t> next = nextChange(held.parameters);
    const auto grid = gridOf(s, now);
    std::vector<web_change_t> soon(upcoming.begin(),
                                   upcoming.begin() + std::min(upcoming.size(), kUpcoming));
    const auto temporary = held.parameters.find("TemporaryOverride");
    return {
        {"type", type},
        {"id", s.id},
        {"enabled", s.enabled},
        {"base", std::string(scheduler::base_name(s.base))},
        {"default", s.default_state},
        {"override", s.override_state},
        {"temporary",
         temporary != held.parameters.end() && temporary->is_boolean() && temporary->get<bool>()},
        {"current",
         held.status.current_state.empty() ? "Unsynchronized" : held.status.current_state},
        {"next", next ? json(orv_isoTime(*next)) : json(nullptr)},
        {"nextLocal", next ? web_localTime(*next) : ""},
        {"entries", entriesView(s.entries)},
        {"text", textOf(s)},
        {"grid", gridView(grid)},
        {"upcoming", grid ? json(nullptr) : web_changesView(soon)},
    };
}

std::time_t web_upcomingSpan(base_t base) {
    constexpr std::time_t kDay = 86400;
    switch (base) {
        case base_t::hourly:
            return 3 * 3600;
        case base_t::daily:
        case base_t::weekly:
            return 0;
        case base_t::monthly:
            return 62 * kDay;
        case base_t::yearly:
            return 731 * kDay;
        case base_t::once:
            break;
    }
    return 3660 * kDay;
}

std::string web_weekSvg(const std::string& title, const scheduler::schedule_t& schedule,
                        std::time_t now) {
    const auto grid = gridOf(schedule, now);
    return grid ? scheduler::draw_week_svg(*grid, title) : std::string();
}
