#include "scheduler_type.h"

#include <new>
#include <optional>
#include <string>
#include <utility>

#include "orv/error.h"
#include "orv/trace.h"
#include "orv/variant_list.h"
#include "orv/variant_map.h"
#include "scheduler_entry.h"
#include "scheduler_plugin_common.h"
#include "scheduler_schedule.h"

namespace {

// The Types template below the root object. A partial match would be some
// other object further up the path, which must never take new instances.
object_t* findTypesTemplate(object_t* scheduler) {
    bool match = false;
    object_t* types = object_getObject(scheduler, "Types", 0, &match);
    if (types == nullptr || !match) {
        tolvTrace(100, "Could not find Types object");
        return nullptr;
    }
    return types;
}

// The instance whose Type is exactly type; names are case-sensitive. A type's
// instance is keyed by its name, so the key finds it.
object_t* findTypeInstance(const object_t* types, std::string_view type) {
    object_t* instance = types->instance(type);
    const variant_t* name = instance != nullptr ? object_parameterValue(instance, "Type") : nullptr;
    const std::string* text = name != nullptr ? name->text() : nullptr;
    return text != nullptr && *text == type ? instance : nullptr;
}

object_t* findSchedulesTemplate(object_t* typeInstance) {
    bool match = false;
    object_t* schedules = object_getObject(typeInstance, "Schedules", 0, &match);
    if (schedules == nullptr || !match) {
        tolvTrace(100, "Cannot fetch template");
        return nullptr;
    }
    return schedules;
}

// An old state survives when some new state equals it. A pair that cannot be
// compared is given the benefit of the doubt, so that an odd element never
// makes a registration fail on its own.
bool stillAllowed(const variant_t& oldState, const variant_list_t& newStates) {
    for (const variant_t& candidate : newStates) {
        int result = 0;
        if (!variant_compare(&oldState, &candidate, &result)) {
            tolvTrace(200, "could not compare the variants");
            return true;
        }
        if (result == 0) {
            return true;
        }
    }
    return false;
}

std::optional<variant_list_t> schedulertype_getRemovedStates(const object_t* typeInstance,
                                                             const variant_list_t& newStates) {
    const auto* properties = object_getUserData<schedulertype_properties_t>(typeInstance);
    if (properties == nullptr) {
        tolvTrace(100, "Could not get schedulertype properties");
        return std::nullopt;
    }
    variant_list_t removed;
    for (const variant_t& oldState : properties->states) {
        if (stillAllowed(oldState, newStates)) {
            continue;
        }
        if (!variant_list_add(&removed, &oldState)) {
            tolvTrace(200, "failed to add variant to list");
        }
    }
    return removed;
}

// True when an entry of the schedule instance uses one of the removed states.
bool usesRemovedState(const object_t* schedule, const variant_list_t& removed) {
    const auto* properties = object_getUserData<scheduleentry_properties_t>(schedule);
    if (properties == nullptr) {
        tolvTrace(200, "schedule found with not properties?");
        return false;
    }
    for (const schedule_entry_t& entry : properties->entries.entries) {
        if (schedule_validateState(&removed, entry.state)) {
            tolvTrace(200, "Value found, invalid state detected!");
            return true;
        }
    }
    return false;
}

std::optional<std::string> schedulertype_createStatesString(const variant_list_t& states) {
    try {
        std::string text;
        text.reserve(64);
        for (const variant_t& state : states) {
            // A leading empty state adds no separator, so the text never
            // starts with a comma.
            if (!text.empty()) {
                text += ',';
            }
            // Non-text states are joined in the text form that the state
            // check compares against.
            text += variant_char(&state).value_or("");
        }
        return text;
    } catch (const std::bad_alloc&) {
        tolvTrace(100, "Out of memory");
        return std::nullopt;
    }
}

object_t* createTypeInstance(object_t* types, const std::string& type) {
    tolvTraceZ(400, ME, "New scheduler type, create a new");
    object_t* instance = object_createInstance(types, -1, type);
    if (instance == nullptr) {
        tolvTrace(100, "Failed to create a new schedule schedulertype instance");
        return nullptr;
    }
    tolvTraceZ(400, ME, "New path = %s", object_path(instance, 0).c_str());
    return instance;
}

// A re-registration may not take away a state that an entry relies on. On
// success the old record goes at once: the new one is made from the new list.
bool prepareReregistration(object_t* instance, const variant_list_t& states) {
    tolvTraceZ(400, ME, "Type was already registered, overwriting parameters");
    if (!schedulertype_checkScheduleStates(instance, states)) {
        tolvTrace(100, "Invalid state in state list detected");
        return false;
    }
    object_clearUserData(instance);
    return true;
}

// Parameter failures are traced and passed over: the type stays usable with
// whatever could be set.
void setTypeParameters(object_t* instance, const std::string& type, const std::string& path,
                       const variant_list_t& states) {
    if (!object_parameterSetCharValue(instance, "Type", type)) {
        tolvTrace(100, "Could not set schedulertype instance type parameter(%s)",
                  error_string(orv_error()));
    }
    if (!object_parameterSetStringValue(instance, "Path", &path)) {
        tolvTrace(100, "Could not set schedulertype instance path parameter(%s)",
                  error_string(orv_error()));
    }
    if (!schedulertype_setStatesString(instance, states)) {
        tolvTrace(100, "Could not set schedulertype instance states parameter");
    }
}

void attachProperties(object_t* instance, variant_list_t states) {
    std::unique_ptr<schedulertype_properties_t> properties =
        schedulertype_properties_create(std::move(states));
    if (!properties) {
        tolvTrace(100, "Could not create userdata for schedulertype instance object");
        return;
    }
    tolvTraceZ(400, ME, "Attaching list with %d items (%p)",
               static_cast<int>(properties->states.size()),
               static_cast<const void*>(&properties->states));
    object_setUserData(instance, std::move(properties));
    object_setDestroyHandler(instance, schedulertype_destroyInstanceData);
}

}  // namespace

object_t* schedulertype_addInstance(object_t* scheduler, const std::string& type,
                                    const std::string& path, variant_list_t states) {
    tolvTraceIn(ME);
    object_t* types = findTypesTemplate(scheduler);
    if (types == nullptr) {
        return nullptr;
    }
    object_t* instance = findTypeInstance(types, type);
    if (instance != nullptr) {
        if (!prepareReregistration(instance, states)) {
            return nullptr;
        }
    } else {
        instance = createTypeInstance(types, type);
        if (instance == nullptr) {
            return nullptr;
        }
    }
    setTypeParameters(instance, type, path, states);
    attachProperties(instance, std::move(states));
    if (!object_commit(instance)) {
        tolvTrace(100, "Could not commit object");
    }
    tolvTraceOut(ME);
    return instance;
}

object_t* schedulertype_getSpecificScheduler(object_t* scheduler, std::string_view type) {
    object_t* types = findTypesTemplate(scheduler);
    if (types == nullptr) {
        return nullptr;
    }
    if (object_t* instance = findTypeInstance(types, type)) {
        tolvTraceZ(400, ME, "Scheduler type found");
        return instance;
    }
    tolvTrace(100, "Type %s not found, not setting enable parameter for type",
              std::string(type).c_str());
    return nullptr;
}

bool schedulertype_checkScheduleStates(object_t* typeInstance, const variant_list_t& newStates) {
    std::optional<variant_list_t> removed = schedulertype_getRemovedStates(typeInstance, newStates);
    if (!removed) {
        return false;
    }
    if (removed->empty()) {
        return true;
    }
    object_t* schedules = findSchedulesTemplate(typeInstance);
    if (schedules == nullptr) {
        return false;
    }
    for (object_t* schedule = object_firstInstance(schedules); schedule != nullptr;
         schedule = object_nextInstance(schedule)) {
        if (usesRemovedState(schedule, *removed)) {
            return false;
        }
    }
    return true;
}

bool schedulertype_setStatesString(object_t* typeInstance, const variant_list_t& states) {
    std::optional<std::string> text = schedulertype_createStatesString(states);
    if (!text) {
        tolvTrace(100, "Error creating states string");
        return false;
    }
    if (!object_parameterSetStringValue(typeInstance, "States", &*text)) {
        tolvTrace(100, "Could not set schedulertype instance state");
        return false;
    }
    return true;
}

void schedulertype_removeAllScheduleInstances(object_t* typeInstance) {
    tolvTraceIn(ME);
    object_t* schedules = findSchedulesTemplate(typeInstance);
    if (schedules == nullptr) {
        return;
    }
    object_t* schedule = object_firstInstance(schedules);
    while (schedule != nullptr) {
        // Taken first: the removal may unlink the current instance.
        object_t* next = object_nextInstance(schedule);
        std::optional<std::string> id = variant_char(object_parameterValue(schedule, "ID"));
        tolvTraceZ(400, ME, "Removing schedule %s", id.value_or("").c_str());
        scheduleentry_removeInstance(schedule);
        schedule = next;
    }
    tolvTraceOut(ME);
}

bool schedulertype_getAllScheduleData(object_t* scheduler, std::string_view type,
                                      variant_list_t* list, bool complete) {
    tolvTraceIn(ME);
    object_t* typeInstance = schedulertype_getSpecificScheduler(scheduler, type);
    if (typeInstance == nullptr) {
        tolvTrace(100, "could not find schedulertype instance");
        return false;
    }
    object_t* schedules = findSchedulesTemplate(typeInstance);
    if (schedules == nullptr) {
        return false;
    }
    for (object_t* schedule = object_firstInstance(schedules); schedule != nullptr;
         schedule = object_nextInstance(schedule)) {
        if (!scheduleentry_getData(schedule, list, complete)) {
            tolvTrace(200, "Cannot fetch schedule data");
        }
    }
    tolvTraceOut(ME);
    return true;
}

bool schedulertype_modifyStates(object_t* typeInstance, variant_list_t states) {
    object_clearUserData(typeInstance);
    std::unique_ptr<schedulertype_properties_t> properties =
        schedulertype_properties_create(std::move(states));
    if (!properties) {
        tolvTrace(100, "Could not create userdata for schedulertype instance object");
        return false;
    }
    object_setUserData(typeInstance, std::move(properties));
    return true;
}

std::unique_ptr<schedulertype_properties_t> schedulertype_properties_create(variant_list_t states) {
    try {
        auto properties = std::make_unique<schedulertype_properties_t>();
        properties->states = std::move(states);
        return properties;
    } catch (const std::bad_alloc&) {
        tolvTrace(100, "Out of  memory");
        return nullptr;
    }
}

void schedulertype_destroyInstanceData(object_t* instance) {
    // Called by the host while it tears the instance down: nothing may
    // escape, and releasing the record cannot fail in a way worth reporting.
    try {
        object_clearUserData(instance);
    } catch (...) {
    }
}
