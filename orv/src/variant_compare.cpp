// Comparing variants: the order of variant_compare and the equality of ==.
#include <algorithm>
#include <cmath>
#include <string>

#include "variant_internal.h"

using variant_detail::equalVariants;
using variant_detail::fail;
using variant_detail::kTwo63;
using variant_detail::kTwo64;
using variant_detail::listOf;
using variant_detail::mapOf;
using variant_detail::number_t;
using variant_detail::numberOf;

namespace {

int sign(int value) {
    return (value > 0) - (value < 0);
}

template <typename T>
int threeWay(T a, T b) {
    return (a > b) - (a < b);
}

// Compares a double with a signed integer without losing precision.
int compareDoubleSigned(double d, std::int64_t i) {
    if (d < -kTwo63) {
        return -1;
    }
    if (d >= kTwo63) {
        return 1;
    }
    const double whole = std::trunc(d);
    const auto wholeInt = static_cast<std::int64_t>(whole);
    if (wholeInt != i) {
        return threeWay(wholeInt, i);
    }
    return threeWay(d - whole, 0.0);
}

int compareDoubleUnsigned(double d, std::uint64_t u) {
    if (d < 0.0) {
        return -1;
    }
    if (d >= kTwo64) {
        return 1;
    }
    const double whole = std::trunc(d);
    const auto wholeInt = static_cast<std::uint64_t>(whole);
    if (wholeInt != u) {
        return threeWay(wholeInt, u);
    }
    return threeWay(d - whole, 0.0);
}

// Numbers by value; nullopt when a NaN is involved.
std::optional<int> compareNumbers(const number_t& a, const number_t& b) {
    using K = number_t;
    if ((a.kind == K::kDouble && std::isnan(a.d)) || (b.kind == K::kDouble && std::isnan(b.d))) {
        return std::nullopt;
    }
    switch (a.kind) {
        case K::kSigned:
            switch (b.kind) {
                case K::kSigned:
                    return threeWay(a.i, b.i);
                case K::kUnsigned:
                    return a.i < 0 ? -1 : threeWay(static_cast<std::uint64_t>(a.i), b.u);
                case K::kDouble:
                    return -compareDoubleSigned(b.d, a.i);
            }
            break;
        case K::kUnsigned:
            switch (b.kind) {
                case K::kSigned:
                    return b.i < 0 ? 1 : threeWay(a.u, static_cast<std::uint64_t>(b.i));
                case K::kUnsigned:
                    return threeWay(a.u, b.u);
                case K::kDouble:
                    return -compareDoubleUnsigned(b.d, a.u);
            }
            break;
        case K::kDouble:
            switch (b.kind) {
                case K::kSigned:
                    return compareDoubleSigned(a.d, b.i);
                case K::kUnsigned:
                    return compareDoubleUnsigned(a.d, b.u);
                case K::kDouble:
                    return threeWay(a.d, b.d);
            }
            break;
    }
    return std::nullopt;
}

std::optional<int> compareVariants(const variant_t& a, const variant_t& b);

std::optional<int> compareLists(const variant_list_t& a, const variant_list_t& b) {
    const std::size_t n = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < n; ++i) {
        const auto r = compareVariants(a[i], b[i]);
        if (!r) {
            return std::nullopt;
        }
        if (*r != 0) {
            return r;
        }
    }
    return threeWay(a.size(), b.size());
}

std::optional<int> compareMaps(const variant_map_t& a, const variant_map_t& b) {
    const std::size_t n = std::min(a.size(), b.size());
    for (std::size_t i = 0; i < n; ++i) {
        const int keys = sign(a[i].key.compare(b[i].key));
        if (keys != 0) {
            return keys;
        }
        const auto r = compareVariants(a[i].value, b[i].value);
        if (!r) {
            return std::nullopt;
        }
        if (*r != 0) {
            return r;
        }
    }
    return threeWay(a.size(), b.size());
}

std::optional<int> compareVariants(const variant_t& a, const variant_t& b) {
    const variant_type_t ta = a.type();
    const variant_type_t tb = b.type();
    if (ta == variant_type_unknown || tb == variant_type_unknown) {
        if (ta == tb) {
            return 0;
        }
        return std::nullopt;
    }
    const bool aList = ta == variant_type_array;
    const bool bList = tb == variant_type_array;
    const bool aMap = ta == variant_type_map;
    const bool bMap = tb == variant_type_map;
    if (aList || bList || aMap || bMap) {
        if (aList && bList) {
            return compareLists(listOf(a), listOf(b));
        }
        if (aMap && bMap) {
            return compareMaps(mapOf(a), mapOf(b));
        }
        return std::nullopt;
    }
    const std::string* textA = a.text();
    const std::string* textB = b.text();
    if (textA != nullptr || textB != nullptr) {
        const std::optional<std::string> formA =
            textA ? std::optional<std::string>(*textA) : variant_toChar(&a);
        const std::optional<std::string> formB =
            textB ? std::optional<std::string>(*textB) : variant_toChar(&b);
        if (!formA || !formB) {
            return std::nullopt;
        }
        return sign(formA->compare(*formB));
    }
    const auto na = numberOf(a);
    const auto nb = numberOf(b);
    if (!na || !nb) {
        return std::nullopt;
    }
    return compareNumbers(*na, *nb);
}

bool equalLists(const variant_list_t& a, const variant_list_t& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (!equalVariants(a[i], b[i])) {
            return false;
        }
    }
    return true;
}

bool equalMaps(const variant_map_t& a, const variant_map_t& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (a[i].key != b[i].key || !equalVariants(a[i].value, b[i].value)) {
            return false;
        }
    }
    return true;
}

}  // namespace

// Same type and same value; lists and maps element by element.
bool variant_detail::equalVariants(const variant_t& a, const variant_t& b) {
    if (a.type() != b.type()) {
        return false;
    }
    const auto& va = variant_access::value(a);
    const auto& vb = variant_access::value(b);
    switch (a.type()) {
        case variant_type_unknown:
            return true;
        case variant_type_array:
            return equalLists(listOf(a), listOf(b));
        case variant_type_map:
            return equalMaps(mapOf(a), mapOf(b));
        default:
            return va == vb;
    }
}

bool operator==(const variant_t& a, const variant_t& b) {
    return equalVariants(a, b);
}

// ---------------------------------------------------------------------------
// Comparison

bool variant_compare(const variant_t* a, const variant_t* b, int* result) {
    if (a == nullptr || b == nullptr) {
        return fail(orv_error_invalid_argument);
    }
    const auto r = compareVariants(*a, *b);
    if (!r) {
        return fail(orv_error_invalid_argument);
    }
    if (result != nullptr) {
        *result = *r;
    }
    return true;
}
