// What a request asks for, read from its method and raw target once, before
// anything reaches the bus. Names are percent-decoded segment by segment, so
// that an ID holding "/" or ".." is one name and never a path.
#pragma once

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <string_view>

enum class web_route_kind_t {
    asset,          // a file of the page
    types,          // GET /api/types
    type,           // GET /api/types/{type}
    schedule,       // GET, PUT, DELETE /api/types/{type}/schedules/{id}
    text,           // GET …/{id}/text
    weekSvg,        // GET …/{id}/week.svg
    enable,         // POST …/{id}/enable
    override,       // POST …/{id}/override
    overrideState,  // POST …/{id}/override-state
    simulation,     // GET …/{id}/simulation
    simulationAll,  // GET /api/simulation
    events,         // GET /api/events
};

struct web_route_t {
    web_route_kind_t kind = web_route_kind_t::asset;
    std::string asset;  // for asset: its name, "index.html" for "/"
    std::string type;
    std::string id;
    std::map<std::string, std::string> query;
};

// Why a request is not served: the HTTP status and one sentence; for an
// error in a text form, its 1-based column. Thrown by the layers below the
// server, which turns it into the JSON answer.
struct web_refusal_t {
    int status;
    std::string reason;
    std::size_t column = 0;
};

// The route, or why not: 404 for an unknown path, 405 for a method the path
// does not take, 400 for a name that cannot be one.
struct web_routed_t {
    std::optional<web_route_t> route;
    web_refusal_t refusal{0, ""};
};
web_routed_t web_route(std::string_view method, std::string_view target);

// True for targets under /api/, which need the token.
bool web_isApi(std::string_view target);

// "%41b" -> "Ab"; nullopt for a broken escape or a NUL byte. In a query,
// "+" stands for a space; in a path it is itself.
std::optional<std::string> web_percentDecode(std::string_view text, bool plusIsSpace);
