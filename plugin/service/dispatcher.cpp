#include "dispatcher.h"

#include <chrono>
#include <limits>

#include "client_calls.h"
#include "next_change.h"
#include "scheduler_plugin_common.h"
#include "schedules.h"
#include "types.h"

namespace {

// What CurrentState reads when the client could not be told the state.
constexpr const char* kUnsynchronized = "Unsynchronized";

// The live applier: the client is told, and the data model shows it.
class live_applier_t final : public applier_t {
  public:
    explicit live_applier_t(const service_t& service) : service_(service) {}

    const schedule_spec_t& spec(object_t* owner) override { return record(owner).spec; }
    schedule_status_t& status(object_t* owner) override { return record(owner).status; }

    void apply(object_t* owner, const change_t& change) override {
        schedule_record_t& applied = record(owner);
        // The schedule's own change ends a temporary state.
        applied.status.temporary = false;
        orv_plugin_setStateRPC(service_, owner, applied, change.state);
    }

    void planned(object_t* owner, const std::optional<change_t>& next) override {
        schedule_record_t& changed = record(owner);
        changed.next = next ? next->time : 0;
        schedules_publish(owner, changed);
    }

  private:
    static schedule_record_t& record(object_t* owner) { return *schedules_record(owner); }
    const service_t& service_;
};

// With nothing planned the timer waits the longest time the millisecond
// timer could, about 49.7 days: no wake-up while nothing is due.
constexpr std::uint64_t kIdleUs = std::uint64_t{std::numeric_limits<std::uint32_t>::max()} * 1000;

// The state a schedule holds, as told when it is recomputed and when its
// client comes back: a fixed state, or else scheduled, what its entries say.
const std::string& presentState(const schedule_record_t& record, const std::string& scheduled) {
    const std::string* fixed = schedule_fixedState(record);
    return fixed != nullptr ? *fixed : scheduled;
}

// Tells a schedule's client its present state when it shows another, and
// publishes the schedule.
void tellPresent(const service_t& service, object_t* instance, schedule_record_t& record,
                 const std::string& scheduled) {
    const std::string state = presentState(record, scheduled);
    if (record.status.current != state) {
        orv_plugin_setStateRPC(service, instance, record, state);
    }
    schedules_publish(instance, record);
}

// A schedule computed anew for now: its next change, when its entries
// decide, goes into planned, and its client is told the state it holds now.
// One search serves both. A temporary state runs on the schedule's entries,
// and lasts until they next change the state.
void recomputeOne(service_t& service, object_t* instance, schedule_record_t& record, time_t now,
                  std::vector<agenda_t<object_t*>::item_t>& planned) {
    record.next = 0;
    std::string scheduled;
    if (record.enabled && record.override.empty()) {
        position_t position =
            schedule_position(record.spec, now, schedule_heldState(record.status));
        scheduled = std::move(position.state);
        if (position.next) {
            record.next = position.next->time;
            planned.push_back({instance, std::move(*position.next)});
        }
    }
    tellPresent(service, instance, record, scheduled);
}

// Every schedule computed anew for now, whether it had a change planned or
// not: a schedule held by an override or disabled before the clock was
// synchronised could not be told then.
void recompute(service_t& service, time_t now) {
    std::vector<agenda_t<object_t*>::item_t> planned;
    planned.reserve(service.agenda.size());
    for (object_t* type : types_all(service.scheduler)) {
        // Telling a client a state only queues the call: no schedule comes
        // or goes during the walk.
        schedules_each(type, [&](object_t* instance, schedule_record_t& record) {
            recomputeOne(service, instance, record, now, planned);
        });
    }
    service.agenda.replace(std::move(planned));
}

// Arms the timer for the start of the head's second, counted in microseconds
// from the same reading of the clock that decided what was due: a timer that
// counted whole milliseconds would have to round up and fire late. Should the
// timer still fire before that second (the wall clock moved back a little),
// the head is not due yet and the timer is armed again for what is left.
void arm(service_t& service, std::int64_t nowUs) {
    const std::optional<std::int64_t> delay = service.agenda.delayUs(nowUs);
    const std::uint64_t timeout = delay ? static_cast<std::uint64_t>(*delay) : kIdleUs;
    tolvTraceZ(TRACE_LEVEL_INFO, ME, "Starting peeklist timer with timeout %llu us",
               static_cast<unsigned long long>(timeout));
    orv_timer_stop(service.eventTimer.get());
    if (!orv_timer_start_us(service.eventTimer.get(), timeout)) {
        tolvTrace(TRACE_LEVEL_WARNING, "could not start event timer");
    }
}

}  // namespace

void dispatch_due(agenda_t<object_t*>& agenda, time_t now, applier_t& applier) {
    while (std::optional<agenda_t<object_t*>::item_t> due = agenda.takeDue(now)) {
        object_t* owner = due->owner;
        schedule_status_t& status = applier.status(owner);
        // An event is sent every time, whatever the schedule shows: a feeder
        // feeds twice, and an "off" event switches off.
        if (due->change.isEvent || status.current != due->change.state) {
            applier.apply(owner, due->change);
        }
        // Searched from now itself: a change one second later, such as the
        // end of a one-second span, is still ahead.
        std::optional<change_t> next =
            schedule_nextChangeHeld(applier.spec(owner), now, schedule_heldState(status));
        if (next) {
            agenda.add(owner, *next);
        } else {
            tolvTraceZ(TRACE_LEVEL_APP_INFO, ME, "No next event found");
        }
        applier.planned(owner, next);
    }
}

void orv_plugin_setStateRPC(const service_t& service, object_t* instance, schedule_record_t& record,
                            const std::string& state) {
    const type_record_t* type = types_record(schedules_typeOf(instance));
    const bool sent = type != nullptr && setState(service, type->path, record.id, state);
    record.status.current = sent ? state : kUnsynchronized;
}

bool dispatch_plan(service_t& service, object_t* instance, schedule_record_t& record, time_t t) {
    service.agenda.remove(instance);
    std::optional<change_t> next =
        schedule_nextChangeHeld(record.spec, t, schedule_heldState(record.status));
    record.next = next ? next->time : 0;
    if (!next) {
        return false;
    }
    service.agenda.add(instance, std::move(*next));
    return true;
}

void dispatch_unplan(service_t& service, object_t* instance, schedule_record_t& record) {
    service.agenda.remove(instance);
    record.next = 0;
}

void dispatch_run(service_t& service, bool recomputeFirst) {
    // The clock is read once: the second it falls in decides what is due,
    // and the same reading times the next wake-up.
    const std::int64_t nowUs = service_nowUs();
    if (!service.synchronized) {
        return;
    }
    const time_t now = service_secondOf(nowUs);
    if (recomputeFirst) {
        // One line per recompute, whatever the number of schedules: it is
        // what an operator wants to know of a clock or zone change.
        const auto start = std::chrono::steady_clock::now();
        recompute(service, now);
        const std::chrono::duration<double, std::milli> took =
            std::chrono::steady_clock::now() - start;
        tolvTrace(TRACE_LEVEL_NOTICE, "recomputed %zu planned changes at %s in %.1f ms",
                  service.agenda.size(), orv_isoTime(now).c_str(), took.count());
    }
    live_applier_t applier(service);
    dispatch_due(service.agenda, now, applier);
    arm(service, nowUs);
}

void dispatch_reassert(service_t& service, const std::vector<object_t*>& instances, time_t now) {
    for (object_t* instance : instances) {
        schedule_record_t& record = *schedules_record(instance);
        // Told even when it shows the state: the client may have restarted
        // in another.
        record.status.current.reset();
        tellPresent(service, instance, record, schedule_stateAt(record.spec, now));
    }
}

void dispatch_unreachable(const std::vector<object_t*>& instances) {
    for (object_t* instance : instances) {
        schedule_record_t& record = *schedules_record(instance);
        if (record.status.current != kUnsynchronized) {
            record.status.current = kUnsynchronized;
            schedules_publish(instance, record);
        }
    }
}

void orv_plugin_eventTimerHandler(orv_timer_t* /*timer*/, void* userdata) noexcept {
    service_guarded("orv_plugin_eventTimerHandler", 0, [&] {
        dispatch_run(*static_cast<service_t*>(userdata), false);
        return 0;
    });
}
