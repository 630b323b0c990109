// The dispatcher: it applies the changes the agenda holds when they are due.
//
// The work is the same for the live service and for simulations; what
// differs is what applying a change means, and that is the applier's part:
// the live applier tells the client and records the state in the data
// model, a simulation's applier only writes lines.
#pragma once

#include <ctime>
#include <optional>
#include <vector>

#include "agenda.h"
#include "orv/object.h"
#include "records.h"
#include "service.h"

class applier_t {
  public:
    virtual ~applier_t() = default;
    virtual const schedule_spec_t& spec(object_t* owner) = 0;
    virtual schedule_status_t& status(object_t* owner) = 0;
    // A due change of owner sets a state the schedule does not show yet.
    virtual void apply(object_t* owner, const change_t& change) = 0;
    // The change planned after a due one, if there is one; the last call for
    // a due change.
    virtual void planned(object_t* owner, const std::optional<change_t>& next) = 0;
};

// Applies every change due at now, oldest first, and plans the change that
// follows each of them.
void dispatch_due(agenda_t<object_t*>& agenda, time_t now, applier_t& applier);

// Tells a schedule's client a state and records in the record what it was
// told: the state, or "Unsynchronized" when it could not be told. The
// caller publishes the record.
void orv_plugin_setStateRPC(const service_t& service, object_t* instance, schedule_record_t& record,
                            const std::string& state);
// Plans the schedule's next change after t, in place of the one it had, and
// records it as its NextStateChange. False when it has none.
bool dispatch_plan(service_t& service, object_t* instance, schedule_record_t& record, time_t t);
// Drops the schedule's planned change.
void dispatch_unplan(service_t& service, object_t* instance, schedule_record_t& record);
// The event timer's work at the present time: with recompute, every planned
// change is computed anew first and each schedule brought to its state;
// then the due changes are applied and the timer armed for the next.
void dispatch_run(service_t& service, bool recompute);
// Tells each schedule the state it holds now, once, and publishes it.
void dispatch_reassert(service_t& service, const std::vector<object_t*>& instances, time_t now);

// The schedules' client left the bus: each reads "Unsynchronized" until its
// state is told again, when the client is back.
void dispatch_unreachable(const std::vector<object_t*>& instances);

// Expiry handler of the event timer; its user data is the service.
void orv_plugin_eventTimerHandler(orv_timer_t* timer, void* userdata) noexcept;
