// Simulated runs of schedules: the lines that list what they would do.
//
// A simulation is pure: it runs on a copy of the agenda and of the
// schedules' states, calls no client, writes no parameter and leaves the
// live agenda as it was.
#pragma once

#include <cstddef>
#include <ctime>

#include "orv/object.h"
#include "orv/variant.h"
#include "service.h"

// A simulation lists at most this many changes, so that neither its memory
// nor its reply grows with what a schedule asks for: 360 changes an hour
// over weeks would not fit in one message of the bus.
inline constexpr std::size_t kSimulatedChangesMax = 10000;

struct simulation_t {
    variant_list_t lines;
    // The run was cut at the limit; the last line says where.
    bool truncated = false;
};

// One schedule from start: the state at start, then each change up to the
// first one after stop. A null instance is simulated all the same: the
// lines say that it has no default.
simulation_t simulation_schedule(const object_t* instance, time_t start, time_t stop,
                                 std::size_t limit = kSimulatedChangesMax);
// Every planned schedule together, on a clock that jumps from change to
// change, from start up to stop.
simulation_t simulation_all(const service_t& service, time_t start, time_t stop,
                            std::size_t limit = kSimulatedChangesMax);
