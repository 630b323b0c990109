// Guards the conversions between schedule maps and schedule records (and
// entry maps and entry records): whatever map a client sends, a record that
// comes out must convert back to a map that converts to the same record
// again, and the entry list must travel untouched. A record's entries are
// then ordered and verified as addSchedule does, and a verified list must
// give each state span its own state at its first and last second.
//
// The input is JSON text when its first byte is even, otherwise a program
// that builds the map directly, with kinds JSON cannot express (date-times)
// and numbers at the edges of each kind.
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "orv/trace.h"
#include "orv/variant.h"
#include "orv/variant_map.h"
#include "scheduler_entrylist.h"
#include "scheduler_plugin_common.h"
#include "scheduler_schedule.h"
#include "scheduler_time.h"

namespace {

// A Monday in January of a leap year, 12:00 UTC: the periods that contain it
// are as long as each base allows (a 31-day month, a 366-day year), so every
// offset within a base's boundary falls in the same period.
constexpr std::int64_t kAnchor = 1705320000;  // 2024-01-15T12:00:00Z

bool sameText(const std::optional<std::string>& a, const std::optional<std::string>& b) {
    return a == b;
}

void checkEntryRoundTrip(const variant_t& element) {
    std::unique_ptr<schedule_entry_t> record = variant2schedule_entry_t(&element);
    if (!record) {
        return;
    }
    std::optional<variant_t> map = schedule_entry_t2variant(record.get());
    FUZZ_REQUIRE(map && map->map() != nullptr && map->map()->size() == 3);
    FUZZ_REQUIRE((*map->map())[0].key == "state" && (*map->map())[1].key == "begin" &&
                 (*map->map())[2].key == "end");
    std::unique_ptr<schedule_entry_t> again = variant2schedule_entry_t(&*map);
    FUZZ_REQUIRE(again != nullptr);
    FUZZ_REQUIRE(again->state == record->state && again->begin == record->begin &&
                 again->end == record->end);
    std::optional<variant_t> mapAgain = schedule_entry_t2variant(again.get());
    FUZZ_REQUIRE(mapAgain && fuzz::sameValue(*mapAgain, *map));
}

bool sameList(const std::shared_ptr<const variant_list_t>& a,
              const std::shared_ptr<const variant_list_t>& b) {
    if (!a || !b) {
        return !a && !b;
    }
    return fuzz::sameValue(variant_t(*a), variant_t(*b));
}

void checkRecordsAgree(const schedule_t& a, const schedule_t& b) {
    FUZZ_REQUIRE(sameText(a.ID, b.ID) && a.enable == b.enable && sameText(a.base, b.base) &&
                 sameText(a.def, b.def) && sameText(a.override, b.override) &&
                 sameText(a.value, b.value));
    FUZZ_REQUIRE(sameList(a.schedule, b.schedule));
}

// The map of a record has the required keys first, in their documented
// order, then "value" and "schedule" exactly when the record holds them.
void checkMapLayout(const variant_map_t& map, const schedule_t& record) {
    static constexpr const char* kRequired[] = {"ID", "enable", "base", "def", "override"};
    std::size_t index = 0;
    for (const char* key : kRequired) {
        FUZZ_REQUIRE(index < map.size() && map[index].key == key);
        ++index;
    }
    if (record.value) {
        FUZZ_REQUIRE(index < map.size() && map[index].key == "value");
        ++index;
    }
    if (record.schedule) {
        FUZZ_REQUIRE(index < map.size() && map[index].key == "schedule");
        ++index;
    }
    FUZZ_REQUIRE(index == map.size());
}

std::int32_t signedOffset(std::uint32_t offset) {
    return static_cast<std::int32_t>(offset);
}

// The time at which a base's period holds the given offset.
time_t timeAtOffset(int base, std::uint32_t offset) {
    if (base == time_base_once) {
        return static_cast<time_t>(signedOffset(offset));
    }
    return time_calculateReferenceTime(base, kAnchor) + signedOffset(offset);
}

// Ordering keeps every element but the entries that set the default state,
// and puts the valid entries in rising order of their signed begin.
void checkOrdering(const variant_list_t& input, const variant_list_t& ordered,
                   const std::string& defaultState) {
    std::size_t kept = 0;
    for (const variant_t& element : input) {
        std::unique_ptr<schedule_entry_t> entry = variant2schedule_entry_t(&element);
        if (!entry || entry->state != defaultState) {
            ++kept;
        }
    }
    FUZZ_REQUIRE(ordered.size() == kept);
    std::optional<std::int32_t> previous;
    for (const variant_t& element : ordered) {
        std::unique_ptr<schedule_entry_t> entry = variant2schedule_entry_t(&element);
        if (!entry) {
            continue;
        }
        FUZZ_REQUIRE(!previous || *previous <= signedOffset(entry->begin));
        previous = signedOffset(entry->begin);
    }
}

// A verified list packs, and reads back exactly as it was given. It holds
// state spans that do not overlap, or only events: each span's state holds
// from its begin to the second before its end, and events never change the
// state held between them.
void checkVerifiedStates(const variant_list_t& ordered, int base, const std::string& def) {
    std::optional<entrylist_t> packed =
        entrylist_pack(std::make_shared<const variant_list_t>(ordered));
    FUZZ_REQUIRE(packed.has_value());
    std::shared_ptr<const variant_list_t> back = entrylist_variants(*packed);
    // Kept maps come back as they are (a NaN state would not even equal
    // itself); rebuilt ones must equal what was given.
    FUZZ_REQUIRE(back && (back == packed->given || *back == ordered));
    for (const schedule_entry_t& entry : packed->entries) {
        const bool event = entry.begin == entry.end;
        const std::string& expected = event ? def : entry.state;
        const time_t first = timeAtOffset(base, entry.begin);
        FUZZ_REQUIRE(schedule_currentState(packed->entries, base, first, def) == expected);
        if (!event) {
            const time_t last = timeAtOffset(base, entry.end - 1);
            FUZZ_REQUIRE(schedule_currentState(packed->entries, base, last, def) == expected);
        }
    }
}

void checkScheduleLogic(const schedule_t& record, const variant_map_t& source) {
    if (!record.schedule || !record.def) {
        return;
    }
    std::optional<variant_list_t> ordered = schedule_order(*record.schedule, *record.def);
    FUZZ_REQUIRE(ordered.has_value());
    checkOrdering(*record.schedule, *ordered, *record.def);

    // The allowed states: the map's own "states" list when it has one, or
    // else every state the entries name.
    variant_list_t states;
    if (const variant_list_t* given = variant_da_list(variant_map_find(&source, "states"))) {
        states = *given;
    } else {
        for (const variant_t& element : *ordered) {
            if (const variant_t* state = variant_map_find(variant_da_map(&element), "state")) {
                states.push_back(*state);
            }
        }
    }
    const int base = time_baseToEnum(record.base.value_or(""));
    if (base != time_base_unknown && schedule_verify(*ordered, base, &states)) {
        checkVerifiedStates(*ordered, base, *record.def);
    }
}

void checkSchedule(const variant_t& input) {
    std::unique_ptr<schedule_t> record = variant2schedule_t(&input);
    if (!record) {
        return;
    }
    const variant_map_t* source = input.map();
    FUZZ_REQUIRE(source != nullptr);
    // The entry list is taken as it is, or not at all when it is no list.
    const variant_t* list = variant_map_find(source, "schedule");
    if (list != nullptr && list->list() != nullptr) {
        FUZZ_REQUIRE(record->schedule && fuzz::sameValue(variant_t(*record->schedule), *list));
    } else {
        FUZZ_REQUIRE(!record->schedule);
    }

    std::optional<variant_t> map = schedule_t2variant(record.get());
    FUZZ_REQUIRE(map && map->map() != nullptr);
    checkMapLayout(*map->map(), *record);
    std::unique_ptr<schedule_t> again = variant2schedule_t(&*map);
    FUZZ_REQUIRE(again != nullptr);
    checkRecordsAgree(*record, *again);
    std::optional<variant_t> mapAgain = schedule_t2variant(again.get());
    FUZZ_REQUIRE(mapAgain && fuzz::sameValue(*mapAgain, *map));

    if (record->schedule) {
        for (const variant_t& element : *record->schedule) {
            checkEntryRoundTrip(element);
        }
    }
    checkScheduleLogic(*record, *source);
}

void checkValue(const variant_t& value) {
    checkEntryRoundTrip(value);
    checkSchedule(value);
    // The conversions take any variant: a null or empty one too.
    FUZZ_REQUIRE(variant2schedule_t(nullptr) == nullptr);
    FUZZ_REQUIRE(variant2schedule_entry_t(nullptr) == nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    setenv("TZ", "UTC", 1);
    tzset();
    // Every trace is formatted, so that the trace paths run too, and dropped.
    tolvTraceSetLevel(TRACE_LEVEL_CALLSTACK);
    tolvTraceAddZone(TRACE_LEVEL_CALLSTACK, ME);
    tolvTraceSetSink([](std::string_view) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    if (data[0] % 2 == 0) {
        const std::string_view text(reinterpret_cast<const char*>(data + 1), size - 1);
        if (std::optional<variant_t> parsed = variant_fromJSON(text)) {
            checkValue(*parsed);
        }
        return 0;
    }
    FuzzedDataProvider in(data + 1, size - 1);
    fuzz::value_source_t source(in, kAnchor);
    variant_t value;
    switch (in.ConsumeIntegralInRange(0, 3)) {
        case 0:
            value = source.entry(source.base(), 0);
            break;
        case 1:
            value = source.anyValue(4);
            break;
        default: {
            value = source.schedule();
            // Sometimes with the list of states a type would allow.
            if (in.ConsumeBool()) {
                variant_t states = source.states();
                variant_map_add(value.map(), "states", &states);
            }
            break;
        }
    }
    checkValue(value);
    return 0;
}
