// The canonical text of a schedule.
#include <ctime>
#include <map>
#include <vector>

#include "scheduler/text.h"
#include "text_common.h"

namespace scheduler::text {

std::optional<std::uint32_t> periodOf(base_t base) {
    constexpr std::array<std::uint32_t, 6> kPeriods = {0,        3600,      kDay,
                                                       7 * kDay, 31 * kDay, 366 * kDay};
    const std::uint32_t period = kPeriods[static_cast<std::size_t>(base)];
    return period == 0 ? std::nullopt : std::optional(period);
}

std::string clockText(std::uint32_t secondsOfDay) {
    char text[16];
    const std::uint32_t h = secondsOfDay / 3600;
    const std::uint32_t m = secondsOfDay % 3600 / 60;
    const std::uint32_t s = secondsOfDay % 60;
    if (s != 0) {
        std::snprintf(text, sizeof text, "%02u:%02u:%02u", h, m, s);
    } else {
        std::snprintf(text, sizeof text, "%02u:%02u", h, m);
    }
    return text;
}

std::string minuteText(std::uint32_t secondsOfHour) {
    char text[16];
    const std::uint32_t m = secondsOfHour / 60;
    const std::uint32_t s = secondsOfHour % 60;
    if (s != 0) {
        std::snprintf(text, sizeof text, ":%02u:%02u", m, s);
    } else {
        std::snprintf(text, sizeof text, ":%02u", m);
    }
    return text;
}

}  // namespace scheduler::text

namespace scheduler {

namespace {

using namespace text;

// A point of a month or a year: "day 3 07:00", "Dec 24 18:00". An end at
// midnight is written as 24:00 of the day before, so that the last day of
// the period can be ended.
std::string calendarPoint(base_t base, std::uint32_t at, bool isEnd) {
    std::uint32_t day = at / kDay;
    std::uint32_t time = at % kDay;
    if (isEnd && time == 0 && day > 0) {
        --day;
        time = kDay;
    }
    if (base == base_t::monthly) {
        return "day " + std::to_string(day + 1) + " " + clockText(time);
    }
    std::size_t month = 11;
    while (kMonthStarts[month] > day) {
        --month;
    }
    return std::string(kMonthNames[month]) + " " + std::to_string(day - kMonthStarts[month] + 1) +
           " " + clockText(time);
}

// Whether the wall-clock time of t also names another instant: the hour
// that repeats when the clocks go back.
bool repeated(const std::tm& local, std::time_t t) {
    for (int dst : {0, 1}) {
        std::tm probe = local;
        probe.tm_isdst = dst;
        const std::time_t other = std::mktime(&probe);
        if (other != t && other != -1 && probe.tm_mday == local.tm_mday &&
            probe.tm_hour == local.tm_hour && probe.tm_min == local.tm_min) {
            return true;
        }
    }
    return false;
}

// A local time, with its UTC offset when the same wall-clock time happens
// twice (the hour the clocks go back).
std::string oncePoint(std::uint32_t at) {
    const std::time_t t = at;
    std::tm local{};
    localtime_r(&t, &local);
    char text[40];
    std::strftime(text, sizeof text, "%Y-%m-%d ", &local);
    std::string out = text + clockText(static_cast<std::uint32_t>(
                                 local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec));
    if (repeated(local, t)) {
        const long offset = local.tm_gmtoff;
        std::snprintf(text, sizeof text, "%c%02ld:%02ld", offset < 0 ? '-' : '+',
                      std::labs(offset) / 3600, std::labs(offset) % 3600 / 60);
        out += text;
    }
    return out;
}

std::string point(base_t base, std::uint32_t at, bool isEnd) {
    switch (base) {
        case base_t::hourly:
            return isEnd && at == 3600 ? ":60" : minuteText(at);
        case base_t::daily:
            return clockText(at);
        case base_t::monthly:
        case base_t::yearly:
            return calendarPoint(base, at, isEnd);
        default:
            return oncePoint(at);
    }
}

std::string item(base_t base, const entry_t& entry) {
    if (entry.begin == entry.end) {
        return point(base, entry.begin, false) + " " + entry.state;
    }
    const bool spaced = base == base_t::monthly || base == base_t::yearly || base == base_t::once;
    return point(base, entry.begin, false) + (spaced ? " - " : "-") + point(base, entry.end, true) +
           " " + entry.state;
}

// A week's span relative to the day it starts on: within the day, into the
// next day before the hour it began ("22:00-06:00"), or with its end day.
std::string weekItem(const entry_t& entry) {
    const std::uint32_t day = entry.begin / kDay;
    const std::uint32_t from = entry.begin % kDay;
    if (entry.begin == entry.end) {
        return clockText(from) + " " + entry.state;
    }
    std::string to;
    if (entry.end <= (day + 1) * kDay) {
        to = clockText(entry.end - day * kDay);
    } else if (entry.end - (day + 1) * kDay < from) {
        to = clockText(entry.end - (day + 1) * kDay);
    } else if (entry.end == 7 * kDay) {
        // "Mon 00:00" would read as the week's start, and from a Monday as
        // a span that ends before it begins.
        to = "Sun 24:00";
    } else {
        to = std::string(kDayNames[entry.end / kDay % 7]) + " " + clockText(entry.end % kDay);
    }
    return clockText(from) + "-" + to + " " + entry.state;
}

// "Mon-Fri", "Sat,Sun", "Mon,Wed-Fri": ranges for three days or more.
std::string dayList(const std::vector<std::uint32_t>& days) {
    std::string out;
    for (std::size_t i = 0; i < days.size();) {
        std::size_t j = i;
        while (j + 1 < days.size() && days[j + 1] == days[j] + 1) {
            ++j;
        }
        out += out.empty() ? "" : ",";
        if (j - i >= 2) {
            out += std::string(kDayNames[days[i]]) + "-" + std::string(kDayNames[days[j]]);
            i = j + 1;
        } else {
            out += kDayNames[days[i]];
            ++i;
        }
    }
    return out;
}

std::vector<std::string> weekGroups(const std::vector<entry_t>& entries) {
    std::array<std::string, 7> perDay;
    for (const entry_t& entry : entries) {
        std::string& line = perDay[entry.begin / kDay % 7];
        line += (line.empty() ? "" : ", ") + weekItem(entry);
    }
    // Days with the same spans share a group, placed at its first day.
    std::map<std::string, std::vector<std::uint32_t>> daysOf;
    std::vector<std::string> order;
    for (std::uint32_t day = 0; day < 7; ++day) {
        if (perDay[day].empty()) {
            continue;
        }
        auto [it, added] = daysOf.try_emplace(perDay[day]);
        it->second.push_back(day);
        if (added) {
            order.push_back(perDay[day]);
        }
    }
    std::vector<std::string> groups;
    for (const std::string& line : order) {
        groups.push_back(dayList(daysOf[line]) + " " + line);
    }
    return groups;
}

}  // namespace

std::string text::entryText(base_t base, const entry_t& entry) {
    if (base == base_t::weekly) {
        return std::string(kDayNames[entry.begin / kDay % 7]) + " " + weekItem(entry);
    }
    return item(base, entry);
}

std::string format_text(const text_schedule_t& schedule) {
    std::vector<std::string> groups;
    if (schedule.base == base_t::weekly) {
        groups = weekGroups(schedule.entries);
    } else if (!schedule.entries.empty()) {
        std::string line;
        for (const entry_t& entry : schedule.entries) {
            line += (line.empty() ? "" : ", ") + item(schedule.base, entry);
        }
        groups.push_back(line);
    }
    if (!schedule.default_state.empty()) {
        groups.push_back("default " + schedule.default_state);
    }
    std::string out = std::string(kBaseWords[static_cast<std::size_t>(schedule.base)]) + ":";
    for (std::size_t i = 0; i < groups.size(); ++i) {
        out += (i == 0 ? " " : "; ") + groups[i];
    }
    return out;
}

}  // namespace scheduler
