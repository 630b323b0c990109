// Simulated runs of schedules: the lines that list what they would do.
#pragma once

#include <ctime>
#include <string>

#include "orv/object.h"
#include "orv/variant.h"
#include "scheduler_peeklist.h"

// Records one change that a simulated run of the event timer applies: two
// lines in the list of the run in progress, then the instance's CurrentState
// takes the new state.
void registerEvent(const char* eventName, const peeklist_entry_t& entry);
// Runs one schedule on a simulated clock from start: the state at start,
// then each change up to the first one after stop. Changes nothing but what
// the temporary-override adjustment publishes.
variant_list_t scheduleentry_simulate(object_t* instance, const std::string& type, time_t start,
                                      time_t stop);
// Runs every planned schedule together through the event timer's worker on a
// simulated clock. The agenda is rebuilt for start before and after the run.
variant_list_t scheduleentry_simulate_all(time_t start, time_t stop);
