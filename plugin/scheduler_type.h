// Schedule types: the instances of Scheduler.Types, one per registered type,
// each with its allowed states kept as a list in a private record.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "orv/object.h"
#include "orv/variant.h"

struct schedulertype_properties_t {
    // The allowed states of the latest registration, each read as text.
    variant_list_t states;
};

// Creates or re-registers a type and returns its instance; null on failure.
// A re-registration that drops a state an existing entry uses is refused.
object_t* schedulertype_addInstance(object_t* scheduler, const std::string& type,
                                    const std::string& path, variant_list_t states);
// The type instance whose Type equals type exactly, or null.
object_t* schedulertype_getSpecificScheduler(object_t* scheduler, std::string_view type);
// True when newStates may replace the type's states: no entry of an existing
// schedule uses a state that newStates drops.
bool schedulertype_checkScheduleStates(object_t* typeInstance, const variant_list_t& newStates);
// Sets States to the states joined with ",".
bool schedulertype_setStatesString(object_t* typeInstance, const variant_list_t& states);
void schedulertype_removeAllScheduleInstances(object_t* typeInstance);
// Appends the map of every schedule of the type to list.
bool schedulertype_getAllScheduleData(object_t* scheduler, std::string_view type,
                                      variant_list_t* list, bool complete);
// Replaces the states list of a type without touching anything else.
bool schedulertype_modifyStates(object_t* typeInstance, variant_list_t states);
std::unique_ptr<schedulertype_properties_t> schedulertype_properties_create(variant_list_t states);
// The destroy handler of type instances.
void schedulertype_destroyInstanceData(object_t* instance);
