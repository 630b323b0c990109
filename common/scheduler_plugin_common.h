// The schedule records and their variant-map form on the bus.
//
// A schedule travels as a map with the keys "ID", "enable", "base", "def",
// "override" (required), "value" and "schedule" (optional); each element of
// "schedule" is an entry map with "state", "begin" and "end". Inside the
// plug-in a schedule is a schedule_t whose entries stay in map form until a
// schedule instance packs them into schedule_entry_t records.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "orv/variant.h"

// The trace zone of the plug-in; also its name.
inline constexpr const char* ME = "scheduler_plugin";

struct schedule_entry_t {
    std::string state;
    // Seconds from the start of the period; absolute times for "Once". The
    // schedule logic reads them as signed 32-bit numbers.
    std::uint32_t begin = 0;
    std::uint32_t end = 0;
};

struct schedule_t {
    std::optional<std::string> ID;
    bool enable = false;
    std::optional<std::string> base;
    std::optional<std::string> def;
    // The empty text means no override.
    std::optional<std::string> override;
    // The current state, filled when a schedule is read back.
    std::optional<std::string> value;
    // The entries. Shared, not copied, when a schedule instance lends its own
    // list to a read-back; nobody changes a list once it is in a record.
    std::shared_ptr<const variant_list_t> schedule;
};

// An entry map to a record; null (with a trace) when the variant is not a map
// or a key is missing or does not convert.
std::unique_ptr<schedule_entry_t> variant2schedule_entry_t(const variant_t* variant);
// A record to an entry map; a null record gives the empty variant.
std::optional<variant_t> schedule_entry_t2variant(const schedule_entry_t* record);

// A schedule map to a record; null when the variant is not a map or a
// required key is missing or does not convert. Nothing is traced.
std::unique_ptr<schedule_t> variant2schedule_t(const variant_t* variant);
// A record to a schedule map, keys in their documented order; "value" and
// "schedule" only when present. A null record gives the empty variant.
std::optional<variant_t> schedule_t2variant(const schedule_t* record);
