#include "scheduler_reassert.h"

#include "orv/trace.h"
#include "orv/variant.h"
#include "scheduler_entry.h"
#include "scheduler_plugin.h"
#include "scheduler_plugin_common.h"
#include "scheduler_schedule.h"
#include "scheduler_time.h"

namespace {

std::optional<std::string> text(const object_t* instance, std::string_view name) {
    return variant_char(object_parameterValue(instance, name));
}

std::string_view rootOf(std::string_view path) {
    return path.substr(0, path.find('.'));
}

}  // namespace

std::optional<std::string> reassert_presentState(const object_t* instance, time_t now) {
    const auto* properties = object_getUserData<scheduleentry_properties_t>(instance);
    std::optional<std::string> def = text(instance, "Default");
    std::optional<std::string> override = text(instance, "Override");
    if (properties == nullptr || !def || !override) {
        return std::nullopt;
    }
    if (!variant_bool(object_parameterValue(instance, "Enable"))) {
        return def;
    }
    if (!override->empty()) {
        return override;
    }
    if (variant_bool(object_parameterValue(instance, "TemporaryOverride")) &&
        !properties->temporaryState.empty()) {
        return properties->temporaryState;
    }
    const int base = time_baseToEnum(text(instance, "Base").value_or(""));
    return schedule_currentState(properties->entries.entries, base, now, *def);
}

std::vector<object_t*> reassert_schedulesOf(const object_t* typeInstance) {
    std::vector<object_t*> instances;
    bool match = false;
    object_t* schedules =
        object_getObject(const_cast<object_t*>(typeInstance), "Schedules", 0, &match);
    if (!match) {
        return instances;
    }
    for (object_t* instance = object_firstInstance(schedules); instance != nullptr;
         instance = object_nextInstance(instance)) {
        instances.push_back(instance);
    }
    return instances;
}

void reassert_schedules(const std::vector<object_t*>& instances, time_t now) {
    for (object_t* instance : instances) {
        std::optional<std::string> state = reassert_presentState(instance, now);
        if (!state) {
            tolvTrace(100, "Could not work out the present state of a schedule");
            continue;
        }
        if (!orv_plugin_setStateRPC(instance, *state)) {
            tolvTrace(100, "Could not call the setState routine");
        }
    }
}

void reassert_root(object_t* types, std::string_view root, time_t now) {
    for (object_t* type = object_firstInstance(types); type != nullptr;
         type = object_nextInstance(type)) {
        std::optional<std::string> path = text(type, "Path");
        if (path && rootOf(*path) == root) {
            tolvTraceZ(300, ME, "The client of type %s is back: telling it its states",
                       text(type, "Type").value_or("").c_str());
            reassert_schedules(reassert_schedulesOf(type), now);
        }
    }
}
