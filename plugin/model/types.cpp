#include "types.h"

#include <optional>
#include <utility>

#include "orv/error.h"
#include "orv/trace.h"
#include "orv/variant_list.h"
#include "schedules.h"

namespace {

// The Types template below the root object. A partial match would be some
// other object further up the path, which must never take new instances.
object_t* typesTemplate(object_t* scheduler) {
    bool match = false;
    object_t* types = object_getObject(scheduler, "Types", 0, &match);
    return match ? types : nullptr;
}

// An old state survives when some new state equals it. A pair that cannot be
// compared is given the benefit of the doubt, so that an odd element never
// makes a registration fail on its own.
bool stillAllowed(const variant_t& oldState, const variant_list_t& newStates) {
    for (const variant_t& candidate : newStates) {
        int result = 0;
        if (!variant_compare(&oldState, &candidate, &result) || result == 0) {
            return true;
        }
    }
    return false;
}

// The states of the type's record as text; those that have no text form
// cannot be named by an entry.
std::vector<std::string> namesOf(const variant_list_t& states) {
    std::vector<std::string> names;
    names.reserve(states.size());
    for (const variant_t& state : states) {
        if (std::optional<std::string> name = variant_toChar(&state)) {
            names.push_back(std::move(*name));
        }
    }
    return names;
}

// Why newStates cannot replace the type's states: an entry of one of its
// schedules uses a state that newStates drops. Nothing when they can.
std::optional<std::string> droppedStateInUse(const object_t* typeInstance,
                                             const variant_list_t& newStates) {
    const type_record_t* record = types_record(typeInstance);
    std::vector<std::string> dropped;
    for (const variant_t& oldState : record->states) {
        if (!stillAllowed(oldState, newStates)) {
            dropped.push_back(variant_toChar(&oldState).value_or(""));
        }
    }
    for (const object_t* schedule : dropped.empty() ? std::vector<object_t*>{}
                                                    : schedules_of(typeInstance)) {
        const schedule_record_t* entries = schedules_record(schedule);
        for (const schedule_entry_t& entry : schedule_written(*entries)) {
            if (schedule_isState(dropped, entry.state)) {
                return "state '" + entry.state + "' is used by schedule '" + entries->id +
                       "' and cannot be dropped";
            }
        }
    }
    return std::nullopt;
}

// Non-text states are joined in the text form that the state check compares
// against; a leading empty state adds no separator.
std::string joined(const variant_list_t& states) {
    std::string text;
    for (const variant_t& state : states) {
        if (!text.empty()) {
            text += ',';
        }
        text += variant_char(&state).value_or("");
    }
    return text;
}

// Parameter failures are traced and passed over: the type stays usable with
// whatever could be set.
void setTypeParameters(object_t* instance, const type_record_t& record) {
    const std::string states = joined(record.states);
    const std::pair<const char*, const std::string*> texts[] = {
        {"Type", &record.name}, {"Path", &record.path}, {"States", &states}};
    for (const auto& [name, text] : texts) {
        if (!object_parameterSetStringValue(instance, name, text)) {
            tolvTrace(TRACE_LEVEL_WARNING, "Could not set the %s of type %s (%s)", name,
                      record.name.c_str(), error_string(orv_error()));
        }
    }
}

}  // namespace

object_t* types_find(object_t* scheduler, std::string_view type) {
    object_t* types = typesTemplate(scheduler);
    object_t* instance = types != nullptr ? types->instance(type) : nullptr;
    const type_record_t* record = instance != nullptr ? types_record(instance) : nullptr;
    return record != nullptr && record->name == type ? instance : nullptr;
}

type_record_t* types_record(const object_t* typeInstance) {
    return object_getUserData<type_record_t>(typeInstance);
}

object_t* types_register(object_t* scheduler, const std::string& type, const std::string& path,
                         variant_list_t states, std::string* reason) {
    object_t* types = typesTemplate(scheduler);
    object_t* instance = types_find(scheduler, type);
    if (instance != nullptr) {
        if (std::optional<std::string> inUse = droppedStateInUse(instance, states)) {
            *reason = std::move(*inUse);
            return nullptr;
        }
    } else {
        instance = types != nullptr ? object_createInstance(types, -1, type) : nullptr;
        if (instance == nullptr) {
            *reason = "type '" + type + "' could not be made";
            return nullptr;
        }
        object_setUserData(instance, std::make_unique<type_record_t>());
    }
    type_record_t* record = types_record(instance);
    record->name = type;
    record->path = path;
    record->stateNames = namesOf(states);
    record->states = std::move(states);
    setTypeParameters(instance, *record);
    if (!object_commit(instance)) {
        tolvTrace(TRACE_LEVEL_WARNING, "Could not commit object");
    }
    return instance;
}

std::vector<object_t*> types_all(object_t* scheduler) {
    std::vector<object_t*> instances;
    object_t* types = typesTemplate(scheduler);
    for (object_t* instance = types != nullptr ? object_firstInstance(types) : nullptr;
         instance != nullptr; instance = object_nextInstance(instance)) {
        instances.push_back(instance);
    }
    return instances;
}

std::vector<std::string> types_names(object_t* scheduler) {
    std::vector<std::string> names;
    for (const object_t* instance : types_all(scheduler)) {
        names.push_back(types_record(instance)->name);
    }
    return names;
}

void types_delete(object_t* typeInstance) {
    object_delete(typeInstance);
    if (!object_commit(typeInstance)) {
        tolvTrace(TRACE_LEVEL_WARNING, "Could not commit object");
    }
}
