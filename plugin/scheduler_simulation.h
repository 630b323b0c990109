// Simulated runs of schedules: the lines that list what they would do.
#pragma once

#include "orv/variant.h"
#include "scheduler_peeklist.h"

// Records one change that a simulated run of the event timer applies: two
// lines in the list of the run in progress, then the instance's CurrentState
// takes the new state.
void registerEvent(const char* eventName, const peeklist_entry_t& entry);
// The lines of the last run of all schedules.
variant_list_t* scheduleentry_simulationList();
