// The routes that change what the scheduler holds. Each checks its body
// before anything reaches the bus, and answers with what the bus then holds.
#include <optional>

#include "scheduler/text.h"
#include "web_api.h"

namespace web_detail {

using scheduler::json;

namespace {

json bodyObject(const std::string& body) {
    json value = json::parse(body, nullptr, false);
    if (!value.is_object()) {
        throw web_refusal_t{400, "the body must be a JSON object"};
    }
    return value;
}

template <typename T>
std::optional<T> field(const json& object, const char* key, const char* what) {
    auto it = object.find(key);
    if (it == object.end()) {
        return std::nullopt;
    }
    if constexpr (std::is_same_v<T, bool>) {
        if (it->is_boolean()) {
            return it->get<bool>();
        }
    } else {
        if (it->is_string()) {
            return it->get<std::string>();
        }
    }
    throw web_refusal_t{400, std::string("\"") + key + "\" must be " + what};
}

template <typename T>
T required(const json& object, const char* key, const char* what) {
    std::optional<T> value = field<T>(object, key, what);
    if (!value) {
        throw web_refusal_t{400, std::string("\"") + key + "\" is missing"};
    }
    return *value;
}

std::optional<web_held_t> current(web_bus_t& bus, const web_route_t& route) {
    try {
        return held(bus, route.type, route.id);
    } catch (const web_refusal_t& refusal) {
        if (refusal.status != 404) {
            throw;
        }
    }
    return std::nullopt;
}

// The schedule a text describes, with the type's states.
scheduler::schedule_t fromText(const std::string& text, const type_info_t& type,
                               const std::optional<web_held_t>& was) {
    auto parsed = scheduler::parse_text(text, &type.states);
    if (auto* error = std::get_if<scheduler::text_error_t>(&parsed)) {
        throw web_refusal_t{400, error->message, error->column};
    }
    auto& schedule = std::get<scheduler::text_schedule_t>(parsed);
    scheduler::schedule_t result;
    result.base = schedule.base;
    result.entries = std::move(schedule.entries);
    result.default_state = !schedule.default_state.empty() ? schedule.default_state
                           : was                           ? was->status.schedule.default_state
                                                           : std::string();
    if (result.default_state.empty()) {
        throw web_refusal_t{400,
                            "a new schedule's text must name its default state, "
                            "e.g. \"; default off\""};
    }
    return result;
}

// The schedule of a JSON body in the console's names.
scheduler::schedule_t fromJson(const json& body) {
    json form = {{"ID", "-"},
                 {"enable", true},
                 {"base", required<std::string>(body, "base", "a text")},
                 {"def", required<std::string>(body, "default", "a text")},
                 {"override", ""},
                 {"schedule", body.contains("entries") ? body.at("entries") : json::array()}};
    scheduler::json_problem_t problem;
    auto status = scheduler::schedule_from_json(form, "", &problem);
    if (!status) {
        std::string where =
            problem.pointer == "/schedule" || problem.pointer.rfind("/schedule/", 0) == 0
                ? "/entries" + problem.pointer.substr(9)
                : problem.pointer;
        throw web_refusal_t{400, (where.empty() ? "/" : where) + ": " + problem.reason};
    }
    return std::move(status->schedule);
}

json answerOf(web_bus_t& bus, const web_route_t& route, std::time_t now) {
    return scheduleView(bus, route.type, held(bus, route.type, route.id), now);
}

}  // namespace

web_answer_t putSchedule(web_bus_t& bus, const web_route_t& route, const std::string& body,
                         std::time_t now) {
    const json request = bodyObject(body);
    const type_info_t type = typeInfo(bus, route.type);
    const std::optional<web_held_t> was = current(bus, route);
    scheduler::schedule_t schedule =
        request.contains("text")
            ? fromText(required<std::string>(request, "text", "a text"), type, was)
            : fromJson(request);
    schedule.id = route.id;
    schedule.enabled = field<bool>(request, "enabled", "true or false")
                           .value_or(was ? was->status.schedule.enabled : true);
    schedule.override_state = field<std::string>(request, "override", "a text")
                                  .value_or(was ? was->status.schedule.override_state : "");
    if (auto reason = scheduler::validate(schedule, type.states)) {
        throw web_refusal_t{400, *reason};
    }
    bus.call("addSchedule", {{"type", type.name}, {"info", scheduler::schedule_to_json(schedule)}});
    return jsonAnswer(answerOf(bus, route, now));
}

web_answer_t control(web_bus_t& bus, const web_route_t& route, const std::string& body,
                     std::time_t now) {
    const json request = bodyObject(body);
    json arguments = {{"type", route.type}, {"ID", route.id}};
    if (route.kind == web_route_kind_t::enable) {
        arguments["enable"] = required<bool>(request, "enable", "true or false");
        bus.call("enableSchedule", arguments);
    } else if (route.kind == web_route_kind_t::override) {
        arguments["override"] = required<std::string>(request, "state", "a text");
        bus.call("overrideSchedule", arguments);
    } else {
        arguments["State"] = required<std::string>(request, "state", "a text");
        bus.call("overrideState", arguments);
    }
    return jsonAnswer(answerOf(bus, route, now));
}

web_answer_t removeSchedule(web_bus_t& bus, const web_route_t& route) {
    held(bus, route.type, route.id);
    bus.call("removeSchedules", {{"type", route.type}, {"ID", json::array({route.id})}});
    return jsonAnswer({{"removed", route.id}});
}

}  // namespace web_detail
