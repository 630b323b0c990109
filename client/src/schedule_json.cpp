#include "schedule_json.h"

#include <cstdint>
#include <limits>

namespace scheduler {

namespace {

// Each reader answers the problem with the value, or nothing.
std::optional<std::string> problemOf(const json& object, const char* key, json::value_t wanted,
                                     const char* what) {
    auto it = object.find(key);
    if (it == object.end()) {
        return std::string("\"") + key + "\" is missing";
    }
    if (it->type() != wanted &&
        !(wanted == json::value_t::number_unsigned && it->is_number_integer())) {
        return std::string("\"") + key + "\" must be " + what;
    }
    return std::nullopt;
}

std::optional<std::uint32_t> offset(const json& entry, const char* key, json_problem_t* problem,
                                    const std::string& pointer) {
    if (auto reason = problemOf(entry, key, json::value_t::number_unsigned, "a whole number")) {
        *problem = {pointer, *reason};
        return std::nullopt;
    }
    const json& value = entry.at(key);
    if (value.is_number_integer() && !value.is_number_unsigned() && value.get<std::int64_t>() < 0) {
        *problem = {pointer + "/" + key, "a time cannot be negative"};
        return std::nullopt;
    }
    const auto number = value.get<std::uint64_t>();
    if (number > std::numeric_limits<std::uint32_t>::max()) {
        *problem = {pointer + "/" + key, "the time is too large"};
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(number);
}

std::optional<entry_t> entryFromJson(const json& value, const std::string& pointer,
                                     json_problem_t* problem) {
    if (!value.is_object()) {
        *problem = {pointer, "an entry must be an object"};
        return std::nullopt;
    }
    if (auto reason = problemOf(value, "state", json::value_t::string, "a text")) {
        *problem = {pointer, *reason};
        return std::nullopt;
    }
    entry_t entry;
    entry.state = value.at("state").get<std::string>();
    std::optional<std::uint32_t> begin = offset(value, "begin", problem, pointer);
    std::optional<std::uint32_t> end =
        begin ? offset(value, "end", problem, pointer) : std::nullopt;
    if (!end) {
        return std::nullopt;
    }
    entry.begin = *begin;
    entry.end = *end;
    return entry;
}

bool readEntries(const json& value, const std::string& pointer, schedule_t* schedule,
                 json_problem_t* problem) {
    auto it = value.find("schedule");
    if (it == value.end()) {
        return true;  // a schedule without entries holds its default
    }
    if (!it->is_array()) {
        *problem = {pointer + "/schedule", "the entries must be a list"};
        return false;
    }
    for (std::size_t i = 0; i < it->size(); ++i) {
        auto entry = entryFromJson((*it)[i], pointer + "/schedule/" + std::to_string(i), problem);
        if (!entry) {
            return false;
        }
        schedule->entries.push_back(std::move(*entry));
    }
    return true;
}

bool readHeader(const json& value, const std::string& pointer, schedule_t* schedule,
                json_problem_t* problem) {
    const std::pair<const char*, std::string*> texts[] = {{"ID", &schedule->id},
                                                          {"def", &schedule->default_state},
                                                          {"override", &schedule->override_state}};
    for (const auto& [key, target] : texts) {
        if (auto reason = problemOf(value, key, json::value_t::string, "a text")) {
            *problem = {pointer, *reason};
            return false;
        }
        *target = value.at(key).get<std::string>();
    }
    if (auto reason = problemOf(value, "enable", json::value_t::boolean, "true or false")) {
        *problem = {pointer, *reason};
        return false;
    }
    schedule->enabled = value.at("enable").get<bool>();
    if (auto reason = problemOf(value, "base", json::value_t::string, "a text")) {
        *problem = {pointer, *reason};
        return false;
    }
    std::optional<base_t> base = base_from_name(value.at("base").get<std::string>());
    if (!base) {
        *problem = {pointer + "/base",
                    "the base must be Once, Hourly, Daily, Weekly, Monthly or Yearly"};
        return false;
    }
    schedule->base = *base;
    return true;
}

}  // namespace

json schedule_to_json(const schedule_t& schedule) {
    json entries = json::array();
    for (const entry_t& entry : schedule.entries) {
        entries.push_back({{"state", entry.state}, {"begin", entry.begin}, {"end", entry.end}});
    }
    return {{"ID", schedule.id},
            {"enable", schedule.enabled},
            {"base", std::string(base_name(schedule.base))},
            {"def", schedule.default_state},
            {"override", schedule.override_state},
            {"schedule", std::move(entries)}};
}

std::optional<schedule_status_t> schedule_from_json(const json& value, const std::string& pointer,
                                                    json_problem_t* problem) {
    if (!value.is_object()) {
        *problem = {pointer, "a schedule must be an object"};
        return std::nullopt;
    }
    schedule_status_t status;
    if (!readHeader(value, pointer, &status.schedule, problem) ||
        !readEntries(value, pointer, &status.schedule, problem)) {
        return std::nullopt;
    }
    if (auto it = value.find("value"); it != value.end() && it->is_string()) {
        status.current_state = it->get<std::string>();
    }
    return status;
}

}  // namespace scheduler
