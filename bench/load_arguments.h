// The named arguments orv-load gives the scheduler's functions, and the
// schedules it adds, shared by its loads.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>

#include "orv/variant.h"

namespace load {

// An addSchedule of the type, enabled, with the default state "off".
variant_map_t addArguments(const std::string& type, const std::string& id, const char* base,
                           variant_list_t entries);

// "on" from begin to end, both seconds since the epoch, and "off" otherwise.
variant_map_t onceArguments(const std::string& type, const std::string& id, std::int64_t begin,
                            std::int64_t end);

// The entries of the i-th Daily schedule: four spans of 15 minutes a day,
// six hours apart, at a time of day that differs from one schedule to the
// next. Each is (state, begin, end) in seconds of the day.
struct daily_entry_t {
    const char* state;
    std::uint32_t begin;
    std::uint32_t end;
};
constexpr std::size_t kDailyEntries = 4;
daily_entry_t dailyEntry(std::size_t i, std::size_t k);

variant_map_t dailyArguments(const std::string& type, const std::string& id, std::size_t i);

// A store of the client library for the type, holding count Daily
// schedules "S0", "S1"... with the entries above; false when it could not
// be written.
bool writeDailyStore(const std::filesystem::path& file, const std::string& type, std::size_t count);

variant_map_t removeArguments(const std::string& type, const std::string& id);

// registerScheduleType of the type for path, with the states on, off and
// eco, and unregisterScheduleType.
variant_map_t registerArguments(const std::string& type, const std::string& path);
variant_map_t typeArguments(const std::string& type);

}  // namespace load
