// Schedule instances: Scheduler.Types.<type>.Schedules.<ID>.
#pragma once

#include <memory>

#include "orv/variant.h"

// The private record of a schedule instance, attached as its user data.
struct scheduleentry_properties_t {
    // The entries as ordered and verified when the instance was made. The
    // list never changes afterwards; read-backs share it.
    std::shared_ptr<const variant_list_t> entries;
};
