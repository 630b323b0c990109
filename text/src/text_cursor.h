// Reading the text form: a cursor over the text that reports failures with
// their column, and the readers of points in time that both the groups and
// the checks use.
#pragma once

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "scheduler/text.h"
#include "text_common.h"

namespace scheduler::text {

struct failure_t {
    std::size_t column;
    std::string message;
};

// An entry with where its text began and where its state stands.
struct placed_t {
    entry_t entry;
    std::size_t column;
    std::size_t stateColumn;
};

class cursor_t {
  public:
    explicit cursor_t(std::string_view text) : text_(text) {}

    void skipSpaces() {
        while (at_ < text_.size() && std::isspace(static_cast<unsigned char>(text_[at_]))) {
            ++at_;
        }
    }
    // The column of the next character that is not a space (1-based).
    std::size_t column() {
        skipSpaces();
        return at_ + 1;
    }
    bool done() { return column() > text_.size(); }
    bool take(char c) {
        if (column() <= text_.size() && text_[at_] == c) {
            ++at_;
            return true;
        }
        return false;
    }
    // The very next character, spaces included.
    char next() const { return at_ < text_.size() ? text_[at_] : '\0'; }
    // The characters from the cursor on, spaces included.
    std::string_view rest() const { return text_.substr(std::min(at_, text_.size())); }
    char peek() { return column() <= text_.size() ? text_[at_] : '\0'; }
    // "2026-…": four digits and a dash, as a date of a "once" schedule.
    bool looksLikeDate() {
        const std::size_t start = column() - 1;
        return text_.size() >= start + 5 &&
               std::all_of(text_.begin() + static_cast<std::ptrdiff_t>(start),
                           text_.begin() + static_cast<std::ptrdiff_t>(start + 4),
                           [](char c) { return std::isdigit(static_cast<unsigned char>(c)); }) &&
               text_[start + 4] == '-';
    }
    // The word of letters at the cursor, not consumed.
    std::string_view word() {
        std::size_t end = column() - 1;
        while (end < text_.size() && std::isalpha(static_cast<unsigned char>(text_[end]))) {
            ++end;
        }
        return text_.substr(at_, end - at_);
    }
    void skip(std::size_t n) { at_ += n; }
    // Exactly n digits; none otherwise (the cursor is left after the digits
    // it read).
    std::optional<std::uint32_t> digits(std::size_t n) {
        const std::size_t start = at_;
        std::optional<std::uint32_t> value = number(n);
        return at_ - start == n ? value : std::nullopt;
    }
    // Digits, at most max of them; none when there are none.
    std::optional<std::uint32_t> number(std::size_t max) {
        std::uint32_t value = 0;
        std::size_t n = 0;
        while (n < max && at_ < text_.size() &&
               std::isdigit(static_cast<unsigned char>(text_[at_]))) {
            value = value * 10 + static_cast<std::uint32_t>(text_[at_++] - '0');
            ++n;
        }
        return n == 0 ? std::nullopt : std::optional(value);
    }
    std::string_view stateWord() {
        const std::size_t start = column() - 1;
        std::size_t end = start;
        while (end < text_.size() &&
               (std::isalnum(static_cast<unsigned char>(text_[end])) ||
                std::string_view("_.:-").find(text_[end]) != std::string_view::npos)) {
            ++end;
        }
        at_ = end;
        return text_.substr(start, end - start);
    }
    [[noreturn]] void fail(std::size_t column, const std::string& what) const {
        throw failure_t{column, "col " + std::to_string(column) + ": " + what};
    }
    [[noreturn]] void expected(const std::string& what) { fail(column(), "expected " + what); }

  private:
    std::string_view text_;
    std::size_t at_ = 0;
};

// The point readers; each fails with the column and what was expected.
// "07:30" or "07:30:15", "24:00" only as an end.
std::uint32_t readClock(cursor_t& in, bool isEnd);
// ":15" or ":15:30" within an hour, ":60" only as an end.
std::uint32_t readMinute(cursor_t& in, bool isEnd);
// "Mon" … "Sun" as 0 … 6.
std::uint32_t readDay(cursor_t& in);
// "day 3 07:00" (monthly), "Dec 24 18:00" (yearly): seconds from the start
// of the period.
std::uint32_t readCalendarPoint(cursor_t& in, base_t base, bool isEnd);
// "2026-12-24 18:00", local, with an optional "+01:00" or "Z".
std::uint32_t readOncePoint(cursor_t& in);

}  // namespace scheduler::text
