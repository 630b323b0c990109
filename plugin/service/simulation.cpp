#include "simulation.h"

#include <cstring>
#include <string>
#include <unordered_map>

#include "dispatcher.h"
#include "orv/string.h"
#include "orv/variant_list.h"
#include "scheduler_plugin_common.h"
#include "schedules.h"

namespace {

// The local time as ctime writes it, without its newline.
std::string ctimeText(time_t time) {
    char buffer[64] = {};
    if (ctime_r(&time, buffer) == nullptr) {
        return {};
    }
    std::size_t length = std::strlen(buffer);
    if (length > 0) {
        buffer[length - 1] = '\0';
    }
    return buffer;
}

// "<time> (<local time>) <what> <state>"; what is one of the fixed phrases.
std::string timeLine(time_t time, const char* what, const std::string& state) {
    return string_format("%ld (%s) %s %s", static_cast<long>(time), ctimeText(time).c_str(), what,
                         state.c_str());
}

// The simulation's applier: each applied change becomes two lines, and only
// the copy of the schedule's state follows it.
class recording_applier_t final : public applier_t {
  public:
    recording_applier_t(variant_list_t& lines, std::size_t limit) : lines_(lines), left_(limit) {}

    const schedule_spec_t& spec(object_t* owner) override { return schedules_record(owner)->spec; }
    schedule_status_t& status(object_t* owner) override { return states_[owner]; }

    void apply(object_t* owner, const change_t& change) override {
        if (left_ == 0) {
            // Past the limit nothing more is written; the run stops after
            // this second.
            cutAt_ = cutAt_.value_or(change.time);
            return;
        }
        --left_;
        const std::string& id = schedules_record(owner)->id;
        schedule_status_t& shown = states_[owner];
        variant_list_addString(
            &lines_, string_format("ID %s; simtime: %ld (%s); state %s", id.c_str(),
                                   static_cast<long>(change.time), ctimeText(change.time).c_str(),
                                   shown.current.value_or("").c_str()));
        const char* when = change.isEvent ? "EVENT SIGNAL is now" : "Between events";
        variant_list_addString(&lines_, string_format("ID %s; %s; Event setStateRPC; Value %s",
                                                      id.c_str(), when, change.state.c_str()));
        shown.current = change.state;
    }

    void planned(object_t* /*owner*/, const std::optional<change_t>& /*next*/) override {}

    // The time of the first change that was not listed, once the limit was
    // reached.
    std::optional<time_t> cutAt() const { return cutAt_; }

    // Starts the copy of a schedule's state.
    schedule_status_t& copy(object_t* owner, const schedule_status_t& live) {
        return states_[owner] = live;
    }

  private:
    variant_list_t& lines_;
    std::size_t left_;
    std::optional<time_t> cutAt_;
    std::unordered_map<object_t*, schedule_status_t> states_;
};

// The copy of the agenda, computed anew for start as a recomputation would,
// with each copied state brought to the state it holds at start.
void plan(const service_t& service, time_t start, agenda_t<object_t*>& agenda,
          recording_applier_t& applier) {
    std::vector<agenda_t<object_t*>::item_t> planned;
    for (object_t* owner : service.agenda.owners()) {
        const schedule_record_t& record = *schedules_record(owner);
        schedule_status_t& status = applier.copy(owner, record.status);
        position_t position = schedule_position(record.spec, start, schedule_heldState(status));
        if (position.next) {
            planned.push_back({owner, std::move(*position.next)});
        }
        status.current = std::move(position.state);
    }
    agenda.replace(std::move(planned));
}

// The last line of a run cut at the limit, and the flag that says so.
void truncate(simulation_t& run, std::size_t limit, time_t reached) {
    variant_list_addString(
        &run.lines, string_format("Simulation truncated after %zu changes at %ld (%s)", limit,
                                  static_cast<long>(reached), ctimeText(reached).c_str()));
    run.truncated = true;
}

}  // namespace

simulation_t simulation_schedule(const object_t* instance, time_t start, time_t stop,
                                 std::size_t limit) {
    simulation_t run;
    variant_list_t& lines = run.lines;
    variant_list_addString(&lines, "Simulation starts");
    const schedule_record_t* record = instance ? schedules_record(instance) : nullptr;
    if (record == nullptr) {
        variant_list_addString(&lines, "could not get the default value, stopping");
        return run;
    }
    variant_list_addString(
        &lines, timeLine(start, "starttime with state", schedule_stateAt(record->spec, start)));
    const std::string* held = schedule_heldState(record->status);
    std::size_t listed = 0;
    for (time_t t = start;;) {
        std::optional<change_t> next = schedule_nextChangeHeld(record->spec, t, held);
        if (!next) {
            variant_list_addString(&lines, "No entries in schedule, stopping");
            return run;
        }
        if (listed++ == limit) {
            truncate(run, limit, next->time);
            return run;
        }
        variant_list_addString(
            &lines,
            timeLine(next->time, next->isEvent ? "send event" : "switch state to", next->state));
        if (next->time > stop) {
            variant_list_addString(&lines, "Simulation ends");
            return run;
        }
        // The first change listed ends a temporary state; the rest of the
        // run follows the schedule alone.
        held = nullptr;
        t = next->time;
    }
}

simulation_t simulation_all(const service_t& service, time_t start, time_t stop,
                            std::size_t limit) {
    simulation_t run;
    recording_applier_t applier(run.lines, limit);
    agenda_t<object_t*> agenda;
    plan(service, start, agenda, applier);
    variant_list_addString(&run.lines, "Simulation starts");
    for (time_t simulated = start;;) {
        dispatch_due(agenda, simulated, applier);
        if (std::optional<time_t> cut = applier.cutAt()) {
            truncate(run, limit, *cut);
            return run;
        }
        const agenda_t<object_t*>::item_t* head = agenda.head();
        if (head == nullptr || head->change.time > stop || head->change.time <= simulated) {
            break;
        }
        simulated = head->change.time;
    }
    variant_list_addString(&run.lines, "Simulation ends");
    return run;
}
