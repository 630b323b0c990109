// Schedule types in the data model: the instances of Scheduler.Types, keyed
// by the type's name, each with a type_record_t.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "orv/object.h"
#include "records.h"

// The type instance whose Type is exactly type (names are case-sensitive),
// or null.
object_t* types_find(object_t* scheduler, std::string_view type);
type_record_t* types_record(const object_t* typeInstance);
// Creates or registers again a type and returns its instance, committed;
// null with the reason on failure. A registration again may not take away a
// state that an entry of one of the type's schedules uses.
object_t* types_register(object_t* scheduler, const std::string& type, const std::string& path,
                         variant_list_t states, std::string* reason);
// The type instances, in registration order.
std::vector<object_t*> types_all(object_t* scheduler);
// The names of the registered types, in registration order.
std::vector<std::string> types_names(object_t* scheduler);
// Deletes a type with its schedules, committed.
void types_delete(object_t* typeInstance);
