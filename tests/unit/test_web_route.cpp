// Unit tests of the console's router: what a raw request target means, before
// anything reaches the bus.
#include <string>

#include <gtest/gtest.h>

#include "web_route.h"

namespace {

using kind_t = web_route_kind_t;

struct row_t {
    const char* method;
    const char* target;
    int status;  // 0: routed
    kind_t kind;
    const char* type;
    const char* id;
};

TEST(WebRoute, TargetsAreDecodedSegmentBySegment) {
    const row_t rows[] = {
        {"GET", "/", 0, kind_t::asset, "", ""},
        {"GET", "/api/types", 0, kind_t::types, "", ""},
        {"GET", "/api/types/Light", 0, kind_t::type, "Light", ""},
        // An escaped slash or dots stay inside their name: never a path.
        {"GET", "/api/types/Light/schedules/a%2F..%2Fb", 0, kind_t::schedule, "Light", "a/../b"},
        // "+" is a plus in a path, a space only in a query.
        {"PUT", "/api/types/L+1/schedules/x%20y?q=a+b", 0, kind_t::schedule, "L+1", "x y"},
        {"POST", "/api/types/Light/schedules/x/override-state", 0, kind_t::overrideState, "Light",
         "x"},
        {"GET", "/api/types/Light/schedules/x/week.svg", 0, kind_t::weekSvg, "Light", "x"},
        {"GET", "/api/events", 0, kind_t::events, "", ""},
        {"GET", "/api/types/Light/schedules", 404, kind_t::asset, "", ""},
        {"GET", "/api/types/Light/things/x", 404, kind_t::asset, "", ""},
        {"GET", "/index.html", 404, kind_t::asset, "", ""},
        {"GET", "/api/types/Light/schedules/x/../../..", 404, kind_t::asset, "", ""},
        {"DELETE", "/api/types", 405, kind_t::asset, "", ""},
        {"GET", "/api/types/Light/schedules/x/enable", 405, kind_t::asset, "", ""},
        {"GET", "/api/types/%4", 400, kind_t::asset, "", ""},
        {"GET", "/api/types/a%00b", 400, kind_t::asset, "", ""},
        {"GET", "/api/types/a%0Ab", 400, kind_t::asset, "", ""},
        {"GET", "/api/types/Light/schedules/%7F", 400, kind_t::asset, "", ""},
        {"GET", "/api/types//schedules/x", 400, kind_t::asset, "", ""},
    };
    for (const row_t& row : rows) {
        SCOPED_TRACE(std::string(row.method) + " " + row.target);
        const web_routed_t routed = web_route(row.method, row.target);
        EXPECT_EQ(routed.refusal.status, row.status) << routed.refusal.reason;
        if (row.status == 0) {
            ASSERT_TRUE(routed.route.has_value());
            EXPECT_EQ(routed.route->kind, row.kind);
            EXPECT_EQ(routed.route->type, row.type);
            EXPECT_EQ(routed.route->id, row.id);
        }
    }
    EXPECT_EQ(web_route("PUT", "/api/types/L/schedules/x?q=a+b%21").route->query.at("q"), "a b!");
}

TEST(WebRoute, OnlyApiTargetsNeedTheToken) {
    for (const char* target : {"/api", "/api/", "/api/types", "/api?x"}) {
        EXPECT_TRUE(web_isApi(target)) << target;
    }
    for (const char* target : {"/", "/console.js", "/apix", "/x/api/types"}) {
        EXPECT_FALSE(web_isApi(target)) << target;
    }
}

}  // namespace
