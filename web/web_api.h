// The console's API: each route's work on the bus, from a typed route and a
// body to a JSON answer. Refusals are thrown as web_refusal_t.
#pragma once

#include <ctime>
#include <string>
#include <string_view>
#include <vector>

#include "web_bus.h"
#include "web_route.h"
#include "web_view.h"

struct web_answer_t {
    int status = 200;
    std::string contentType = "application/json";
    std::string body;
};

web_answer_t web_serve(web_bus_t& bus, std::string_view method, const web_route_t& route,
                       const std::string& body, std::time_t now);

// What the routes share (web_api.cpp, web_api_edit.cpp).
namespace web_detail {

// A registered type as its object tells it.
struct type_info_t {
    std::string name;
    std::string path;
    std::vector<std::string> states;
    std::string objectPath;
};

type_info_t typeInfo(web_bus_t& bus, const std::string& type);
// The schedule as the bus holds it; 404 when there is none.
web_held_t held(web_bus_t& bus, const std::string& type, const std::string& id);
scheduler::json scheduleView(web_bus_t& bus, const std::string& type, const web_held_t& held,
                             std::time_t now);
web_answer_t jsonAnswer(const scheduler::json& value);

web_answer_t putSchedule(web_bus_t& bus, const web_route_t& route, const std::string& body,
                         std::time_t now);
web_answer_t control(web_bus_t& bus, const web_route_t& route, const std::string& body,
                     std::time_t now);
web_answer_t removeSchedule(web_bus_t& bus, const web_route_t& route);

}  // namespace web_detail
