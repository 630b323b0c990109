// Guards the conversions between schedule maps and schedule records (and
// entry maps and entry records): whatever map a client sends, a record that
// comes out must convert back to a map that converts to the same record
// again, and the entry list must travel untouched. A record's entries are
// then parsed as a schedule is when it is added: ordered, read back exactly
// as sent, and verified; a verified list must give each state span its own
// state at its first and last second, and its next changes must agree with
// the states it holds.
//
// The input is JSON text when its first byte is even, otherwise a program
// that builds the map directly, with kinds JSON cannot express (date-times)
// and numbers at the edges of each kind.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "entry_form.h"
#include "fuzz_support.h"
#include "next_change.h"
#include "orv/trace.h"
#include "orv/variant.h"
#include "orv/variant_map.h"
#include "schedule_rules.h"
#include "scheduler_plugin_common.h"
#include "time_base.h"

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

// Every element as a record, or nothing when one is not an entry map.
std::optional<std::vector<schedule_entry_t>> recordsOf(const variant_list_t& sent) {
    std::vector<schedule_entry_t> all;
    for (const variant_t& element : sent) {
        std::unique_ptr<schedule_entry_t> entry = variant2schedule_entry_t(&element);
        if (!entry) {
            return std::nullopt;
        }
        all.push_back(*entry);
    }
    return all;
}

bool sameEntry(const schedule_entry_t& a, const schedule_entry_t& b) {
    return a.state == b.state && a.begin == b.begin && a.end == b.end;
}

// Ordering keeps every entry but those that set the default state, each once,
// in rising order of the signed begin, equal begins in reverse input order;
// the parsed entries are the kept ones in that order.
void checkOrdering(const std::vector<schedule_entry_t>& all, const parsed_entries_t& parsed) {
    FUZZ_REQUIRE(parsed.order.size() == all.size());
    FUZZ_REQUIRE(parsed.entries.size() == all.size());
    for (std::size_t i = 0; i < parsed.order.size(); ++i) {
        FUZZ_REQUIRE(parsed.order[i] < all.size());
        FUZZ_REQUIRE(sameEntry(parsed.entries[i], all[parsed.order[i]]));
        if (i > 0) {
            const std::int32_t before = signedOffset(all[parsed.order[i - 1]].begin);
            const std::int32_t here = signedOffset(all[parsed.order[i]].begin);
            FUZZ_REQUIRE(before < here ||
                         (before == here && parsed.order[i - 1] < parsed.order[i]));
        }
    }
}

// The maps read back are the kept ones exactly as sent, in their new order.
// Kept maps come back as they are (a NaN would not even equal itself).
void checkReadBack(const variant_list_t& sent, std::span<const std::size_t> order,
                   const parsed_entries_t& parsed) {
    variant_list_t expected;
    for (std::size_t at : order) {
        expected.push_back(sent[at]);
    }
    std::shared_ptr<const variant_list_t> back = entries_maps(parsed.entries, parsed.form);
    FUZZ_REQUIRE(back && fuzz::sameValue(variant_t(*back), variant_t(expected)));
}

// From t, the next change lies later; on a base whose periods all have the
// same length it sets the state the schedule holds from then on, and a
// position at t agrees with both searches.
void checkNextChange(const schedule_spec_t& spec, time_t t, bool events) {
    const std::optional<change_t> next = schedule_nextChange(spec, t);
    const position_t position = schedule_position(spec, t, nullptr);
    FUZZ_REQUIRE(position.state == schedule_stateAt(spec, t));
    FUZZ_REQUIRE(position.next.has_value() == next.has_value());
    if (!next) {
        return;
    }
    FUZZ_REQUIRE(next->time > t && position.next->time == next->time);
    FUZZ_REQUIRE(next->isEvent == events);
    const bool fixedLength = spec.base != time_base_monthly && spec.base != time_base_yearly;
    if (fixedLength && !events) {
        FUZZ_REQUIRE(next->state == schedule_stateAt(spec, next->time));
    }
    // While the next change's own state holds, a later change is planned.
    const std::optional<change_t> held = schedule_nextChangeHeld(spec, t, &next->state);
    FUZZ_REQUIRE(!held || held->time > next->time);
}

// A verified list holds state spans that do not overlap, or only events:
// each span's state holds from its begin to the second before its end,
// events never change the state held between them, and the next change
// from either edge obeys checkNextChange.
void checkVerifiedStates(const schedule_spec_t& spec) {
    for (const schedule_entry_t& entry : spec.entries) {
        const bool event = entry.begin == entry.end;
        const std::string& expected = event ? spec.defaultState : entry.state;
        const time_t first = timeAtOffset(spec.base, entry.begin);
        FUZZ_REQUIRE(schedule_stateAt(spec, first) == expected);
        checkNextChange(spec, first, event);
        if (!event) {
            const time_t last = timeAtOffset(spec.base, entry.end - 1);
            FUZZ_REQUIRE(schedule_stateAt(spec, last) == expected);
            checkNextChange(spec, last, event);
        }
    }
}

// The allowed states: the map's own "states" list when it has one (those
// without a text form cannot be named), or else every state the entries name.
std::vector<std::string> allowedStates(const variant_map_t& source,
                                       const std::vector<schedule_entry_t>& entries) {
    std::vector<std::string> states;
    if (const variant_list_t* given = variant_da_list(variant_map_find(&source, "states"))) {
        for (const variant_t& state : *given) {
            if (std::optional<std::string> name = variant_toChar(&state)) {
                states.push_back(std::move(*name));
            }
        }
        return states;
    }
    for (const schedule_entry_t& entry : entries) {
        states.push_back(entry.state);
    }
    return states;
}

void checkScheduleLogic(const schedule_t& record, const variant_map_t& source) {
    if (!record.schedule || !record.def) {
        return;
    }
    const variant_list_t& sent = *record.schedule;
    std::optional<parsed_entries_t> parsed = entries_parse(sent).parsed;
    const std::optional<std::vector<schedule_entry_t>> all = recordsOf(sent);
    // A list is refused exactly when one of its elements is no entry.
    FUZZ_REQUIRE(parsed.has_value() == all.has_value());
    if (!parsed) {
        return;
    }
    checkOrdering(*all, *parsed);
    checkReadBack(sent, parsed->order, *parsed);

    const int base = time_baseToEnum(record.base.value_or(""));
    const std::vector<std::string> states = allowedStates(source, parsed->entries);
    if (base != time_base_unknown && !schedule_verify(parsed->entries, base, states)) {
        checkVerifiedStates({base, schedule_searched(parsed->entries, *record.def), *record.def});
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
    tolvTraceSetSink([](int, std::string_view) {});
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
