// Reading the text form: the base, the groups of spans and events, the
// default, and the checks the engine would make, each failure reported with
// the column where the text went wrong.
#include <algorithm>
#include <vector>

#include "text_cursor.h"

namespace scheduler {

namespace {

using namespace text;

struct reader_t {
    explicit reader_t(std::string_view text) : in(text) {}
    cursor_t in;
    base_t base = base_t::daily;
    std::vector<placed_t> entries;
    std::string defaultState;
    std::size_t defaultColumn = 0;
};

std::optional<base_t> statedBase(cursor_t& in) {
    const std::string_view word = in.word();
    for (std::size_t i = 0; i < kBaseWords.size(); ++i) {
        if (word == kBaseWords[i]) {
            in.skip(word.size());
            if (!in.take(':')) {
                in.expected("\":\" after the base");
            }
            return static_cast<base_t>(i);
        }
    }
    return std::nullopt;
}

// What a first word that is no day, month or "day" was probably meant to
// be, from what follows it: a base before ":", a day before a time or in a
// day list, a month before a day number.
void misspelledFirstWord(cursor_t& in, std::string_view word) {
    const std::string_view after = in.rest().substr(word.size());
    const std::size_t next = after.find_first_not_of(" \t");
    if (next == std::string_view::npos) {
        return;
    }
    if (after[0] == ':') {
        in.expected("a base such as \"daily:\"");
    }
    const std::size_t digits = after.find_first_not_of("0123456789", next);
    if (after[next] == '-' || after[next] == ',' ||
        (digits != next && digits != std::string_view::npos && after[digits] == ':')) {
        in.expected("a day such as Mon");
    }
    if (digits != next) {
        in.expected("a date such as Dec 24");
    }
}

// The base from the form of the first group.
base_t inferredBase(cursor_t& in) {
    const std::string_view word = in.word();
    const char next = in.peek();
    if (std::find(kDayNames.begin(), kDayNames.end(), word) != kDayNames.end()) {
        return base_t::weekly;
    }
    if (std::find(kMonthNames.begin(), kMonthNames.end(), word) != kMonthNames.end()) {
        return base_t::yearly;
    }
    if (word == "day") {
        return base_t::monthly;
    }
    if (next == ':') {
        return base_t::hourly;
    }
    if (!word.empty() && word != "default") {
        misspelledFirstWord(in, word);
    }
    if (!std::isdigit(static_cast<unsigned char>(next))) {
        in.expected(word == "default" || next == '\0'
                        ? "a base such as \"daily:\" before a schedule without spans"
                        : "a day, a date or a time such as 07:30");
    }
    return base_t::daily;
}

// A point of the base, relative to the period (or since the epoch).
std::uint32_t point(reader_t& r, bool isEnd) {
    switch (r.base) {
        case base_t::hourly:
            return readMinute(r.in, isEnd);
        case base_t::daily:
            return readClock(r.in, isEnd);
        case base_t::once:
            return readOncePoint(r.in);
        default:
            return readCalendarPoint(r.in, r.base, isEnd);
    }
}

std::string state(reader_t& r, std::size_t* column) {
    *column = r.in.column();
    std::string_view word = r.in.stateWord();
    // A leading "-" would make an event ("07:00 -x") read as a span.
    if (word.empty() || word.front() == '-') {
        r.in.fail(*column, "expected a state");
    }
    return std::string(word);
}

// Adds a span that may run past the end of the period: it goes on from the
// period's start, as a second entry.
void addSpan(reader_t& r, std::uint32_t begin, std::uint32_t end, std::uint32_t period,
             placed_t placed) {
    if (end > begin) {
        placed.entry.begin = begin;
        placed.entry.end = end;
        r.entries.push_back(placed);
        return;
    }
    placed.entry.begin = begin;
    placed.entry.end = period;
    if (begin < period) {
        r.entries.push_back(placed);
    }
    placed.entry.begin = 0;
    placed.entry.end = end;
    if (end > 0) {
        r.entries.push_back(placed);
    }
}

// "FROM-TO STATE" or "AT STATE" of a base that is not weekly.
void item(reader_t& r) {
    placed_t placed{{}, r.in.column(), 0};
    const std::uint32_t from = point(r, false);
    const bool span = r.in.take('-');
    const std::size_t toColumn = r.in.column();
    const std::uint32_t to = span ? point(r, true) : from;
    placed.entry.state = state(r, &placed.stateColumn);
    if (!span) {
        placed.entry.begin = placed.entry.end = from;
        r.entries.push_back(placed);
        return;
    }
    const std::optional<std::uint32_t> period = periodOf(r.base);
    const bool wraps = r.base == base_t::hourly || r.base == base_t::daily;
    if (to <= from && !wraps) {
        r.in.fail(toColumn, "the span ends before it begins");
    }
    addSpan(r, from, to, period.value_or(0), placed);
}

// "FROM-[DAY ]TO STATE" or "AT STATE" on each of the group's days.
void weekItem(reader_t& r, const std::vector<std::uint32_t>& days) {
    placed_t placed{{}, r.in.column(), 0};
    const std::uint32_t from = readClock(r.in, false);
    const bool span = r.in.take('-');
    std::optional<std::uint32_t> endDay;
    std::uint32_t to = from;
    if (span) {
        if (std::isalpha(static_cast<unsigned char>(r.in.peek()))) {
            endDay = readDay(r.in);
        }
        to = readClock(r.in, true);
    }
    placed.entry.state = state(r, &placed.stateColumn);
    for (std::uint32_t day : days) {
        const std::uint32_t begin = day * kDay + from;
        if (!span) {
            placed.entry.begin = placed.entry.end = begin;
            r.entries.push_back(placed);
            continue;
        }
        // Without an end day, an end not after the begin is the next day's.
        const std::uint32_t endsOn = endDay ? *endDay : (to <= from ? day + 1 : day);
        if (endDay && *endDay == day && to <= from) {
            r.in.fail(placed.column, "the span ends before it begins");
        }
        std::uint32_t end = endsOn * kDay + to;
        if (end > 7 * kDay) {
            end -= 7 * kDay;  // past Sunday: it goes on from Monday
        }
        addSpan(r, begin, end, 7 * kDay, placed);
    }
}

// "Mon-Fri", "Sat,Sun", "Mon,Wed-Fri", "Fri-Mon".
std::vector<std::uint32_t> dayList(reader_t& r) {
    std::vector<std::uint32_t> days;
    do {
        const std::uint32_t first = readDay(r.in);
        const std::uint32_t last = r.in.take('-') ? readDay(r.in) : first;
        for (std::uint32_t d = first;; d = (d + 1) % 7) {
            days.push_back(d);
            if (d == last) {
                break;
            }
        }
    } while (r.in.take(','));
    return days;
}

void group(reader_t& r) {
    const std::size_t at = r.in.column();
    if (r.in.word() == "default") {
        r.in.skip(7);
        if (!r.defaultState.empty()) {
            r.in.fail(at, "the default is named twice");
        }
        r.defaultState = state(r, &r.defaultColumn);
        return;
    }
    if (!r.defaultState.empty()) {
        r.in.fail(at, "the default comes last");
    }
    if (r.base == base_t::weekly) {
        const std::vector<std::uint32_t> days = dayList(r);
        do {
            weekItem(r, days);
        } while (r.in.take(','));
        return;
    }
    do {
        item(r);
    } while (r.in.take(','));
}

// The first state of the text that the type does not know, wherever its
// entry falls in the period, then the default.
void checkStates(const reader_t& r, const std::vector<std::string>& states) {
    auto unknown = [&states](const std::string& state) {
        return std::find(states.begin(), states.end(), state) == states.end();
    };
    const std::string* state = nullptr;
    std::size_t column = 0;
    for (const placed_t& placed : r.entries) {
        if (unknown(placed.entry.state) && (state == nullptr || placed.stateColumn < column)) {
            state = &placed.entry.state;
            column = placed.stateColumn;
        }
    }
    if (state == nullptr && !r.defaultState.empty() && unknown(r.defaultState)) {
        state = &r.defaultState;
        column = r.defaultColumn;
    }
    if (state != nullptr) {
        std::string known;
        for (const std::string& allowed : states) {
            known += (known.empty() ? "" : ", ") + allowed;
        }
        r.in.fail(column, "the state \"" + *state + "\" is not one of " + known);
    }
}

// The engine's rules, reported at the entry that breaks them.
void check(const reader_t& r, const std::vector<std::string>* states) {
    if (states != nullptr) {
        checkStates(r, *states);
    }
    for (std::size_t i = 1; i < r.entries.size(); ++i) {
        const placed_t& earlier = r.entries[i - 1];
        const placed_t& later = r.entries[i];
        const bool earlierEvent = earlier.entry.begin == earlier.entry.end;
        if (earlierEvent != (later.entry.begin == later.entry.end)) {
            r.in.fail(later.column, "events and spans cannot be mixed in one schedule");
        }
        if (later.entry.begin < earlier.entry.end ||
            (earlierEvent && later.entry.begin == earlier.entry.begin)) {
            r.in.fail(later.column, entryText(r.base, earlier.entry) + " and " +
                                        entryText(r.base, later.entry) + " overlap");
        }
    }
}

void sortEntries(std::vector<placed_t>* entries) {
    std::stable_sort(entries->begin(), entries->end(), [](const placed_t& a, const placed_t& b) {
        return std::pair(a.entry.begin, a.entry.end) < std::pair(b.entry.begin, b.entry.end);
    });
}

text_schedule_t read(reader_t& r, const std::vector<std::string>* states) {
    if (std::optional<base_t> stated = statedBase(r.in)) {
        r.base = *stated;
    } else {
        r.base = r.in.looksLikeDate() ? base_t::once : inferredBase(r.in);
    }
    while (!r.in.done()) {
        group(r);
        if (!r.in.done() && !r.in.take(';')) {
            r.in.expected("\";\" or \",\" between spans");
        }
    }
    sortEntries(&r.entries);
    check(r, states);
    text_schedule_t schedule;
    schedule.base = r.base;
    schedule.default_state = r.defaultState;
    for (const placed_t& placed : r.entries) {
        schedule.entries.push_back(placed.entry);
    }
    return schedule;
}

}  // namespace

std::variant<text_schedule_t, text_error_t> parse_text(std::string_view text,
                                                       const std::vector<std::string>* states) {
    reader_t r(text);
    try {
        return read(r, states);
    } catch (const failure_t& failure) {
        return text_error_t{failure.column, failure.message};
    }
}

}  // namespace scheduler
