#include "scheduler_simulation.h"

#include <cstring>
#include <string>

#include "orv/object.h"
#include "orv/string.h"
#include "orv/trace.h"
#include "orv/variant_list.h"
#include "scheduler_entry.h"
#include "scheduler_plugin.h"
#include "scheduler_plugin_common.h"
#include "scheduler_schedule.h"
#include "scheduler_time.h"

namespace {

variant_list_t simulationList;

// The local time as ctime writes it, without its newline.
std::string ctimeText(time_t time) {
    char buffer[256] = {};
    if (ctime_r(&time, buffer) == nullptr) {
        return {};
    }
    std::size_t length = std::strlen(buffer);
    if (length > 0) {
        buffer[length - 1] = '\0';
    }
    return buffer;
}

void addLine(const std::string& line) {
    tolvTraceZ(400, ME, "%s", line.c_str());
    variant_list_addString(&simulationList, line);
}

}  // namespace

namespace {

void addLineTo(variant_list_t* lines, const std::string& line) {
    tolvTraceZ(400, ME, "%s", line.c_str());
    variant_list_addString(lines, line);
}

// "<time> (<local time>) <what> <state>"; what is one of the fixed phrases.
std::string timeLine(time_t time, const char* what, const std::string& state) {
    return string_format("%ld (%s) %s %s", static_cast<long>(time), ctimeText(time).c_str(), what,
                         state.c_str());
}

// Lists the changes of one schedule from start: each change after the last,
// up to and including the first one after stop.
void listChanges(object_t* instance, time_t start, time_t stop, variant_list_t* lines) {
    time_t t = start;
    for (;;) {
        peeklist_entry_ptr entry =
            adjust_for_temporary_override(instance, peeklist_createNextEntry(instance, t));
        if (!entry || entry->time < t) {
            addLineTo(lines, "No entries in schedule, stopping");
            tolvTrace(200, "no items found (nothing in schedule?)");
            return;
        }
        const char* what = entry->isEvent != 0 ? "send event" : "switch state to";
        addLineTo(lines, timeLine(entry->time, what, entry->state));
        if (entry->time > stop) {
            addLineTo(lines, "Simulation ends");
            return;
        }
        t = entry->time + 1;
    }
}

}  // namespace

variant_list_t scheduleentry_simulate(object_t* instance, const std::string& /*type*/, time_t start,
                                      time_t stop) {
    variant_list_t lines;
    addLineTo(&lines, "Simulation starts");
    std::optional<std::string> defaultState =
        variant_char(object_parameterValue(instance, "Default"));
    if (!defaultState) {
        variant_list_addChar(&lines, "could not get the default value, stopping");
        tolvTrace(100, "could not get the default value");
        return lines;
    }
    int base = time_baseToEnum(variant_char(object_parameterValue(instance, "Base")).value_or(""));
    const auto* properties = object_getUserData<scheduleentry_properties_t>(instance);
    std::string state = properties != nullptr ? schedule_currentState(properties->entries.entries,
                                                                      base, start, *defaultState)
                                              : *defaultState;
    addLineTo(&lines, timeLine(start, "starttime with state", state));
    listChanges(instance, start, stop, &lines);
    return lines;
}

variant_list_t scheduleentry_simulate_all(time_t start, time_t stop) {
    simulationList.clear();
    if (!peeklist_recalculate(start)) {
        tolvTrace(100, "Recalculation Failed");
    }
    addLine("Simulation starts");
    // The clock jumps from change to change, however far apart they are.
    time_t simulated = start;
    for (;;) {
        std::uint32_t timeout = 0;
        orv_plugin_eventTimerHandler_sim(simulated, 0, &timeout, true);
        const peeklist_entry_t* head = peeklist_getGlobalPeeklist();
        if (head == nullptr) {
            break;
        }
        tolvTraceZ(400, ME, "end: %d ; next_event_time %d", static_cast<int>(stop),
                   static_cast<int>(head->time));
        if (head->time > stop || head->time <= simulated) {
            break;
        }
        simulated = head->time;
    }
    addLine("Simulation ends");
    if (!peeklist_recalculate(start)) {
        tolvTrace(100, "Recalculation Failed");
    }
    variant_list_t lines;
    lines.swap(simulationList);
    return lines;
}

void registerEvent(const char* eventName, const peeklist_entry_t& entry) {
    object_t* object = entry.object;
    std::string id = variant_char(object_parameterValue(object, "ID")).value_or("");
    std::string current = variant_char(object_parameterValue(object, "CurrentState")).value_or("");
    addLine(string_format("ID %s; simtime: %ld (%s); state %s", id.c_str(),
                          static_cast<long>(entry.time), ctimeText(entry.time).c_str(),
                          current.c_str()));
    const char* when = entry.isEvent != 0 ? "EVENT SIGNAL is now" : "Between events";
    addLine(string_format("ID %s; %s; Event %s; Value %s", id.c_str(), when, eventName,
                          entry.state.c_str()));
    if (!object_parameterSetCharValue(object, "CurrentState", entry.state)) {
        tolvTrace(100, "Could not set CurrentState");
        return;
    }
    object_commit(object);
}
