#include "schedules.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "orv/string.h"
#include "orv/trace.h"
#include "orv/variant.h"

namespace {

std::optional<std::string> textParameter(const object_t* object, std::string_view name) {
    return variant_char(object_parameterValue(object, name));
}

schedule_parse_t refused(std::string reason) {
    return {nullptr, std::move(reason)};
}

// The first text a schedule must carry and does not; an empty override is
// allowed and means that no override is set.
std::optional<std::string> missingText(const schedule_t& schedule) {
    const std::pair<const char*, const std::optional<std::string>*> texts[] = {
        {"ID", &schedule.ID},
        {"base", &schedule.base},
        {"def", &schedule.def},
        {"override", &schedule.override}};
    for (const auto& [name, text] : texts) {
        if (!*text) {
            return name;
        }
    }
    return std::nullopt;
}

std::string notAState(const std::string& state, const type_record_t& type) {
    return "state '" + state + "' is not a state of type '" + type.name + "'";
}

// The sentence that names the entries by their place in the list as sent.
std::string breachText(const breach_t& breach, const parsed_entries_t& parsed, int base,
                       const type_record_t& type) {
    const std::string at = std::to_string(parsed.order[breach.at] + 1);
    const std::string other = std::to_string(parsed.order[breach.other] + 1);
    const schedule_entry_t& entry = parsed.entries[breach.at];
    switch (breach.rule) {
        case breach_t::mixed:
            return "entries " + other + " and " + at +
                   " mix a span and an event: a schedule holds one kind";
        case breach_t::reversed:
            return "entry " + at + " ends before it begins";
        case breach_t::beyond:
            return "entry " + at + " lies outside the " + time_baseToChar(base) + " period of " +
                   std::to_string(time_getMaxBoundary(base)) + " s";
        case breach_t::unknownState:
            return "entry " + at + ": " + notAState(entry.state, type);
        case breach_t::overlap:
            break;
    }
    const std::size_t first = std::min(parsed.order[breach.at], parsed.order[breach.other]) + 1;
    const std::size_t second = std::max(parsed.order[breach.at], parsed.order[breach.other]) + 1;
    return "entries " + std::to_string(first) + " and " + std::to_string(second) + " overlap";
}

// Parameters are only written when they differ, so that a publish that
// changes nothing costs no allocation and announces nothing.
void setIfChanged(object_t* instance, std::string_view name, const variant_t& value) {
    const variant_t* present = object_parameterValue(instance, name);
    if (present != nullptr && *present == value) {
        return;
    }
    if (!object_parameterSetValue(instance, name, &value)) {
        tolvTrace(TRACE_LEVEL_WARNING, "Could not set %s", std::string(name).c_str());
    }
}

variant_t dateTime(time_t seconds) {
    variant_t value;
    variant_setDateTime(&value, seconds);
    return value;
}

bool setParameters(object_t* instance, const schedule_record_t& record, std::string_view base) {
    return object_parameterSetCharValue(instance, "ID", record.id) &&
           object_parameterSetBoolValue(instance, "Enable", record.enabled) &&
           object_parameterSetCharValue(instance, "Base", base) &&
           object_parameterSetCharValue(instance, "Default", record.spec.defaultState) &&
           object_parameterSetCharValue(instance, "Override", record.override);
}

}  // namespace

schedule_parse_t schedules_parse(const schedule_t& schedule, const type_record_t& type) {
    if (std::optional<std::string> missing = missingText(schedule)) {
        return refused("'" + *missing + "' is missing from the schedule");
    }
    // The ID is the key of the schedule's instance and an element of its path.
    if (schedule.ID->empty() || schedule.ID->find('.') != std::string::npos) {
        return refused("ID '" + *schedule.ID + "' may be neither empty nor hold a dot");
    }
    const int base = time_baseToEnum(*schedule.base);
    if (base == time_base_unknown) {
        return refused("base '" + *schedule.base +
                       "' is not one of Once, Hourly, Daily, Weekly, Monthly, Yearly");
    }
    if (!schedule_isState(type.stateNames, *schedule.def)) {
        return refused("default " + notAState(*schedule.def, type));
    }
    if (!schedule.override->empty() && !schedule_isState(type.stateNames, *schedule.override)) {
        return refused("override " + notAState(*schedule.override, type));
    }
    const variant_list_t none;
    entries_result_t entries = entries_parse(schedule.schedule ? *schedule.schedule : none);
    if (!entries.parsed) {
        return refused("entry " + std::to_string(entries.badElement + 1) +
                       " is not a map of state, begin and end");
    }
    parsed_entries_t& parsed = *entries.parsed;
    if (std::optional<breach_t> breach = schedule_verify(parsed.entries, base, type.stateNames)) {
        return refused(breachText(*breach, parsed, base, type));
    }
    auto record = std::make_unique<schedule_record_t>();
    record->id = *schedule.ID;
    record->spec = {base, schedule_searched(parsed.entries, *schedule.def), *schedule.def};
    if (record->spec.entries.size() != parsed.entries.size()) {
        record->written = std::move(parsed.entries);
    }
    record->form = std::move(parsed.form);
    record->enabled = schedule.enable;
    record->override = *schedule.override;
    return {std::move(record), {}};
}

object_t* schedules_template(const object_t* typeInstance) {
    bool match = false;
    object_t* schedules =
        object_getObject(const_cast<object_t*>(typeInstance), "Schedules", 0, &match);
    return match ? schedules : nullptr;
}

object_t* schedules_find(object_t* typeInstance, std::string_view id) {
    object_t* schedules = schedules_template(typeInstance);
    // A schedule's instance is keyed by its ID, so the key finds it without
    // walking every schedule of the type.
    object_t* instance = schedules != nullptr ? schedules->instance(id) : nullptr;
    if (instance == nullptr) {
        return nullptr;
    }
    const std::string* stored = variant_da_string(object_parameterValue(instance, "ID"));
    return stored != nullptr && *stored == id ? instance : nullptr;
}

schedule_record_t* schedules_record(const object_t* instance) {
    return object_getUserData<schedule_record_t>(instance);
}

object_t* schedules_typeOf(const object_t* instance) {
    object_t* schedules = object_parent(instance);
    return schedules != nullptr ? object_parent(schedules) : nullptr;
}

std::vector<object_t*> schedules_of(const object_t* typeInstance) {
    std::vector<object_t*> instances;
    object_t* schedules = schedules_template(typeInstance);
    for (object_t* instance = schedules != nullptr ? object_firstInstance(schedules) : nullptr;
         instance != nullptr; instance = object_nextInstance(instance)) {
        instances.push_back(instance);
    }
    return instances;
}

object_t* schedules_create(object_t* typeInstance, std::unique_ptr<schedule_record_t> record,
                           std::string_view base) {
    object_t* schedules = schedules_template(typeInstance);
    if (schedules == nullptr) {
        tolvTrace(TRACE_LEVEL_WARNING, "Cannot fetch template");
        return nullptr;
    }
    object_t* instance = object_createInstance(schedules, -1, record->id);
    if (instance == nullptr) {
        tolvTrace(TRACE_LEVEL_WARNING, "Could not create instance");
        return nullptr;
    }
    if (!setParameters(instance, *record, base)) {
        tolvTrace(TRACE_LEVEL_WARNING, "Could not set the parameters of %s", record->id.c_str());
        object_rollback(instance);
        return nullptr;
    }
    object_setUserData(instance, std::move(record));
    return instance;
}

void schedules_publish(object_t* instance, const schedule_record_t& record) {
    setIfChanged(instance, "Enable", variant_t(record.enabled));
    setIfChanged(instance, "Override", variant_t(record.override));
    setIfChanged(instance, "TemporaryOverride", variant_t(record.status.temporary));
    if (record.status.current) {
        setIfChanged(instance, "CurrentState", variant_t(*record.status.current));
    }
    setIfChanged(instance, "NextStateChange", dateTime(record.next));
    if (!object_commit(instance)) {
        tolvTrace(TRACE_LEVEL_WARNING, "Could not commit object");
    }
}

void schedules_delete(object_t* instance) {
    object_delete(instance);
    if (!object_commit(instance)) {
        tolvTrace(TRACE_LEVEL_WARNING, "Could not commit object");
    }
}

schedule_t schedules_read(const object_t* instance, bool complete) {
    schedule_t out;
    out.ID = textParameter(instance, "ID");
    out.enable = variant_bool(object_parameterValue(instance, "Enable"));
    out.base = textParameter(instance, "Base");
    out.def = textParameter(instance, "Default");
    out.override = textParameter(instance, "Override");
    out.value = textParameter(instance, "CurrentState");
    const schedule_record_t* record = schedules_record(instance);
    if (complete && record != nullptr) {
        out.schedule = entries_maps(schedule_written(*record), record->form);
    }
    return out;
}
