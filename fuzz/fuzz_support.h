// Helpers shared by the fuzz targets: the check that stops a run on a broken
// invariant, an equality that treats NaN as equal to itself, and a source of
// variants drawn from the fuzz input.
//
// The source mostly produces values the scheduler understands (schedule maps,
// entry maps, states, base names, times near the clock) and sometimes
// arbitrary ones of any kind, so that inputs reach the deep code paths and
// still see odd types at every level.
#pragma once

#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include "orv/variant.h"
#include "orv/variant_map.h"

// Aborts with the failed condition; libFuzzer then saves the input.
#define FUZZ_REQUIRE(condition)                                                                 \
    do {                                                                                        \
        if (!(condition)) {                                                                     \
            std::fprintf(stderr, "fuzz invariant violated: %s (%s:%d)\n", #condition, __FILE__, \
                         __LINE__);                                                             \
            std::abort();                                                                       \
        }                                                                                       \
    } while (0)

namespace fuzz {

// operator== compares doubles by value, so a NaN that travelled unchanged
// would compare unequal to itself; a round trip must keep it all the same.
inline bool sameValue(const variant_t& a, const variant_t& b) {
    if (a.type() != b.type()) {
        return false;
    }
    if (a.type() == variant_type_double) {
        const double x = variant_toDouble(&a).value_or(0.0);
        const double y = variant_toDouble(&b).value_or(0.0);
        return (std::isnan(x) && std::isnan(y)) || (x == y && std::signbit(x) == std::signbit(y));
    }
    if (const variant_list_t* list = a.list()) {
        const variant_list_t& other = *b.list();
        if (list->size() != other.size()) {
            return false;
        }
        for (std::size_t i = 0; i < list->size(); ++i) {
            if (!sameValue((*list)[i], other[i])) {
                return false;
            }
        }
        return true;
    }
    if (const variant_map_t* map = a.map()) {
        const variant_map_t& other = *b.map();
        if (map->size() != other.size()) {
            return false;
        }
        for (std::size_t i = 0; i < map->size(); ++i) {
            if ((*map)[i].key != other[i].key || !sameValue((*map)[i].value, other[i].value)) {
                return false;
            }
        }
        return true;
    }
    return a == b;
}

// The longest period of each base, indexed by base - 1, as the plug-in
// bounds entry offsets; "Once" entries are absolute times instead.
inline constexpr std::array<std::int64_t, 6> kBoundaries = {-1,     3600,    86400,
                                                            604800, 2678400, 31622400};
inline constexpr std::array<const char*, 6> kBaseNames = {"Once",   "Hourly",  "Daily",
                                                          "Weekly", "Monthly", "Yearly"};

class value_source_t {
  public:
    value_source_t(FuzzedDataProvider& in, std::int64_t now) : in_(in), now_(now) {}

    FuzzedDataProvider& input() { return in_; }
    std::int64_t now() const { return now_; }
    void setNow(std::int64_t now) { now_ = now; }

    // One in `n` (for n >= 1) draws true.
    bool oneIn(unsigned n) { return in_.ConsumeIntegralInRange<unsigned>(1, n) == 1; }

    // A word the scheduler reacts to, or raw bytes (NULs and broken UTF-8
    // included: each path decides what to do with them).
    std::string text() {
        static constexpr std::array<const char*, 24> kWords = {"Light",
                                                               "Fan",
                                                               "a",
                                                               "b",
                                                               "on",
                                                               "off",
                                                               "eco",
                                                               "",
                                                               "Once",
                                                               "Hourly",
                                                               "Daily",
                                                               "Weekly",
                                                               "Monthly",
                                                               "Yearly",
                                                               "Device.Light",
                                                               "Device.Fan",
                                                               "Scheduler",
                                                               "Time",
                                                               "Light.Schedules",
                                                               "true",
                                                               "0",
                                                               "2023-11-14T22:13:20Z",
                                                               "2023-11-14T22:13:20",
                                                               "Unsynchronized"};
        if (in_.ConsumeIntegralInRange<unsigned>(0, 3) != 0) {
            return kWords[in_.ConsumeIntegralInRange<std::size_t>(0, kWords.size() - 1)];
        }
        return in_.ConsumeRandomLengthString(64);
    }

    // Numbers around the edges that the conversions and the schedule logic
    // care about, in every numeric kind a variant can hold.
    variant_t number() {
        static constexpr std::array<std::int64_t, 16> kEdges = {
            0,          1,          -1,          3599,
            3600,       86400,      604800,      2678400,
            31622400,   2147483647, -2147483648, 4294967295,
            4294967296, 1700000000, -86400,      std::numeric_limits<std::int64_t>::min()};
        switch (in_.ConsumeIntegralInRange(0, 7)) {
            case 0:
                return variant_t(in_.ConsumeIntegral<std::int32_t>());
            case 1:
                return variant_t(in_.ConsumeIntegral<std::uint32_t>());
            case 2:
                return variant_t(in_.ConsumeIntegral<std::int64_t>());
            case 3:
                return variant_t(in_.ConsumeIntegral<std::uint64_t>());
            case 4:
                return variant_t(doubleValue());
            case 5:
                return variant_t::dateTime(now_ + in_.ConsumeIntegralInRange(-86400, 864000));
            default: {
                const std::int64_t edge =
                    kEdges[in_.ConsumeIntegralInRange<std::size_t>(0, kEdges.size() - 1)];
                return edge >= 0 && edge <= 0xffffffffLL
                           ? variant_t(static_cast<std::uint32_t>(edge))
                           : variant_t(edge);
            }
        }
    }

    double doubleValue() {
        switch (in_.ConsumeIntegralInRange(0, 4)) {
            case 0:
                return std::numeric_limits<double>::quiet_NaN();
            case 1:
                return in_.ConsumeBool() ? std::numeric_limits<double>::infinity()
                                         : -std::numeric_limits<double>::infinity();
            case 2:
                return -0.0;
            case 3:
                return static_cast<double>(in_.ConsumeIntegralInRange(-100000, 100000)) / 4;
            default:
                return in_.ConsumeFloatingPoint<double>();
        }
    }

    // Any kind of value, lists and maps nested up to `depth` levels.
    variant_t anyValue(int depth) {
        const int kinds = depth > 0 ? 7 : 5;
        switch (in_.ConsumeIntegralInRange(0, kinds - 1)) {
            case 0:
                return variant_t();
            case 1:
                return variant_t(text());
            case 2:
                return variant_t(in_.ConsumeBool());
            case 3:
            case 4:
                return number();
            case 5: {
                variant_list_t list;
                const std::size_t count = in_.ConsumeIntegralInRange<std::size_t>(0, 4);
                for (std::size_t i = 0; i < count && in_.remaining_bytes() > 0; ++i) {
                    list.push_back(anyValue(depth - 1));
                }
                return variant_t(std::move(list));
            }
            default: {
                variant_map_t map;
                const std::size_t count = in_.ConsumeIntegralInRange<std::size_t>(0, 4);
                for (std::size_t i = 0; i < count && in_.remaining_bytes() > 0; ++i) {
                    variant_t value = anyValue(depth - 1);
                    variant_map_add(&map, text(), &value);
                }
                return variant_t(std::move(map));
            }
        }
    }

    // A state name: mostly one of the usual ones.
    variant_t state() {
        static constexpr std::array<const char*, 3> kStates = {"on", "off", "eco"};
        if (oneIn(8)) {
            return anyValue(1);
        }
        return variant_t(kStates[in_.ConsumeIntegralInRange<std::size_t>(0, kStates.size() - 1)]);
    }

    variant_t states() {
        variant_list_t list;
        const std::size_t count = in_.ConsumeIntegralInRange<std::size_t>(0, 4);
        for (std::size_t i = 0; i < count; ++i) {
            list.push_back(state());
        }
        return variant_t(std::move(list));
    }

    // 1..6 for the bases, sometimes 0 for a name no base has.
    int base() { return oneIn(16) ? 0 : in_.ConsumeIntegralInRange(1, 6); }

    // An offset (or for "Once" an absolute time) near what the base allows.
    variant_t offset(int base, std::int64_t low) {
        if (oneIn(10)) {
            return number();
        }
        if (base == 1) {
            return variant_t(std::max(low, now_ + in_.ConsumeIntegralInRange(-86400, 864000)));
        }
        const std::int64_t boundary = base >= 1 && base <= 6 ? kBoundaries[base - 1] : 3600;
        const std::int64_t value = in_.ConsumeIntegralInRange<std::int64_t>(
            std::min(low, boundary), std::max(low, boundary));
        return value >= 0 && value <= 0xffffffffLL ? variant_t(static_cast<std::uint32_t>(value))
                                                   : variant_t(value);
    }

    // An entry map; now and then a key is missing or of another kind.
    variant_t entry(int base, std::int64_t after) {
        variant_map_t map;
        variant_t begin = offset(base, after);
        const std::int64_t from = clampTime(variant_toInt64(&begin).value_or(after));
        // Events (begin == end) and state spans.
        variant_t end = in_.ConsumeIntegralInRange(0, 3) == 0 ? begin : offset(base, from + 1);
        const std::array<std::pair<const char*, variant_t>, 3> fields = {
            std::pair<const char*, variant_t>{"state", state()}, {"begin", begin}, {"end", end}};
        for (const auto& [key, value] : fields) {
            if (oneIn(24)) {
                continue;
            }
            variant_t chosen = oneIn(24) ? anyValue(1) : value;
            variant_map_add(&map, key, &chosen);
        }
        return variant_t(std::move(map));
    }

    // Entries in rising order most of the time, so that many lists pass
    // verification and reach the planning code.
    variant_t entries(int base) {
        variant_list_t list;
        const std::size_t count = in_.ConsumeIntegralInRange<std::size_t>(0, 8);
        std::int64_t after = 0;
        for (std::size_t i = 0; i < count && in_.remaining_bytes() > 0; ++i) {
            variant_t element = oneIn(16) ? anyValue(2) : entry(base, after);
            if (const variant_t* end = variant_map_find(variant_da_map(&element), "end")) {
                after = clampTime(variant_toInt64(end).value_or(after));
            }
            list.push_back(std::move(element));
        }
        return variant_t(std::move(list));
    }

    // A schedule map with the keys addSchedule reads, in the order the input
    // gives, plus now and then a key nobody reads.
    variant_t schedule() {
        const int chosenBase = base();
        const char* baseName = chosenBase >= 1 ? kBaseNames[chosenBase - 1] : "Never";
        variant_map_t map;
        for (int i = 0; i < 8 && in_.remaining_bytes() > 0; ++i) {
            variant_t value;
            const char* key = nullptr;
            switch (in_.ConsumeIntegralInRange(0, 7)) {
                case 0:
                    key = "ID";
                    value = variant_t(in_.ConsumeBool() ? "a" : "b");
                    break;
                case 1:
                    key = "enable";
                    value = variant_t(!oneIn(4));
                    break;
                case 2:
                    key = "base";
                    value = variant_t(baseName);
                    break;
                case 3:
                    key = "def";
                    value = oneIn(4) ? state() : variant_t("off");
                    break;
                case 4:
                    key = "override";
                    value = in_.ConsumeBool() ? variant_t("") : state();
                    break;
                case 5:
                    key = "value";
                    value = state();
                    break;
                case 6:
                    key = "schedule";
                    value = entries(chosenBase);
                    break;
                default: {
                    std::string name = text();
                    variant_t other = anyValue(2);
                    variant_map_add(&map, name, &other);
                    continue;
                }
            }
            if (oneIn(16)) {
                value = anyValue(2);
            }
            variant_map_add(&map, key, &value);
        }
        // The required keys, so that most maps convert to a record.
        const std::array<std::pair<const char*, variant_t>, 5> required = {
            std::pair<const char*, variant_t>{"ID", variant_t("a")},
            {"enable", variant_t(true)},
            {"base", variant_t(baseName)},
            {"def", variant_t("off")},
            {"override", variant_t("")}};
        const bool complete = !oneIn(8);
        for (const auto& [key, value] : required) {
            if (complete && variant_map_find(&map, key) == nullptr) {
                variant_map_add(&map, key, &value);
            }
        }
        if (complete && variant_map_find(&map, "schedule") == nullptr) {
            variant_t list = entries(chosenBase);
            variant_map_add(&map, "schedule", &list);
        }
        return variant_t(std::move(map));
    }

  private:
    // Offsets derived from drawn ones stay far from overflow.
    static std::int64_t clampTime(std::int64_t t) {
        constexpr std::int64_t kLimit = std::int64_t{1} << 40;
        return std::clamp(t, -kLimit, kLimit);
    }

    FuzzedDataProvider& in_;
    std::int64_t now_;
};

}  // namespace fuzz
