// The operations that add, remove and read schedules.
#include <algorithm>
#include <utility>

#include "change_notice.h"
#include "dispatcher.h"
#include "operations.h"
#include "operations_internal.h"
#include "orv/variant_list.h"
#include "schedules.h"
#include "types.h"

namespace {

// The state a new schedule starts in, or nothing for a disabled schedule of
// a registration, whose client knows it already.
const std::string* initialState(const schedule_record_t& record, bool registering,
                                const std::string& scheduled) {
    if (!record.enabled) {
        return registering ? nullptr : &record.spec.defaultState;
    }
    return record.override.empty() ? &scheduled : &record.override;
}

// Removes a schedule with its planned change.
void removeInstance(service_t& service, object_t* instance) {
    dispatch_unplan(service, instance, *schedules_record(instance));
    schedules_delete(instance);
}

}  // namespace

std::string operations_noType(const std::string& type) {
    return "type '" + type + "' is not registered";
}

object_t* operations_findType(service_t& service, const std::string& type, std::string* reason) {
    object_t* typeInstance = types_find(service.scheduler, type);
    if (typeInstance == nullptr) {
        *reason = operations_noType(type);
    }
    return typeInstance;
}

object_t* operations_typeArgument(service_t& service, const std::optional<std::string>& type,
                                  std::string* reason) {
    if (!type) {
        *reason = outcome_missing("type");
        return nullptr;
    }
    return operations_findType(service, *type, reason);
}

object_t* operations_findSchedule(service_t& service, const std::string& type,
                                  const std::string& id, std::string* reason) {
    object_t* typeInstance = operations_findType(service, type, reason);
    object_t* instance = typeInstance ? schedules_find(typeInstance, id) : nullptr;
    if (typeInstance != nullptr && instance == nullptr) {
        *reason = "type '" + type + "' has no schedule '" + id + "'";
    }
    return instance;
}

bool operations_start(service_t& service, object_t* typeInstance,
                      std::unique_ptr<schedule_record_t> record, std::string_view base,
                      bool registering) {
    const time_t now = service_now();
    object_t* instance = schedules_create(typeInstance, std::move(record), base);
    if (instance == nullptr) {
        return false;
    }
    schedule_record_t& started = *schedules_record(instance);
    const std::string scheduled = schedule_stateAt(started.spec, now);
    if (const std::string* state = initialState(started, registering, scheduled)) {
        orv_plugin_setStateRPC(service, instance, started, *state);
    }
    // A disabled or overridden schedule holds its state and plans nothing.
    const bool planned =
        schedule_fixedState(started) == nullptr && dispatch_plan(service, instance, started, now);
    schedules_publish(instance, started);
    if (planned) {
        dispatch_run(service, false);
    } else if (started.enabled && started.override.empty()) {
        tolvTraceZ(TRACE_LEVEL_INFO, ME,
                   "Could not update peeklist, this is an empty schedule: %s stays in %s",
                   started.id.c_str(), scheduled.c_str());
    }
    return true;
}

outcome_t addSchedule(service_t& service, const text_arg_t& type, const schedule_t* schedule) {
    std::string reason;
    object_t* typeInstance = operations_typeArgument(service, type, &reason);
    if (typeInstance == nullptr) {
        return outcome_t::refused(__func__, std::move(reason));
    }
    if (schedule == nullptr) {
        return outcome_t::refused(
            __func__,
            "'info' is missing or is not a schedule with ID, enable, base, def and override");
    }
    if (!schedule->schedule) {
        return outcome_t::refused(__func__, "'schedule' is missing from the schedule");
    }
    // Checked completely before anything changes: a refused replacement
    // leaves the schedule it would have replaced as it was.
    schedule_parse_t parsed = schedules_parse(*schedule, *types_record(typeInstance));
    if (!parsed.record) {
        return outcome_t::refused(__func__, std::move(parsed.reason));
    }
    if (object_t* replaced = schedules_find(typeInstance, parsed.record->id)) {
        removeInstance(service, replaced);
    }
    const std::string id = parsed.record->id;
    if (!operations_start(service, typeInstance, std::move(parsed.record), *schedule->base,
                          false)) {
        return outcome_t::refused(__func__, "schedule '" + id + "' could not be made");
    }
    scheduleModified(service, *type);
    return outcome_t::done();
}

outcome_t removeSchedules(service_t& service, const text_arg_t& type,
                          const std::optional<variant_list_t>& ids) {
    if (!type) {
        return outcome_t::refused(__func__, outcome_missing("type"));
    }
    object_t* typeInstance = types_find(service.scheduler, *type);
    if (!ids && typeInstance == nullptr) {
        return outcome_t::refused(__func__, operations_noType(*type));
    }
    std::vector<object_t*> removed;
    if (!ids) {
        removed = schedules_of(typeInstance);
    } else if (typeInstance != nullptr) {
        for (const variant_t& element : *ids) {
            const std::string id = variant_char(&element).value_or("");
            object_t* instance = schedules_find(typeInstance, id);
            // An ID named twice is removed once.
            if (instance != nullptr &&
                std::find(removed.begin(), removed.end(), instance) == removed.end()) {
                removed.push_back(instance);
            }
        }
    }
    for (object_t* instance : removed) {
        removeInstance(service, instance);
    }
    dispatch_run(service, false);
    scheduleModified(service, *type);
    return outcome_t::done();
}

namespace {

// About what a value takes on the bus: its text, and room for its type,
// alignment and the key that names it.
std::size_t wireBytes(const variant_t& value) {
    constexpr std::size_t kOverhead = 32;
    if (const variant_map_t* map = variant_da_map(&value)) {
        std::size_t bytes = kOverhead;
        for (const variant_map_entry_t& entry : *map) {
            bytes += entry.key.size() + wireBytes(entry.value);
        }
        return bytes;
    }
    if (const variant_list_t* list = variant_da_list(&value)) {
        std::size_t bytes = kOverhead;
        for (const variant_t& item : *list) {
            bytes += wireBytes(item);
        }
        return bytes;
    }
    const std::optional<std::string> text = variant_char(&value);
    return kOverhead + (text ? text->size() : 0);
}

}  // namespace

outcome_t getSchedules(service_t& service, const text_arg_t& type, const page_t& page,
                       variant_list_t* list, bool complete) {
    std::string reason;
    object_t* typeInstance = operations_typeArgument(service, type, &reason);
    if (typeInstance == nullptr) {
        return outcome_t::refused(__func__, std::move(reason));
    }
    const std::vector<object_t*> all = schedules_of(typeInstance);
    const std::size_t first = std::min<std::size_t>(page.offset, all.size());
    const std::size_t count = std::min<std::size_t>(all.size() - first, page.limit.value_or(~0U));
    std::size_t bytes = 0;
    for (std::size_t i = first; i < first + count; ++i) {
        const schedule_t record = schedules_read(all[i], complete);
        std::optional<variant_t> map = schedule_t2variant(&record);
        bytes += map ? wireBytes(*map) : 0;
        if (bytes > kReplyBytesMax) {
            list->clear();
            return outcome_t::refused(
                __func__, "the answer would not fit in one message: ask for parts of the " +
                              std::to_string(all.size()) +
                              " schedules with 'offset' and 'limit', " + std::to_string(i - first) +
                              " at most");
        }
        variant_list_add(list, map ? &*map : nullptr);
    }
    return outcome_t::done();
}

outcome_t getSchedule(service_t& service, const text_arg_t& type, const text_arg_t& id,
                      schedule_t* out) {
    if (!type || !id) {
        return outcome_t::refused(__func__, outcome_missing(type ? "ID" : "type"));
    }
    std::string reason;
    object_t* instance = operations_findSchedule(service, *type, *id, &reason);
    if (instance == nullptr) {
        return outcome_t::refused(__func__, std::move(reason));
    }
    *out = schedules_read(instance, true);
    return outcome_t::done();
}
