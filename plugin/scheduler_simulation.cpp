#include "scheduler_simulation.h"

#include <cstring>
#include <string>

#include "orv/object.h"
#include "orv/string.h"
#include "orv/trace.h"
#include "orv/variant_list.h"
#include "scheduler_plugin_common.h"

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

variant_list_t* scheduleentry_simulationList() {
    return &simulationList;
}

void registerEvent(const char* eventName, const peeklist_entry_t& entry) {
    object_t* object = entry.object;
    std::string id = variant_char(object_parameterValue(object, "ID")).value_or("");
    std::string current = variant_char(object_parameterValue(object, "CurrentState")).value_or("");
    addLine(string_format("ID %s; simtime: %ld (%s); state %s", id.c_str(),
                          static_cast<long>(entry.time), ctimeText(entry.time).c_str(),
                          current.c_str()));
    const char* format = entry.isEvent != 0 ? "ID %s; EVENT SIGNAL is now; Event %s; Value %s"
                                            : "ID %s; Between events; Event %s; Value %s";
    addLine(string_format(format, id.c_str(), eventName, entry.state.c_str()));
    if (!object_parameterSetCharValue(object, "CurrentState", entry.state)) {
        tolvTrace(100, "Could not set CurrentState");
        return;
    }
    object_commit(object);
}
