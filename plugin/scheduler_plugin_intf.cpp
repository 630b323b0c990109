// The handlers of the bus functions of Scheduler. Each reads its named
// arguments, calls one operation and turns the result into the return value
// and, for the queries, an out-argument. A missing argument is traced and
// handed on as none: the operation decides whether it can do without it.
#include <ctime>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "handler_frame.h"
#include "operations.h"
#include "orv/function.h"
#include "orv/request.h"
#include "orv/trace.h"
#include "orv/variant.h"
#include "orv/variant_list.h"
#include "scheduler_plugin.h"
#include "scheduler_plugin_common.h"

#define ORV_HANDLER(name)                                                          \
    ORV_PLUGIN_EXPORT int name(function_call_t* call, argument_value_list_t* args, \
                               variant_t* retval) noexcept

ORV_HANDLER(__registerScheduleType);
ORV_HANDLER(__unregisterScheduleType);
ORV_HANDLER(__addSchedule);
ORV_HANDLER(__removeSchedules);
ORV_HANDLER(__getScheduleTypes);
ORV_HANDLER(__getSchedules);
ORV_HANDLER(__getCompleteSchedules);
ORV_HANDLER(__getSchedule);
ORV_HANDLER(__enableSchedule);
ORV_HANDLER(__overrideSchedule);
ORV_HANDLER(__overrideState);
ORV_HANDLER(__simulateSchedule);
ORV_HANDLER(__simulateSchedules);

namespace {

void comGetSchedules(const call_context_t& call, variant_t* retval, bool complete) {
    argument_value_list_t* args = call.args;
    std::optional<std::string> type = readText(call, "type");
    const page_t page{readCount(call, "offset").value_or(0), readCount(call, "limit")};
    // A "scheduleInfo" the caller sent would shadow the answer.
    argument_valueDestroy(args, argument_valueByName(args, "scheduleInfo"));
    variant_list_t list;
    const outcome_t outcome = getSchedules(*call.service, type, page, &list, complete);
    prependOut(args, "scheduleInfo", listVariant(&list));
    answer(args, retval, outcome);
}

}  // namespace

int __registerScheduleType(function_call_t* fcall, argument_value_list_t* args,
                           variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval, [&](const call_context_t& call) {
        std::optional<std::string> type = readText(call, "type");
        std::optional<std::string> path = readText(call, "path");
        std::optional<variant_list_t> states = readList(call, "states");
        std::optional<variant_list_t> schedules = readList(call, "schedules");
        answer(args, retval,
               registerScheduleType(*call.service, type, path, std::move(states), schedules));
    });
}

int __unregisterScheduleType(function_call_t* fcall, argument_value_list_t* args,
                             variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval, [&](const call_context_t& call) {
        std::optional<std::string> type = readText(call, "type");
        answer(args, retval, unregisterScheduleType(*call.service, type));
    });
}

int __addSchedule(function_call_t* fcall, argument_value_list_t* args, variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval, [&](const call_context_t& call) {
        std::optional<std::string> type = readText(call, "type");
        std::unique_ptr<schedule_t> schedule = readSchedule(call);
        answer(args, retval, addSchedule(*call.service, type, schedule.get()));
    });
}

int __removeSchedules(function_call_t* fcall, argument_value_list_t* args,
                      variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval, [&](const call_context_t& call) {
        std::optional<std::string> type = readText(call, "type");
        // Without "ID" every schedule of the type goes.
        std::optional<variant_list_t> ids = readList(call, "ID");
        answer(args, retval, removeSchedules(*call.service, type, ids));
    });
}

int __getScheduleTypes(function_call_t* fcall, argument_value_list_t* args,
                       variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval, [&](const call_context_t& call) {
        variant_list_t list;
        for (const std::string& name : getScheduleTypes(*call.service)) {
            variant_list_addString(&list, name);
        }
        prependOut(args, "types", listVariant(&list));
        variant_setBool(retval, true);
    });
}

int __getSchedules(function_call_t* fcall, argument_value_list_t* args,
                   variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval,
                 [&](const call_context_t& call) { comGetSchedules(call, retval, false); });
}

int __getCompleteSchedules(function_call_t* fcall, argument_value_list_t* args,
                           variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval,
                 [&](const call_context_t& call) { comGetSchedules(call, retval, true); });
}

int __getSchedule(function_call_t* fcall, argument_value_list_t* args, variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval, [&](const call_context_t& call) {
        std::optional<std::string> type = readText(call, "type");
        std::optional<std::string> id = readText(call, "ID");
        schedule_t record;
        const outcome_t outcome = getSchedule(*call.service, type, id, &record);
        if (outcome.ok()) {
            std::optional<variant_t> map = schedule_t2variant(&record);
            prependOut(args, "scheduleInfo", map ? std::move(*map) : variant_t());
        }
        answer(args, retval, outcome);
    });
}

int __enableSchedule(function_call_t* fcall, argument_value_list_t* args,
                     variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval, [&](const call_context_t& call) {
        std::optional<std::string> type = readText(call, "type");
        std::optional<std::string> id = readText(call, "ID");
        // Without "enable" nothing changes: a missing argument must not
        // disable a schedule.
        std::optional<bool> enable = readBool(call, "enable");
        answer(args, retval, enableSchedule(*call.service, type, id, enable));
    });
}

int __overrideSchedule(function_call_t* fcall, argument_value_list_t* args,
                       variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval, [&](const call_context_t& call) {
        std::optional<std::string> type = readText(call, "type");
        std::optional<std::string> id = readText(call, "ID");
        std::optional<std::string> state = readText(call, "override");
        answer(args, retval, overrideSchedule(*call.service, type, id, state));
    });
}

int __overrideState(function_call_t* fcall, argument_value_list_t* args,
                    variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval, [&](const call_context_t& call) {
        std::optional<std::string> type = readText(call, "type");
        std::optional<std::string> id = readText(call, "ID");
        std::optional<std::string> state = readText(call, "State", "state");
        answer(args, retval, overrideState(*call.service, type, id, state));
    });
}

namespace {

// A simulation costs time and memory in proportion to the span it covers, and
// any client may ask for one: a span longer than five years is refused.
constexpr std::int64_t kMaxSimulatedSeconds = 5LL * 366 * 86400;

// The span of a simulation, or the reason it is refused: both ends are
// needed (a run from 1970 helps nobody), and five years at most.
std::optional<std::string> readSpan(const call_context_t& call, time_t* start, time_t* stop) {
    const std::optional<time_t> from = readTime(call, "start");
    const std::optional<time_t> to = readTime(call, "stop");
    if (!from || !to) {
        return outcome_missing(from ? "stop" : "start");
    }
    *start = *from;
    *stop = *to;
    if (static_cast<std::int64_t>(*stop) - static_cast<std::int64_t>(*start) >
        kMaxSimulatedSeconds) {
        return "a simulation covers at most five years";
    }
    return std::nullopt;
}

// The lines of a run, whether it was cut, and the reason of a refusal.
void answerRun(const call_context_t& call, variant_t* retval, simulation_t run,
               const outcome_t& outcome) {
    returnLines(retval, std::move(run.lines));
    if (!outcome.ok()) {
        prependOut(call.args, "error", variant_t(outcome.reason()));
    }
    prependOut(call.args, "truncated", variant_t(run.truncated));
}

}  // namespace

int __simulateSchedule(function_call_t* fcall, argument_value_list_t* args,
                       variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval, [&](const call_context_t& call) {
        std::optional<std::string> type = readText(call, "type");
        std::optional<std::string> id = readText(call, "ID");
        time_t start = 0;
        time_t stop = 0;
        if (std::optional<std::string> refused = readSpan(call, &start, &stop)) {
            answerRun(call, retval, {}, outcome_t::refused(call.function, *refused));
            return;
        }
        simulation_t run;
        const outcome_t outcome = simulateSchedule(*call.service, type, id, start, stop, &run);
        answerRun(call, retval, std::move(run), outcome);
    });
}

int __simulateSchedules(function_call_t* fcall, argument_value_list_t* args,
                        variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval, [&](const call_context_t& call) {
        time_t start = 0;
        time_t stop = 0;
        if (std::optional<std::string> refused = readSpan(call, &start, &stop)) {
            answerRun(call, retval, {}, outcome_t::refused(call.function, *refused));
            return;
        }
        answerRun(call, retval, simulateSchedules(*call.service, start, stop), outcome_t::done());
    });
}
