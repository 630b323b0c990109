#include "bus_session.h"

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <stdexcept>
#include <utility>

#include "fuzz_support.h"
#include "orv/object.h"
#include "orv/trace.h"
#include "orv/variant.h"
#include "orv/variant_map.h"

namespace fuzz {

namespace {

object_t* schedulesOf(object_t* typeInstance) {
    bool match = false;
    object_t* schedules = object_getObject(typeInstance, "Schedules", 0, &match);
    return match ? schedules : nullptr;
}

// The IDs in a getSchedules answer, in its order.
std::vector<std::string> listedIds(virtual_host_t& host, const std::string& type) {
    const variant_t arguments(variant_map_t{{"type", variant_t(type)}});
    virtual_host_t::call_result_t result = host.call("getSchedules", variant_toJSON(&arguments));
    FUZZ_REQUIRE(result.handled && variant_toBool(&result.retval) == true);
    const variant_list_t* list =
        variant_da_list(variant_map_find(&result.arguments, "scheduleInfo"));
    FUZZ_REQUIRE(list != nullptr);
    std::vector<std::string> ids;
    for (const variant_t& schedule : *list) {
        ids.push_back(variant_char(variant_map_find(variant_da_map(&schedule), "ID")).value_or(""));
    }
    return ids;
}

// The service still answers, and each type's schedule list matches its
// data model.
void checkService(virtual_host_t& host) {
    virtual_host_t::call_result_t types = host.call("getScheduleTypes");
    FUZZ_REQUIRE(types.handled && variant_toBool(&types.retval) == true);
    FUZZ_REQUIRE(variant_da_list(variant_map_find(&types.arguments, "types")) != nullptr);

    object_t* typesTemplate = host.object("Scheduler.Types");
    FUZZ_REQUIRE(typesTemplate != nullptr);
    for (object_t* type = object_firstInstance(typesTemplate); type != nullptr;
         type = object_nextInstance(type)) {
        const std::string name = variant_char(object_parameterValue(type, "Type")).value_or("");
        object_t* schedules = schedulesOf(type);
        FUZZ_REQUIRE(schedules != nullptr);
        std::vector<std::string> ids;
        for (object_t* schedule = object_firstInstance(schedules); schedule != nullptr;
             schedule = object_nextInstance(schedule)) {
            const std::string id = variant_char(object_parameterValue(schedule, "ID")).value_or("");
            ids.push_back(id);
            // NextStateChange is not checked against the clock: after a
            // synchronisation or a clock change it keeps the change planned
            // before until the next one is applied, by design.
        }
        FUZZ_REQUIRE(listedIds(host, name) == ids);
    }
}

void useZone(const char* zone) {
    static std::string current;
    if (current != zone) {
        current = zone;
        setenv("TZ", zone, 1);
        tzset();
    }
}

}  // namespace

void session_t::call(const std::string& function, std::string_view json) {
    try {
        host_.call(function, json);
    } catch (const std::invalid_argument&) {
        // Not a JSON object: no call is made.
    }
    afterStep();
}

void session_t::advanceMs(std::int64_t milliseconds) {
    host_.advanceMs(std::clamp<std::int64_t>(milliseconds, 0, kMaxAdvanceMs));
    afterStep();
}

void session_t::timeStatus(std::string_view status) {
    if (timePublished_) {
        host_.setTimeStatus(status);
    } else {
        host_.publishTime(status);
        timePublished_ = true;
    }
    if (status == "Synchronized") {
        synchronized_ = true;
    }
    afterStep();
}

void session_t::notifyTime(std::vector<std::uint32_t> types) {
    host_.emitTime(std::move(types));
    afterStep();
}

void session_t::setClock(std::int64_t delta) {
    host_.setClock(host_.now() + std::clamp<std::int64_t>(delta, -kMaxClockJump, kMaxClockJump));
    host_.emitTime({926});
    afterStep();
}

void session_t::client(std::string_view path, bool add) {
    if (add) {
        host_.addClient(path);
    } else {
        host_.removeClient(path);
    }
    afterStep();
}

void session_t::afterStep() {
    if (!synchronized_) {
        FUZZ_REQUIRE(host_.setStateCalls().empty());
    }
}

void runHost(const setup_t& setup, const std::function<void(session_t&)>& actions) {
    useZone(setup.zone);
    virtual_host_t::options_t options;
    options.start = setup.start;
    // Traces cost more than the calls; most inputs run without them, and the
    // others format every line and drop it.
    options.traceLevel = setup.verbose ? TRACE_LEVEL_CALLSTACK : -1;
    options.traceZone = setup.verbose ? std::optional<std::string>("500") : std::nullopt;
    options.timeStatus = setup.timeStatus;
    virtual_host_t host(options);
    FUZZ_REQUIRE(host.initialized());
    if (setup.verbose) {
        tolvTraceSetSink([](int, std::string_view) {});
    }
    for (const char* client : setup.clients) {
        host.addClient(client);
    }
    session_t session(host, setup.timeStatus == "Synchronized", setup.timeStatus.has_value());
    actions(session);
    host.runPending();
    checkService(host);
    host.shutdown();
}

}  // namespace fuzz
