#include "web_api.h"

#include <algorithm>
#include <map>

#include "orv/dbus_value.h"
#include "orv/variant.h"

namespace web_detail {

using scheduler::json;

namespace {

std::vector<std::string> statesOf(const std::string& text) {
    std::vector<std::string> states;
    for (std::size_t at = 0; at <= text.size() && !text.empty();) {
        const std::size_t comma = std::min(text.find(',', at), text.size());
        states.push_back(text.substr(at, comma - at));
        at = comma + 1;
    }
    return states;
}

std::string scheduleObjectPath(const std::string& type, const std::string& id) {
    return orv_dbus_objectPath("Scheduler.Types") + "/" + orv_dbus_escapeLabel(type) +
           "/Schedules/" + orv_dbus_escapeLabel(id);
}

std::string text(const json& object, const char* key) {
    auto it = object.find(key);
    return it != object.end() && it->is_string() ? it->get<std::string>() : std::string();
}

std::vector<web_change_t> simulate(web_bus_t& bus, const json& arguments, std::string* start) {
    const scheduler::call_result_t result = bus.call("simulateSchedule", arguments);
    std::vector<web_change_t> changes;
    for (const json& line : result.returned.is_array() ? result.returned : json::array()) {
        if (!line.is_string()) {
            continue;
        }
        if (auto change = scheduler::simulation_line(line.get<std::string>(), start)) {
            changes.push_back({change->first, std::move(change->second)});
        }
    }
    return changes;
}

std::vector<web_held_t> heldOfType(web_bus_t& bus, const type_info_t& type, const json& objects) {
    // The schedules' objects, by ID: they hold what the records do not, the
    // pending change and whether a temporary override is on.
    std::map<std::string, json> parameters;
    const std::string prefix = type.objectPath + "/Schedules/";
    for (const auto& [path, interfaces] : objects.items()) {
        if (path.rfind(prefix, 0) == 0) {
            const json& p = interfaces.value(scheduler::kObjectInterface, json::object());
            parameters[text(p, "ID")] = p;
        }
    }
    const auto result = bus.call("getCompleteSchedules", {{"type", type.name}});
    std::vector<web_held_t> list;
    for (const json& value : result.out.value("scheduleInfo", json::array())) {
        scheduler::json_problem_t problem;
        if (auto status = scheduler::schedule_from_json(value, "", &problem)) {
            const std::string id = status->schedule.id;
            list.push_back({std::move(*status), parameters[id]});
        }
    }
    // A replaced schedule comes last from the scheduler; by ID, a page's
    // cards stay where people saw them.
    std::sort(list.begin(), list.end(), [](const web_held_t& a, const web_held_t& b) {
        return a.status.schedule.id < b.status.schedule.id;
    });
    return list;
}

json typeView(web_bus_t& bus, const type_info_t& type, const json& objects, std::time_t now) {
    json schedules = json::array();
    for (const web_held_t& h : heldOfType(bus, type, objects)) {
        schedules.push_back(scheduleView(bus, type.name, h, now));
    }
    return {{"name", type.name},
            {"path", type.path},
            {"states", type.states},
            {"schedules", std::move(schedules)}};
}

std::vector<type_info_t> typesOf(const json& objects) {
    std::vector<type_info_t> types;
    for (const auto& [path, interfaces] : objects.items()) {
        const json& p = interfaces.value(scheduler::kObjectInterface, json::object());
        if (p.contains("Type") && p.contains("States")) {
            types.push_back({text(p, "Type"), text(p, "Path"), statesOf(text(p, "States")), path});
        }
    }
    std::sort(types.begin(), types.end(),
              [](const type_info_t& a, const type_info_t& b) { return a.name < b.name; });
    return types;
}

std::time_t timeArgument(const web_route_t& route, const char* key) {
    auto it = route.query.find(key);
    std::optional<std::int64_t> t =
        it == route.query.end() ? std::nullopt : orv_parseIsoTime(it->second);
    if (!t) {
        throw web_refusal_t{
            400, std::string("\"") + key + "\" must be a time such as 2026-11-25T18:00:00Z"};
    }
    return static_cast<std::time_t>(*t);
}

web_answer_t simulation(web_bus_t& bus, const web_route_t& route) {
    const std::time_t start = timeArgument(route, "start");
    const std::time_t stop = timeArgument(route, "stop");
    if (route.kind == web_route_kind_t::simulationAll) {
        auto result = bus.call("simulateSchedules",
                               {{"start", orv_isoTime(start)}, {"stop", orv_isoTime(stop)}});
        return jsonAnswer({{"lines", result.returned}});
    }
    std::string state;
    auto changes = simulate(bus,
                            {{"type", route.type},
                             {"ID", route.id},
                             {"start", orv_isoTime(start)},
                             {"stop", orv_isoTime(stop)}},
                            &state);
    return jsonAnswer({{"state", state}, {"changes", web_changesView(changes)}});
}

web_answer_t picture(web_bus_t& bus, const web_route_t& route, std::time_t now) {
    const web_held_t h = held(bus, route.type, route.id);
    if (route.kind == web_route_kind_t::text) {
        const json view = web_scheduleView(route.type, h, now, {});
        return {200, "text/plain; charset=utf-8", view.at("text").get<std::string>() + "\n"};
    }
    std::string svg = web_weekSvg(route.type + " / " + route.id, h.status.schedule, now);
    if (svg.empty()) {
        throw web_refusal_t{404, "only Daily and Weekly schedules have a week grid"};
    }
    return {200, "image/svg+xml", std::move(svg)};
}

}  // namespace

web_answer_t jsonAnswer(const json& value) {
    return {200, "application/json", value.dump(-1, ' ', false, json::error_handler_t::replace)};
}

type_info_t typeInfo(web_bus_t& bus, const std::string& type) {
    const std::string path =
        orv_dbus_objectPath("Scheduler.Types") + "/" + orv_dbus_escapeLabel(type);
    const json p = bus.properties(path);
    if (!p.contains("Type")) {
        throw web_refusal_t{404, "type '" + type + "' is not registered"};
    }
    return {text(p, "Type"), text(p, "Path"), statesOf(text(p, "States")), path};
}

web_held_t held(web_bus_t& bus, const std::string& type, const std::string& id) {
    const auto result = bus.call("getSchedule", {{"type", type}, {"ID", id}});
    scheduler::json_problem_t problem;
    auto status =
        scheduler::schedule_from_json(result.out.value("scheduleInfo", json()), "", &problem);
    if (!status) {
        throw web_refusal_t{502, "the scheduler's answer is not a schedule: " + problem.text()};
    }
    return {std::move(*status), bus.properties(scheduleObjectPath(type, id))};
}

json scheduleView(web_bus_t& bus, const std::string& type, const web_held_t& h, std::time_t now) {
    const scheduler::base_t base = h.status.schedule.base;
    std::vector<web_change_t> upcoming;
    if (const std::time_t span = web_upcomingSpan(base); span > 0) {
        std::string start;
        upcoming = simulate(bus,
                            {{"type", type},
                             {"ID", h.status.schedule.id},
                             {"start", orv_isoTime(now)},
                             {"stop", orv_isoTime(now + span)}},
                            &start);
    }
    return web_scheduleView(type, h, now, upcoming);
}

}  // namespace web_detail

web_answer_t web_serve(web_bus_t& bus, std::string_view method, const web_route_t& route,
                       const std::string& body, std::time_t now) {
    using namespace web_detail;
    using kind = web_route_kind_t;
    switch (route.kind) {
        case kind::types: {
            const json objects = bus.objects();
            json types = json::array();
            for (const type_info_t& type : typesOf(objects)) {
                types.push_back(typeView(bus, type, objects, now));
            }
            return jsonAnswer({{"types", std::move(types)}});
        }
        case kind::type:
            return jsonAnswer(typeView(bus, typeInfo(bus, route.type), bus.objects(), now));
        case kind::schedule:
            if (method == "PUT") {
                return putSchedule(bus, route, body, now);
            }
            if (method == "DELETE") {
                return removeSchedule(bus, route);
            }
            return jsonAnswer(scheduleView(bus, route.type, held(bus, route.type, route.id), now));
        case kind::text:
        case kind::weekSvg:
            return picture(bus, route, now);
        case kind::simulation:
        case kind::simulationAll:
            return simulation(bus, route);
        case kind::enable:
        case kind::override:
        case kind::overrideState:
            return control(bus, route, body, now);
        default:
            break;
    }
    throw web_refusal_t{404, "no such resource"};
}
