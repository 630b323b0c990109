// Date-times as ISO 8601 text.
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "orv/variant.h"

namespace {

// Reads exactly `count` digits at text[pos].
bool readDigits(std::string_view text, std::size_t pos, std::size_t count, int* out) {
    if (pos + count > text.size()) {
        return false;
    }
    int value = 0;
    for (std::size_t i = pos; i < pos + count; ++i) {
        if (text[i] < '0' || text[i] > '9') {
            return false;
        }
        value = value * 10 + (text[i] - '0');
    }
    *out = value;
    return true;
}

bool isLeapYear(int year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int daysInMonth(int year, int month) {
    static const int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month == 2 && isLeapYear(year)) {
        return 29;
    }
    return kDays[month - 1];
}

// The fields of "YYYY-MM-DDTHH:MM:SS[.fff][Z]", checked for range.
struct iso_fields_t {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    bool utc = false;
};

// Skips an optional fraction of a second and reads the optional "Z"; false
// when anything else follows the seconds.
bool readTail(std::string_view text, iso_fields_t* fields) {
    std::size_t pos = 19;
    if (pos < text.size() && text[pos] == '.') {
        ++pos;
        const std::size_t digitsStart = pos;
        while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
            ++pos;
        }
        if (pos == digitsStart) {
            return false;
        }
    }
    if (pos < text.size() && text[pos] == 'Z') {
        fields->utc = true;
        ++pos;
    }
    return pos == text.size();
}

std::optional<iso_fields_t> readFields(std::string_view text) {
    iso_fields_t f;
    if (text.size() < 19 || !readDigits(text, 0, 4, &f.year) || text[4] != '-' ||
        !readDigits(text, 5, 2, &f.month) || text[7] != '-' || !readDigits(text, 8, 2, &f.day) ||
        text[10] != 'T' || !readDigits(text, 11, 2, &f.hour) || text[13] != ':' ||
        !readDigits(text, 14, 2, &f.minute) || text[16] != ':' ||
        !readDigits(text, 17, 2, &f.second) || !readTail(text, &f)) {
        return std::nullopt;
    }
    if (f.month < 1 || f.month > 12 || f.day < 1 || f.day > daysInMonth(f.year, f.month) ||
        f.hour > 23 || f.minute > 59 || f.second > 59) {
        return std::nullopt;
    }
    return f;
}

// mktime answers -1 both for an error and for the second before the epoch.
bool isSecondBeforeEpoch(const iso_fields_t& f) {
    struct tm check {};
    const std::time_t minusOne = -1;
    return localtime_r(&minusOne, &check) != nullptr && check.tm_year == f.year - 1900 &&
           check.tm_mon == f.month - 1 && check.tm_mday == f.day && check.tm_hour == f.hour &&
           check.tm_min == f.minute && check.tm_sec == f.second;
}

}  // namespace

std::string orv_isoTime(std::int64_t seconds) {
    const auto t = static_cast<std::time_t>(seconds);
    struct tm utc {};
    if (gmtime_r(&t, &utc) == nullptr) {
        return std::string();
    }
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%04lld-%02d-%02dT%02d:%02d:%02dZ",
                  static_cast<long long>(utc.tm_year) + 1900, utc.tm_mon + 1, utc.tm_mday,
                  utc.tm_hour, utc.tm_min, utc.tm_sec);
    return buffer;
}

std::optional<std::int64_t> orv_parseIsoTime(std::string_view text) {
    const auto f = readFields(text);
    if (!f) {
        return std::nullopt;
    }
    struct tm broken {};
    broken.tm_year = f->year - 1900;
    broken.tm_mon = f->month - 1;
    broken.tm_mday = f->day;
    broken.tm_hour = f->hour;
    broken.tm_min = f->minute;
    broken.tm_sec = f->second;
    if (f->utc) {
        return static_cast<std::int64_t>(timegm(&broken));
    }
    broken.tm_isdst = -1;
    errno = 0;
    const std::time_t local = mktime(&broken);
    if (local == static_cast<std::time_t>(-1) && !isSecondBeforeEpoch(*f)) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(local);
}
