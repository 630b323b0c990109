#include "scheduler_plugin_common.h"

#include "orv/trace.h"
#include "orv/variant_map.h"

namespace {

const variant_map_t* entryMap(const variant_t* variant) {
    if (variant_type(variant) != variant_type_map) {
        tolvTraceZ(TRACE_LEVEL_INFO, ME, "Not a variant map");
        return nullptr;
    }
    const variant_map_t* map = variant_da_map(variant);
    if (map == nullptr) {
        tolvTraceZ(TRACE_LEVEL_INFO, ME, "Could not get the variant map");
    }
    return map;
}

std::optional<std::string> textOf(const variant_map_t* map, const char* key) {
    return variant_toChar(variant_map_find(map, key));
}

// Entry times are unsigned on the bus but read as signed by the schedule
// logic, so a negative 32-bit number is taken in its two's complement form:
// verification then judges it like any other out-of-range offset.
std::optional<std::uint32_t> entryTime(const variant_map_t* map, const char* key) {
    const variant_t* value = variant_map_find(map, key);
    if (std::optional<std::uint32_t> time = variant_toUInt32(value)) {
        return time;
    }
    if (std::optional<std::int32_t> negative = variant_toInt32(value)) {
        return static_cast<std::uint32_t>(*negative);
    }
    return std::nullopt;
}

}  // namespace

std::unique_ptr<schedule_entry_t> variant2schedule_entry_t(const variant_t* variant) {
    const variant_map_t* map = entryMap(variant);
    if (map == nullptr) {
        return nullptr;
    }
    auto record = std::make_unique<schedule_entry_t>();
    std::optional<std::string> state = textOf(map, "state");
    if (!state) {
        tolvTraceZ(TRACE_LEVEL_INFO, ME, "Cannot find state");
        return nullptr;
    }
    record->state = std::move(*state);
    std::optional<std::uint32_t> begin = entryTime(map, "begin");
    if (!begin) {
        tolvTraceZ(TRACE_LEVEL_INFO, ME, "Cannot find begin");
        return nullptr;
    }
    record->begin = *begin;
    std::optional<std::uint32_t> end = entryTime(map, "end");
    if (!end) {
        tolvTraceZ(TRACE_LEVEL_INFO, ME, "Cannot find end");
        return nullptr;
    }
    record->end = *end;
    return record;
}

std::optional<variant_t> schedule_entry_t2variant(const schedule_entry_t* record) {
    if (record == nullptr) {
        return variant_t();
    }
    variant_map_t map;
    if (!variant_map_addChar(&map, "state", record->state) ||
        !variant_map_addUInt32(&map, "begin", record->begin) ||
        !variant_map_addUInt32(&map, "end", record->end)) {
        return std::nullopt;
    }
    return variant_t(std::move(map));
}

std::unique_ptr<schedule_t> variant2schedule_t(const variant_t* variant) {
    const variant_map_t* map = variant_da_map(variant);
    if (variant_type(variant) != variant_type_map || map == nullptr) {
        return nullptr;
    }
    auto record = std::make_unique<schedule_t>();
    record->ID = textOf(map, "ID");
    std::optional<bool> enable = variant_toBool(variant_map_find(map, "enable"));
    record->base = textOf(map, "base");
    record->def = textOf(map, "def");
    record->override = textOf(map, "override");
    if (!record->ID || !enable || !record->base || !record->def || !record->override) {
        return nullptr;
    }
    record->enable = *enable;
    record->value = textOf(map, "value");
    if (std::optional<variant_list_t> list = variant_list(variant_map_find(map, "schedule"))) {
        record->schedule = std::make_shared<const variant_list_t>(std::move(*list));
    }
    return record;
}

std::optional<variant_t> schedule_t2variant(const schedule_t* record) {
    if (record == nullptr) {
        return variant_t();
    }
    variant_map_t map;
    bool ok = variant_map_addChar(&map, "ID", record->ID.value_or("")) &&
              variant_map_addBool(&map, "enable", record->enable) &&
              variant_map_addChar(&map, "base", record->base.value_or("")) &&
              variant_map_addChar(&map, "def", record->def.value_or("")) &&
              variant_map_addChar(&map, "override", record->override.value_or(""));
    if (ok && record->value) {
        ok = variant_map_addChar(&map, "value", *record->value);
    }
    if (ok && record->schedule) {
        ok = variant_map_addListCopy(&map, "schedule", record->schedule.get());
    }
    if (!ok) {
        return std::nullopt;
    }
    return variant_t(std::move(map));
}
