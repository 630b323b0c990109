// The numbers a variant holds or a text spells, and their exact conversions.
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "variant_internal.h"

namespace {

bool isWhole(double d) {
    return std::isfinite(d) && std::trunc(d) == d;
}

}  // namespace

namespace variant_detail {

std::optional<number_t> parseInteger(std::string_view text) {
    std::size_t pos = 0;
    bool negative = false;
    if (pos < text.size() && (text[pos] == '-' || text[pos] == '+')) {
        negative = text[pos] == '-';
        ++pos;
    }
    if (pos >= text.size()) {
        return std::nullopt;
    }
    std::uint64_t magnitude = 0;
    for (; pos < text.size(); ++pos) {
        const char c = text[pos];
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        const auto digit = static_cast<std::uint64_t>(c - '0');
        if (magnitude > (std::numeric_limits<std::uint64_t>::max() - digit) / 10) {
            return std::nullopt;
        }
        magnitude = magnitude * 10 + digit;
    }
    if (negative) {
        constexpr std::uint64_t kMinMagnitude = std::uint64_t{1} << 63;
        if (magnitude > kMinMagnitude) {
            return std::nullopt;
        }
        if (magnitude == kMinMagnitude) {
            return number_t::ofSigned(std::numeric_limits<std::int64_t>::min());
        }
        return number_t::ofSigned(-static_cast<std::int64_t>(magnitude));
    }
    if (magnitude > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
        return number_t::ofUnsigned(magnitude);
    }
    return number_t::ofSigned(static_cast<std::int64_t>(magnitude));
}

std::optional<double> parseDouble(std::string_view text) {
    if (text.empty() || text.find_first_not_of("0123456789+-.eE") != std::string_view::npos) {
        return std::nullopt;
    }
    const std::string copy(text);
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(copy.c_str(), &end);
    if (end != copy.c_str() + copy.size()) {
        return std::nullopt;
    }
    if (errno == ERANGE && std::isinf(value)) {
        return std::nullopt;
    }
    return value;
}

std::optional<number_t> numberOf(const variant_t& v) {
    const auto& value = variant_access::value(v);
    if (const auto* i = std::get_if<std::int64_t>(&value)) {
        return number_t::ofSigned(*i);
    }
    if (const auto* u = std::get_if<std::uint64_t>(&value)) {
        return number_t::ofUnsigned(*u);
    }
    if (const auto* b = std::get_if<bool>(&value)) {
        return number_t::ofSigned(*b ? 1 : 0);
    }
    if (const auto* d = std::get_if<double>(&value)) {
        return number_t::ofDouble(*d);
    }
    return std::nullopt;
}

std::optional<std::int64_t> numberToInt64(const number_t& n) {
    switch (n.kind) {
        case number_t::kSigned:
            return n.i;
        case number_t::kUnsigned:
            if (n.u > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
                return std::nullopt;
            }
            return static_cast<std::int64_t>(n.u);
        case number_t::kDouble:
            if (!isWhole(n.d) || n.d < -kTwo63 || n.d >= kTwo63) {
                return std::nullopt;
            }
            return static_cast<std::int64_t>(n.d);
    }
    return std::nullopt;
}

std::optional<std::uint64_t> numberToUInt64(const number_t& n) {
    switch (n.kind) {
        case number_t::kSigned:
            if (n.i < 0) {
                return std::nullopt;
            }
            return static_cast<std::uint64_t>(n.i);
        case number_t::kUnsigned:
            return n.u;
        case number_t::kDouble:
            if (!isWhole(n.d) || n.d < 0.0 || n.d >= kTwo64) {
                return std::nullopt;
            }
            return static_cast<std::uint64_t>(n.d);
    }
    return std::nullopt;
}

double numberToDouble(const number_t& n) {
    switch (n.kind) {
        case number_t::kSigned:
            return static_cast<double>(n.i);
        case number_t::kUnsigned:
            return static_cast<double>(n.u);
        case number_t::kDouble:
            return n.d;
    }
    return 0.0;
}

std::string formatDouble(double d) {
    char buffer[64];
    if (!std::isfinite(d)) {
        std::snprintf(buffer, sizeof buffer, "%.17g", d);
        return buffer;
    }
    for (int precision = 1; precision <= 17; ++precision) {
        std::snprintf(buffer, sizeof buffer, "%.*g", precision, d);
        if (std::strtod(buffer, nullptr) == d) {
            return buffer;
        }
    }
    std::snprintf(buffer, sizeof buffer, "%.17g", d);
    return buffer;
}

}  // namespace variant_detail
