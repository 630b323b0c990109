#include "web_route.h"

#include <array>
#include <vector>

namespace {

using kind_t = web_route_kind_t;

constexpr std::size_t kMaxType = 256;
constexpr std::size_t kMaxId = 4096;

int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

std::vector<std::string_view> split(std::string_view text, char by) {
    std::vector<std::string_view> parts;
    for (std::size_t at = 0; at <= text.size();) {
        const std::size_t next = std::min(text.find(by, at), text.size());
        parts.push_back(text.substr(at, next - at));
        at = next + 1;
    }
    return parts;
}

// Names reach the scheduler as they are; only what can never be a name is
// stopped here: nothing, control characters, or more than the bus takes.
std::optional<std::string> nameProblem(const std::string& name, std::size_t max, const char* what) {
    if (name.empty() || name.size() > max) {
        return std::string("a ") + what + " must have 1 to " + std::to_string(max) + " bytes";
    }
    for (unsigned char c : name) {
        if (c < 0x20 || c == 0x7f) {
            return std::string("a ") + what + " cannot hold control characters";
        }
    }
    return std::nullopt;
}

web_routed_t refused(int status, std::string reason) {
    return {std::nullopt, {status, std::move(reason)}};
}

// The methods each kind takes.
bool allowed(kind_t kind, std::string_view method) {
    switch (kind) {
        case kind_t::schedule:
            return method == "GET" || method == "PUT" || method == "DELETE";
        case kind_t::enable:
        case kind_t::override:
        case kind_t::overrideState:
            return method == "POST";
        default:
            return method == "GET";
    }
}

std::optional<kind_t> scheduleAction(std::string_view action) {
    static const std::array<std::pair<std::string_view, kind_t>, 6> kActions{{
        {"text", kind_t::text},
        {"week.svg", kind_t::weekSvg},
        {"enable", kind_t::enable},
        {"override", kind_t::override},
        {"override-state", kind_t::overrideState},
        {"simulation", kind_t::simulation},
    }};
    for (const auto& [name, kind] : kActions) {
        if (name == action) {
            return kind;
        }
    }
    return std::nullopt;
}

// The route below /api/, from the decoded segments after "api".
std::optional<web_route_t> apiRoute(const std::vector<std::string>& s) {
    web_route_t route;
    if (s.size() == 1 && (s[0] == "events" || s[0] == "simulation")) {
        route.kind = s[0] == "events" ? kind_t::events : kind_t::simulationAll;
        return route;
    }
    if (s.empty() || s[0] != "types" || s.size() == 3 || s.size() > 5) {
        return std::nullopt;
    }
    route.kind = s.size() == 1 ? kind_t::types : kind_t::type;
    if (s.size() >= 2) {
        route.type = s[1];
    }
    if (s.size() >= 4) {
        if (s[2] != "schedules") {
            return std::nullopt;
        }
        route.kind = kind_t::schedule;
        route.id = s[3];
    }
    if (s.size() == 5) {
        std::optional<kind_t> action = scheduleAction(s[4]);
        if (!action) {
            return std::nullopt;
        }
        route.kind = *action;
    }
    return route;
}

std::optional<std::map<std::string, std::string>> parseQuery(std::string_view query) {
    std::map<std::string, std::string> values;
    if (query.empty()) {
        return values;
    }
    for (std::string_view pair : split(query, '&')) {
        const std::size_t eq = pair.find('=');
        auto key = web_percentDecode(pair.substr(0, eq), true);
        auto value =
            web_percentDecode(eq == std::string_view::npos ? "" : pair.substr(eq + 1), true);
        if (!key || !value) {
            return std::nullopt;
        }
        values[*key] = *value;
    }
    return values;
}

}  // namespace

std::optional<std::string> web_percentDecode(std::string_view text, bool plusIsSpace) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c == '%') {
            const int hi = i + 2 < text.size() ? hexValue(text[i + 1]) : -1;
            const int lo = hi >= 0 ? hexValue(text[i + 2]) : -1;
            if (lo < 0) {
                return std::nullopt;
            }
            c = static_cast<char>(hi * 16 + lo);
            i += 2;
        } else if (c == '+' && plusIsSpace) {
            c = ' ';
        }
        if (c == '\0') {
            return std::nullopt;
        }
        out.push_back(c);
    }
    return out;
}

bool web_isApi(std::string_view target) {
    return target == "/api" || target.rfind("/api/", 0) == 0 || target.rfind("/api?", 0) == 0;
}

web_routed_t web_route(std::string_view method, std::string_view target) {
    const std::size_t mark = target.find('?');
    const std::string_view path = target.substr(0, mark);
    auto query = parseQuery(mark == std::string_view::npos ? "" : target.substr(mark + 1));
    if (!query) {
        return refused(400, "the query has a broken %-escape");
    }
    std::optional<web_route_t> route;
    if (path == "/" || path == "/console.js" || path == "/grid.js" || path == "/console.css" ||
        path == "/favicon.svg") {
        route.emplace();
        route->asset = path == "/" ? "index.html" : std::string(path.substr(1));
    } else if (web_isApi(path) && path.size() > 5) {
        std::vector<std::string> segments;
        for (std::string_view raw : split(path.substr(5), '/')) {
            auto decoded = web_percentDecode(raw, false);
            if (!decoded) {
                return refused(400, "the path has a broken %-escape");
            }
            segments.push_back(std::move(*decoded));
        }
        route = apiRoute(segments);
    }
    if (!route) {
        return refused(404, "no such page or resource");
    }
    if (!allowed(route->kind, method)) {
        return refused(405, "this resource does not take " + std::string(method));
    }
    const bool named = route->kind >= kind_t::schedule && route->kind <= kind_t::simulation;
    const bool typed = named || route->kind == kind_t::type;
    if (auto problem = typed ? nameProblem(route->type, kMaxType, "type") : std::nullopt) {
        return refused(400, *problem);
    }
    if (auto problem = named ? nameProblem(route->id, kMaxId, "schedule ID") : std::nullopt) {
        return refused(400, *problem);
    }
    route->query = std::move(*query);
    return {std::move(route), {0, ""}};
}
