// Schedule instances: Scheduler.Types.<type>.Schedules.<ID>.
#pragma once

#include <ctime>
#include <memory>
#include <string>
#include <string_view>

#include "orv/object.h"
#include "orv/variant.h"
#include "scheduler_entrylist.h"
#include "scheduler_plugin_common.h"

// The private record of a schedule instance, attached as its user data.
struct scheduleentry_properties_t {
    // The entries as ordered and verified when the instance was made. The
    // list never changes afterwards.
    entrylist_t entries;
    // The state of the latest temporary override; it counts while the
    // TemporaryOverride parameter is true.
    std::string temporaryState;
};

// Creates the schedule instance of a schedule record below a type instance,
// brings its client to the present state and plans its next change. False
// when the schedule is refused; nothing is left behind then.
bool scheduleentry_addInstance(object_t* typeInstance, const schedule_t* schedule,
                               bool registering);
// Plans the instance's next change into the agenda and publishes it as
// NextStateChange. The caller removes an older entry of the instance first.
bool scheduleentry_updatePeeklist(object_t* instance);
// Sets NextStateChange (pending until the next commit) to the local time of
// a due time.
bool scheduleentry_setNextStateChange(object_t* instance, time_t due);
object_t* scheduleentry_getSpecificSchedule(object_t* scheduler, std::string_view type,
                                            std::string_view id);
void scheduleentry_removeInstance(object_t* instance);
// The destroy handler of schedule instances.
void scheduleentry_destroyInstanceData(object_t* instance);

// Re-plans an instance after Enable or Override changed, or after a
// temporary override was set, and pushes the resulting state.
bool scheduleentry_updateState(object_t* instance, const std::string& state, bool temporary,
                               bool enabled);
// Reads an instance back; with complete, out->schedule shares the stored list.
bool scheduleentry_getScheduleT(object_t* instance, bool complete, schedule_t* out);
// Appends the instance's schedule map to list (nothing when list is null).
bool scheduleentry_getData(object_t* instance, variant_list_t* list, bool complete);
