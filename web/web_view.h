// The console's records: a type and its schedules as JSON, with the text
// form, the week grid and the times people read. Pure: the bus answers and
// "now" come in as arguments, so that what the page, the text and orv-cli
// show is computed once, here, by the same code.
#pragma once

#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include "schedule_json.h"

// A change the scheduler's simulation lists.
struct web_change_t {
    std::time_t time;
    std::string state;
};

// A schedule as the bus holds it: its record, and the parameters of its
// object ("TemporaryOverride", "NextStateChange" and the others).
struct web_held_t {
    scheduler::schedule_status_t status;
    scheduler::json parameters = scheduler::json::object();
};

// "Wed 25 Nov 18:00" in the process's zone.
std::string web_localTime(std::time_t t);

// The schedule record. upcoming is listed for bases that have no week grid.
scheduler::json web_scheduleView(const std::string& type, const web_held_t& held, std::time_t now,
                                 const std::vector<web_change_t>& upcoming);

// How far ahead a schedule's next changes are looked for, by base: a few of
// its periods.
std::time_t web_upcomingSpan(scheduler::base_t base);

// The week grid of a Daily or Weekly schedule, titled, as SVG; "" for the
// other bases.
std::string web_weekSvg(const std::string& title, const scheduler::schedule_t& schedule,
                        std::time_t now);

// The change list of a simulation, as the page shows it.
scheduler::json web_changesView(const std::vector<web_change_t>& changes);
