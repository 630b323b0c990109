// The readers of points in time of the text form.
#include <ctime>

#include "text_cursor.h"

namespace scheduler::text {

namespace {

template <std::size_t N>
std::optional<std::uint32_t> indexIn(const std::array<std::string_view, N>& names,
                                     std::string_view word) {
    auto it = std::find(names.begin(), names.end(), word);
    return it == names.end() ? std::nullopt
                             : std::optional(static_cast<std::uint32_t>(it - names.begin()));
}

}  // namespace

std::uint32_t readClock(cursor_t& in, bool isEnd) {
    const std::size_t column = in.column();
    const std::optional<std::uint32_t> h = in.number(2);
    if (!h || !in.take(':')) {
        in.fail(column, "expected a time such as 07:30");
    }
    const std::optional<std::uint32_t> m = in.digits(2);
    std::uint32_t s = 0;
    if (m && in.next() == ':') {
        in.skip(1);
        s = in.digits(2).value_or(60);
    }
    const std::uint32_t total = *h * 3600 + m.value_or(60) * 60 + s;
    if (!m || *m > 59 || s > 59 || total > 86400 || (total == 86400 && !isEnd)) {
        in.fail(column, std::string(total == 86400 ? "24:00 only ends a span"
                                                   : "that is not a time of day") +
                            ", expected a time such as 07:30");
    }
    return total;
}

std::uint32_t readMinute(cursor_t& in, bool isEnd) {
    const std::size_t column = in.column();
    if (!in.take(':')) {
        in.expected("a minute such as :15");
    }
    const std::optional<std::uint32_t> m = in.digits(2);
    std::uint32_t s = 0;
    if (m && in.next() == ':') {
        in.skip(1);
        s = in.digits(2).value_or(60);
    }
    if (!m || s > 59 || *m > 60 || (*m == 60 && (s != 0 || !isEnd))) {
        in.fail(column, "expected a minute such as :15 (:60 only ends a span)");
    }
    return *m * 60 + s;
}

std::uint32_t readDay(cursor_t& in) {
    const std::size_t column = in.column();
    const std::optional<std::uint32_t> day = indexIn(kDayNames, in.word());
    if (!day) {
        in.fail(column, "expected a day such as Mon");
    }
    in.skip(3);
    return *day;
}

std::uint32_t readCalendarPoint(cursor_t& in, base_t base, bool isEnd) {
    const std::size_t column = in.column();
    std::uint32_t day = 0;
    if (base == base_t::monthly) {
        if (in.word() != "day") {
            in.expected("a day of the month such as day 1");
        }
        in.skip(3);
        in.column();
        const std::optional<std::uint32_t> n = in.number(2);
        if (!n || *n < 1 || *n > 31) {
            in.fail(column, "expected a day of the month from day 1 to day 31");
        }
        day = *n - 1;
    } else {
        const std::optional<std::uint32_t> month = indexIn(kMonthNames, in.word());
        if (!month) {
            in.expected("a date such as Dec 24");
        }
        in.skip(3);
        in.column();
        const std::optional<std::uint32_t> n = in.number(2);
        if (!n || *n < 1 || *n > kMonthDays[*month]) {
            in.fail(column, "expected a day of " + std::string(kMonthNames[*month]) +
                                " from 1 to " + std::to_string(kMonthDays[*month]));
        }
        day = kMonthStarts[*month] + *n - 1;
    }
    return day * kDay + readClock(in, isEnd);
}

namespace {

// "+01:00", "-03:30" or "Z" after a time; nullopt when there is none.
// It follows the time directly: " - " after a time separates a span.
std::optional<long> readOffset(cursor_t& in) {
    if (in.next() == 'Z') {
        in.skip(1);
        return 0;
    }
    // "+hh:mm" exactly; "-2026-12-26" after a time is the end of a span.
    const std::string_view rest = in.rest();
    const char sign = in.next();
    auto digit = [&rest](std::size_t i) {
        return i < rest.size() && std::isdigit(static_cast<unsigned char>(rest[i]));
    };
    if ((sign != '+' && sign != '-') || !digit(1) || !digit(2) || rest.size() < 4 ||
        rest[3] != ':') {
        return std::nullopt;
    }
    const std::size_t column = in.column();
    in.skip(1);
    const std::optional<std::uint32_t> h = in.number(2);
    if (!h || !in.take(':')) {
        in.fail(column, "expected a UTC offset such as +01:00");
    }
    const std::optional<std::uint32_t> m = in.number(2);
    if (!m || *h > 14 || *m > 59) {
        in.fail(column, "expected a UTC offset such as +01:00");
    }
    const long seconds = static_cast<long>(*h) * 3600 + static_cast<long>(*m) * 60;
    return sign == '-' ? -seconds : seconds;
}

}  // namespace

std::uint32_t readOncePoint(cursor_t& in) {
    const std::size_t column = in.column();
    std::tm tm{};
    const std::optional<std::uint32_t> year = in.number(4);
    std::optional<std::uint32_t> month;
    std::optional<std::uint32_t> day;
    if (year && in.take('-') && (month = in.number(2)) && in.take('-')) {
        day = in.number(2);
    }
    if (!day || *year < 1970 || *month < 1 || *month > 12 || *day < 1 || *day > 31) {
        in.fail(column, "expected a date such as 2026-12-24");
    }
    const std::uint32_t time = readClock(in, false);
    tm.tm_year = static_cast<int>(*year) - 1900;
    tm.tm_mon = static_cast<int>(*month) - 1;
    tm.tm_mday = static_cast<int>(*day);
    tm.tm_hour = static_cast<int>(time / 3600);
    tm.tm_min = static_cast<int>(time % 3600 / 60);
    tm.tm_sec = static_cast<int>(time % 60);
    const std::optional<long> offset = readOffset(in);
    std::tm copy = tm;
    std::time_t t = 0;
    if (offset) {
        t = timegm(&copy) - *offset;
    } else {
        copy.tm_isdst = -1;
        t = std::mktime(&copy);
    }
    if (copy.tm_mday != tm.tm_mday || t < 0 || t > static_cast<std::time_t>(UINT32_MAX)) {
        in.fail(column, "expected a date such as 2026-12-24");
    }
    return static_cast<std::uint32_t>(t);
}

}  // namespace scheduler::text
