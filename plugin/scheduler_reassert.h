// A client that comes back is told its states.
//
// While the bus name of a type's client object has no owner, the changes of
// the type's schedules cannot reach it and their CurrentState reads
// "Unsynchronized". A client that restarted would stay in whatever state it
// starts in until each schedule next changes, which for a Weekly schedule
// can be days. So when the client's name gets an owner again, and when the
// type is registered again (an owner that restarted does that), every
// schedule of the type sends the state it holds now, once.
#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orv/object.h"

// The state a schedule holds at now: its permanent override, its temporary
// state, the default when it is disabled, or what its entries hold.
std::optional<std::string> reassert_presentState(const object_t* instance, time_t now);
// The schedule instances of a type instance.
std::vector<object_t*> reassert_schedulesOf(const object_t* typeInstance);
// Sends each schedule its present state and records it in CurrentState.
void reassert_schedules(const std::vector<object_t*>& instances, time_t now);
// The same for every schedule of the types whose client object lies below
// the root object (the first element of the type's Path).
void reassert_root(object_t* types, std::string_view root, time_t now);
