#include "scheduler_entry.h"

#include <ctime>
#include <new>
#include <optional>
#include <utility>

#include "orv/object.h"
#include "orv/trace.h"
#include "orv/variant.h"
#include "orv/variant_list.h"
#include "scheduler_peeklist.h"
#include "scheduler_plugin.h"
#include "scheduler_plugin_common.h"
#include "scheduler_schedule.h"
#include "scheduler_time.h"
#include "scheduler_type.h"

namespace {

// What CurrentState reads when the client could not be told the state.
constexpr const char* kUnsynchronized = "Unsynchronized";

std::unique_ptr<scheduleentry_properties_t> scheduleentry_properties_create() {
    try {
        return std::make_unique<scheduleentry_properties_t>();
    } catch (const std::bad_alloc&) {
        tolvTrace(100, "Out of  memory");
        return nullptr;
    }
}

std::optional<std::string> textParameter(const object_t* object, std::string_view name) {
    return variant_char(object_parameterValue(object, name));
}

// The Schedules template below a type instance; null (traced) when missing.
object_t* schedulesTemplate(object_t* typeInstance) {
    bool match = false;
    object_t* schedules = object_getObject(typeInstance, "Schedules", path_attr_default, &match);
    if (!schedules || !match) {
        tolvTrace(100, "Cannot fetch template");
        return nullptr;
    }
    return schedules;
}

// ---------------------------------------------------------------------------
// Creation.

// The texts a schedule must carry; an empty override is allowed and means
// that no override is set.
bool hasRequiredTexts(const schedule_t* schedule) {
    return schedule && schedule->ID && schedule->base && schedule->def && schedule->override;
}

bool statesAllowed(const variant_list_t& states, const schedule_t& schedule) {
    if (!schedule_validateState(&states, *schedule.def)) {
        tolvTrace(100, "Invalid default value(%s)", schedule.def->c_str());
        return false;
    }
    if (!schedule.override->empty() && !schedule_validateState(&states, *schedule.override)) {
        tolvTrace(100, "Invalid override value(%s)", schedule.override->c_str());
        return false;
    }
    return true;
}

// The entries as the instance keeps them: ordered, without the entries that
// set the default state, and verified against the base and the type's states.
std::optional<entrylist_t> orderedEntries(const schedule_t& schedule, int base,
                                          const variant_list_t& states) {
    tolvTraceZ(400, ME, "Put the schedule in order");
    const variant_list_t noEntries;
    const variant_list_t& input = schedule.schedule ? *schedule.schedule : noEntries;
    std::optional<variant_list_t> ordered = schedule_order(input, *schedule.def);
    if (!ordered) {
        tolvTrace(100, "Could not order the schedule");
        return std::nullopt;
    }
    tolvTraceZ(400, ME, "Validate the schedule (%p)%d", static_cast<const void*>(&states),
               static_cast<int>(variant_list_size(&states)));
    if (!schedule_verify(*ordered, base, &states)) {
        tolvTrace(100, "Invalid schedule, not adding it");
        return std::nullopt;
    }
    return entrylist_pack(std::make_shared<const variant_list_t>(std::move(*ordered)));
}

bool setText(object_t* instance, std::string_view name, const std::string& value,
             const char* failure) {
    if (!object_parameterSetCharValue(instance, name, value)) {
        tolvTrace(100, "%s", failure);
        return false;
    }
    return true;
}

bool setParameters(object_t* instance, const schedule_t& schedule) {
    if (!setText(instance, "ID", *schedule.ID, "Could not set ID")) {
        return false;
    }
    if (!object_parameterSetBoolValue(instance, "Enable", schedule.enable)) {
        tolvTrace(100, "Could not set Enable");
        return false;
    }
    return setText(instance, "Base", *schedule.base, "Could not set base") &&
           setText(instance, "Default", *schedule.def, "Could not set Default") &&
           setText(instance, "Override", *schedule.override, "Could not set Override");
}

// A new, still pending instance with its parameters; null when it could not
// be made, in which case nothing of it is left in the data model.
object_t* createInstance(object_t* typeInstance, const schedule_t& schedule) {
    object_t* schedules = schedulesTemplate(typeInstance);
    if (!schedules) {
        return nullptr;
    }
    object_t* instance = object_createInstance(schedules, -1, *schedule.ID);
    if (!instance) {
        tolvTrace(100, "Could not create instance");
        return nullptr;
    }
    if (!setParameters(instance, schedule)) {
        object_rollback(instance);
        return nullptr;
    }
    return instance;
}

// Hands the entries to the instance. On failure the instance is rolled back
// and must not be touched any more.
const scheduleentry_properties_t* attachProperties(object_t* instance, entrylist_t entries) {
    std::unique_ptr<scheduleentry_properties_t> properties = scheduleentry_properties_create();
    if (!properties) {
        tolvTrace(100, "Could not create userdata for schedule instance");
        object_rollback(instance);
        return nullptr;
    }
    properties->entries = std::move(entries);
    const scheduleentry_properties_t* attached = properties.get();
    object_setUserData(instance, std::move(properties));
    return attached;
}

// A disabled schedule added by a client resets that client to the default. At
// a type's registration the client already knows its own schedules, so it is
// not called.
void pushDisabledDefault(object_t* instance, bool registering) {
    if (registering) {
        return;
    }
    std::optional<std::string> value = textParameter(instance, "Default");
    if (!value || !orv_plugin_setStateRPC(instance, *value)) {
        tolvTrace(200, "Could not set the entry to the default value");
    }
}

std::string wantedState(const schedule_t& schedule, std::span<const schedule_entry_t> entries,
                        int base) {
    if (!schedule.override->empty()) {
        tolvTraceZ(400, ME, "override is active");
        return *schedule.override;
    }
    tolvTraceZ(400, ME, "override is inactive, get the current state");
    return schedule_currentState(entries, base, time_getCurrentLocalTime(), *schedule.def);
}

// The state the client was told, or "Unsynchronized" when it was not reached
// (also while the clock is not synchronised).
std::string sendInitialState(object_t* typeInstance, const schedule_t& schedule,
                             std::span<const schedule_entry_t> entries, int base) {
    std::string state = wantedState(schedule, entries, base);
    if (!setState(typeInstance, *schedule.ID, state)) {
        return kUnsynchronized;
    }
    return state;
}

// A schedule without any future change still has to leave its client in the
// default state.
void planFirstChange(object_t* instance, const std::string& def) {
    peeklist_removeEntry(instance);
    if (scheduleentry_updatePeeklist(instance)) {
        return;
    }
    tolvTraceZ(400, ME,
               "Could not update peeklist, this is an empty schedule, call setstate rpc and set to "
               "default");
    if (!orv_plugin_setStateRPC(instance, def)) {
        tolvTrace(200, "Could not set the entry to the default value");
    }
}

// Brings the client of an enabled schedule to its present state. On failure
// the instance is rolled back and must not be touched any more.
bool applyEnabledState(object_t* typeInstance, object_t* instance, const schedule_t& schedule,
                       std::span<const schedule_entry_t> entries, int base) {
    tolvTraceZ(400, ME, "Schedule is enabled");
    std::string state = sendInitialState(typeInstance, schedule, entries, base);
    if (!object_parameterSetCharValue(instance, "CurrentState", state)) {
        tolvTrace(100, "Could not set CurrentState");
        // No destroy handler is set yet, so the rollback runs none. The record
        // is released here, once; the rollback then finds no user data left.
        object_clearUserData(instance);
        object_rollback(instance);
        return false;
    }
    // An override holds until it is cleared, so it plans no change.
    if (schedule.override->empty()) {
        planFirstChange(instance, *schedule.def);
    }
    return true;
}

// The destroy handler is set only now: every earlier failure removed the
// instance by a rollback, which must not run it.
void publishInstance(object_t* instance) {
    object_setDestroyHandler(instance, scheduleentry_destroyInstanceData);
    if (!object_commit(instance)) {
        tolvTrace(100, "Could not commit object");
    }
}

bool addInstance(object_t* typeInstance, const schedule_t* schedule, bool registering) {
    if (!hasRequiredTexts(schedule)) {
        tolvTrace(100, "invalid parameter values");
        return false;
    }
    int base = time_baseToEnum(*schedule->base);
    if (base == time_base_unknown) {
        tolvTrace(100, "invalid parameter values");
        return false;
    }
    const auto* typeProperties = object_getUserData<schedulertype_properties_t>(typeInstance);
    if (!typeProperties) {
        tolvTrace(100, "Could not get schedulertype properties");
        return false;
    }
    if (!statesAllowed(typeProperties->states, *schedule)) {
        return false;
    }
    std::optional<entrylist_t> entries = orderedEntries(*schedule, base, typeProperties->states);
    if (!entries) {
        return false;
    }
    object_t* instance = createInstance(typeInstance, *schedule);
    if (!instance) {
        return false;
    }
    const scheduleentry_properties_t* properties = attachProperties(instance, std::move(*entries));
    if (!properties) {
        return false;
    }
    if (!schedule->enable) {
        pushDisabledDefault(instance, registering);
    } else if (!applyEnabledState(typeInstance, instance, *schedule, properties->entries.entries,
                                  base)) {
        return false;
    }
    publishInstance(instance);
    return true;
}

// ---------------------------------------------------------------------------
// Next change.

bool planNextChange(object_t* instance) {
    peeklist_entry_ptr entry = adjust_for_temporary_override(
        instance, peeklist_createNextEntry(instance, time_getCurrentLocalTime()));
    if (!entry) {
        tolvTrace(100, "Error calculating the next event time");
        return false;
    }
    time_t due = entry->time;
    if (!peeklist_addEntry(std::move(entry))) {
        tolvTrace(100, "Error calculating the next event time");
        return false;
    }
    if (!scheduleentry_setNextStateChange(instance, due)) {
        tolvTrace(100, "Could not set nextstatechange");
        peeklist_removeEntry(instance);
        return false;
    }
    orv_plugin_eventTimerHandler(nullptr, nullptr);
    return true;
}

// ---------------------------------------------------------------------------
// State updates and read-back.

bool hasId(const object_t* instance, std::string_view id) {
    std::optional<std::string> value = textParameter(instance, "ID");
    return value && *value == id;
}

void pushState(object_t* instance, const std::string& state) {
    if (!orv_plugin_setStateRPC(instance, state)) {
        tolvTrace(100, "Could not call the setState() RPC");
    }
}

// Without an override the client gets the state the schedule holds now.
bool pushPresentState(object_t* instance) {
    int base = time_baseToEnum(textParameter(instance, "Base").value_or(""));
    const auto* properties = object_getUserData<scheduleentry_properties_t>(instance);
    if (!properties) {
        tolvTrace(100, "Could not get schedule data");
        return false;
    }
    std::optional<std::string> def = textParameter(instance, "Default");
    if (!def) {
        tolvTrace(100, "could not get the default value");
        return false;
    }
    pushState(instance, schedule_currentState(properties->entries.entries, base,
                                              time_getCurrentLocalTime(), *def));
    return true;
}

std::shared_ptr<const variant_list_t> lentEntries(const object_t* instance) {
    const auto* properties = object_getUserData<scheduleentry_properties_t>(instance);
    if (!properties) {
        tolvTrace(100, "not a valid schedule property pointer");
        return nullptr;
    }
    return entrylist_variants(properties->entries);
}

bool appendData(object_t* instance, variant_list_t* list, bool complete) {
    std::string path = object_path(instance, path_attr_default);
    tolvTraceZ(400, ME, "Path = %s", path.c_str());
    if (!list) {
        return true;
    }
    schedule_t record;
    if (!scheduleentry_getScheduleT(instance, complete, &record)) {
        tolvTrace(100, "Could not fill in schedule");
        return false;
    }
    std::optional<variant_t> variant = schedule_t2variant(&record);
    if (!variant_list_add(list, variant ? &*variant : nullptr)) {
        tolvTrace(100, "Could not add schedule_t variant to list");
        return false;
    }
    return true;
}

}  // namespace

bool scheduleentry_addInstance(object_t* typeInstance, const schedule_t* schedule,
                               bool registering) {
    tolvTraceIn(ME);
    bool done = addInstance(typeInstance, schedule, registering);
    tolvTraceOut(ME);
    return done;
}

bool scheduleentry_updatePeeklist(object_t* instance) {
    tolvTraceIn(ME);
    bool done = planNextChange(instance);
    tolvTraceOut(ME);
    return done;
}

object_t* scheduleentry_getSpecificSchedule(object_t* scheduler, std::string_view type,
                                            std::string_view id) {
    object_t* typeInstance = schedulertype_getSpecificScheduler(scheduler, type);
    if (!typeInstance) {
        tolvTrace(100, "Scheduler type %s not found", std::string(type).c_str());
        return nullptr;
    }
    object_t* schedules = schedulesTemplate(typeInstance);
    if (!schedules) {
        return nullptr;
    }
    // A schedule's instance is keyed by its ID, so the key finds it without
    // walking every schedule of the type.
    object_t* instance = schedules->instance(id);
    if (instance != nullptr && hasId(instance, id)) {
        tolvTraceZ(400, ME, "Scheduler ID found");
        return instance;
    }
    tolvTrace(100, "ID %s not found, not setting enable parameter for type %s",
              std::string(id).c_str(), std::string(type).c_str());
    return nullptr;
}

bool scheduleentry_setNextStateChange(object_t* instance, time_t due) {
    struct tm local {};
    return localtime_r(&due, &local) != nullptr &&
           object_parameterSetDateTimeValue(instance, "NextStateChange", &local);
}

void scheduleentry_removeInstance(object_t* instance) {
    tolvTraceIn(ME);
    object_delete(instance);
    peeklist_removeEntry(instance);
    // The commit destroys the instance; it must not be touched afterwards.
    if (!object_commit(instance)) {
        tolvTrace(100, "Could not commit object");
    }
    orv_plugin_eventTimerHandler(nullptr, nullptr);
    tolvTraceOut(ME);
}

void scheduleentry_destroyInstanceData(object_t* instance) {
    // The object releases the private record itself once this handler has
    // returned; only the agenda may still point at the instance.
    try {
        peeklist_removeEntry(instance);
    } catch (...) {
        // Unlinking from the agenda does not throw in practice, but the host
        // calls this through a pointer and must never see an exception.
    }
}

bool scheduleentry_updateState(object_t* instance, const std::string& state, bool temporary,
                               bool enabled) {
    peeklist_removeEntry(instance);
    // A disabled schedule plans nothing; its client was reset by the caller.
    if (!enabled) {
        return true;
    }
    if (!state.empty() && !temporary) {
        pushState(instance, state);
        return true;
    }
    if (!scheduleentry_updatePeeklist(instance)) {
        tolvTrace(100, "Error updating the peekList");
        return false;
    }
    if (!state.empty()) {
        pushState(instance, state);
        return true;
    }
    return pushPresentState(instance);
}

bool scheduleentry_getScheduleT(object_t* instance, bool complete, schedule_t* out) {
    if (!out) {
        return false;
    }
    out->ID = textParameter(instance, "ID");
    out->enable = variant_bool(object_parameterValue(instance, "Enable"));
    out->base = textParameter(instance, "Base");
    out->def = textParameter(instance, "Default");
    out->override = textParameter(instance, "Override");
    out->value = textParameter(instance, "CurrentState");
    out->schedule = complete ? lentEntries(instance) : nullptr;
    return true;
}

bool scheduleentry_getData(object_t* instance, variant_list_t* list, bool complete) {
    tolvTraceIn(ME);
    bool done = appendData(instance, list, complete);
    tolvTraceOut(ME);
    return done;
}
