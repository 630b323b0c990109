// Simulated runs of schedules: the lines that list what they would do.
//
// A simulation is pure: it runs on a copy of the agenda and of the
// schedules' states, calls no client, writes no parameter and leaves the
// live agenda as it was.
#pragma once

#include <ctime>

#include "orv/object.h"
#include "orv/variant.h"
#include "service.h"

// One schedule from start: the state at start, then each change up to the
// first one after stop. A null instance is simulated all the same: the
// lines say that it has no default.
variant_list_t simulation_schedule(const object_t* instance, time_t start, time_t stop);
// Every planned schedule together, on a clock that jumps from change to
// change, from start up to stop.
variant_list_t simulation_all(const service_t& service, time_t start, time_t stop);
