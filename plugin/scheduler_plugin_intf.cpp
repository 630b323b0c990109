// The handlers of the bus functions of Scheduler. Each reads its named
// arguments, calls one operation and turns the result into the return value
// and, for the queries, an out-argument. A missing argument is traced and
// handed on as none: the operation decides whether it can do without it.
#include <ctime>
#include <exception>
#include <memory>
#include <optional>
#include <string>

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

// What every handler takes from the call: the target object, the calling
// request's attributes for the readers, the arguments, and where the trace
// lines of the readers are attributed.
struct call_context_t {
    service_t* service;
    std::uint32_t attributes;
    argument_value_list_t* args;
    const char* function;
    int line;
};

call_context_t beginCall(function_call_t* call, argument_value_list_t* args, const char* function,
                         int line) {
    tolvTrace_zoneMessage(TRACE_LEVEL_INFO, ME, function, __FILE__, line, "Number of arguments %d",
                          static_cast<int>(llist_size(args)));
    return {scheduler_service(), request_attributes(fcall_request(call)), args, function, line};
}

// Thrown by the readers when an argument is there but does not convert to
// the reader's type. Treating it as absent would turn a client's mistake
// into a default, such as "remove every schedule" or "disable", so the whole
// call is refused instead.
struct argument_refused_t {};

// A reader found nothing usable under name: absent is traced and handed on
// as none, present with the wrong type refuses the call.
void traceMissing(const call_context_t& call, const char* name, const char* label,
                  const char* fallback) {
    if (argument_valueByName(call.args, name) != nullptr) {
        tolvTrace_message(TRACE_LEVEL_WARNING, TOLV_TRACE_MODULE, call.function, __FILE__,
                          call.line, "Named parameter %s has the wrong type", label);
        throw argument_refused_t{};
    }
    tolvTrace_message(TRACE_LEVEL_NOTICE, TOLV_TRACE_MODULE, call.function, __FILE__, call.line,
                      "Named parameter %s not found, using default value %s", label, fallback);
}

// label is the name the trace uses; it differs from name for "State".
std::optional<std::string> readText(const call_context_t& call, const char* name,
                                    const char* label) {
    std::optional<std::string> value;
    if (!argument_getChar(&value, call.args, call.attributes, name, std::nullopt)) {
        traceMissing(call, name, label, "NULL");
    }
    return value;
}

std::optional<std::string> readText(const call_context_t& call, const char* name) {
    return readText(call, name, name);
}

std::optional<variant_list_t> readList(const call_context_t& call, const char* name) {
    std::optional<variant_list_t> value;
    if (!argument_getList(&value, call.args, call.attributes, name, std::nullopt)) {
        traceMissing(call, name, name, "NULL");
    }
    return value;
}

bool readBool(const call_context_t& call, const char* name) {
    bool value = false;
    if (!argument_getBool(&value, call.args, call.attributes, name, false)) {
        traceMissing(call, name, name, "false");
    }
    return value;
}

// A date-time argument as seconds since the epoch; 0 when absent.
time_t readTime(const call_context_t& call, const char* name) {
    std::optional<struct tm> value;
    if (!argument_getDateTime(&value, call.args, call.attributes, name, std::nullopt) || !value) {
        traceMissing(call, name, name, "NULL");
        return 0;
    }
    return mktime(&*value);
}

// The simulations answer with their lines; without a list, with none.
void returnLines(variant_t* retval, std::optional<variant_list_t> lines) {
    variant_list_t list = lines ? std::move(*lines) : variant_list_t{};
    tolvTrace(TRACE_LEVEL_NOTICE, "returning %d elements", static_cast<int>(list.size()));
    variant_setListMove(retval, &list);
}

std::unique_ptr<schedule_t> readSchedule(const call_context_t& call) {
    argument_value_t* info = nullptr;
    if (!argument_get(&info, call.args, call.attributes, "info")) {
        traceMissing(call, "info", "info", "NULL");
        return nullptr;
    }
    variant_t* value = argument_value(info);
    if (value == nullptr || variant_type(value) == variant_type_unknown) {
        tolvTrace_message(TRACE_LEVEL_NOTICE, TOLV_TRACE_MODULE, call.function, __FILE__, call.line,
                          "Named parameter info variant NULL, using default value NULL");
        return nullptr;
    }
    std::unique_ptr<schedule_t> schedule = variant2schedule_t(value);
    variant_cleanup(value);
    return schedule;
}

// Puts an out-argument in front of the arguments; without it the result is
// dropped and only the return value answers.
void prependOut(argument_value_list_t* args, const char* name, variant_t value) {
    std::unique_ptr<argument_value_t> out = argument_valueCreate(name);
    if (!out) {
        return;
    }
    out->value = std::move(value);
    argument_valuePrepend(args, std::move(out));
}

variant_t listVariant(variant_list_t* list) {
    variant_t value;
    variant_setListMove(&value, list);
    return value;
}

// Bounds on what a client may send, so that a buggy or hostile caller cannot
// make the service hold or walk unbounded data: every text, at any depth, and
// the entry list of each schedule. Nesting is bounded as well, since the walk
// recurses.
constexpr std::size_t kMaxTextBytes = 4096;
constexpr std::size_t kMaxEntries = 1024;
constexpr int kMaxDepth = 64;

// The reason a value breaks a bound, or null.
const char* overLimit(const variant_t& value, int depth) {
    if (depth > kMaxDepth) {
        return "nested too deeply";
    }
    if (const std::string* text = value.text()) {
        return text->size() > kMaxTextBytes ? "a text is longer than 4096 bytes" : nullptr;
    }
    if (const variant_list_t* list = value.list()) {
        for (const variant_t& element : *list) {
            if (const char* reason = overLimit(element, depth + 1)) {
                return reason;
            }
        }
    } else if (const variant_map_t* map = value.map()) {
        for (const variant_map_entry_t& entry : *map) {
            const variant_list_t* entries = entry.value.list();
            if (entry.key == "schedule" && entries != nullptr && entries->size() > kMaxEntries) {
                return "a schedule has more than 1024 entries";
            }
            if (entry.key.size() > kMaxTextBytes) {
                return "a text is longer than 4096 bytes";
            }
            if (const char* reason = overLimit(entry.value, depth + 1)) {
                return reason;
            }
        }
    }
    return nullptr;
}

// A refused call is answered like any failed one: false, or an empty list
// for the functions that return one.
void refuse(const function_call_t* fcall, variant_t* retval) {
    const function_definition_t* definition = fcall->function();
    if (definition != nullptr && definition->returnType == variant_type_array) {
        variant_list_t none;
        variant_setListMove(retval, &none);
    } else {
        variant_setBool(retval, false);
    }
}

// The reason the arguments break a bound, or null.
const char* argumentsOverLimit(const argument_value_list_t* args) {
    for (const argument_value_t& argument : args->values()) {
        const char* reason = argument.name.size() > kMaxTextBytes
                                 ? "an argument name is longer than 4096 bytes"
                                 : overLimit(argument.value, 0);
        if (reason != nullptr) {
            return reason;
        }
    }
    return nullptr;
}

// The frame of every handler: the enter marker, the argument count, the
// bounds, and the body, which nothing may leave; a wrongly typed argument
// refuses the call. Handlers always answer 0:
// the result is in the return value.
template <typename Body>
int serve(const char* function, int line, function_call_t* fcall, argument_value_list_t* args,
          variant_t* retval, Body&& body) noexcept {
    try {
        tolvTrace_marker(true, ME, function, __FILE__, line);
        call_context_t call = beginCall(fcall, args, function, line);
        if (call.service == nullptr) {
            tolvTrace(TRACE_LEVEL_WARNING, "%s refused: the plug-in is not running", function);
            refuse(fcall, retval);
        } else if (const char* reason = argumentsOverLimit(args)) {
            tolvTrace(TRACE_LEVEL_WARNING, "%s refused: %s", function, reason);
            refuse(fcall, retval);
        } else {
            body(call);
        }
    } catch (const argument_refused_t&) {
        refuse(fcall, retval);
    } catch (const std::exception& e) {
        tolvTrace(TRACE_LEVEL_WARNING, "%s failed: %s", function, e.what());
    } catch (...) {
        tolvTrace(TRACE_LEVEL_WARNING, "%s failed", function);
    }
    return 0;
}

void comGetSchedules(const call_context_t& call, variant_t* retval, bool complete) {
    argument_value_list_t* args = call.args;
    std::optional<std::string> type = readText(call, "type");
    // A "scheduleInfo" the caller sent would shadow the answer.
    argument_valueDestroy(args, argument_valueByName(args, "scheduleInfo"));
    variant_list_t list;
    bool result = getSchedules(*call.service, type, &list, complete);
    prependOut(args, "scheduleInfo", listVariant(&list));
    variant_setBool(retval, result);
}

}  // namespace

int __registerScheduleType(function_call_t* fcall, argument_value_list_t* args,
                           variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval, [&](const call_context_t& call) {
        std::optional<std::string> type = readText(call, "type");
        std::optional<std::string> path = readText(call, "path");
        std::optional<variant_list_t> states = readList(call, "states");
        std::optional<variant_list_t> schedules = readList(call, "schedules");
        variant_setBool(
            retval, registerScheduleType(*call.service, type, path, std::move(states), schedules));
    });
}

int __unregisterScheduleType(function_call_t* fcall, argument_value_list_t* args,
                             variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval, [&](const call_context_t& call) {
        std::optional<std::string> type = readText(call, "type");
        variant_setBool(retval, unregisterScheduleType(*call.service, type));
    });
}

int __addSchedule(function_call_t* fcall, argument_value_list_t* args, variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval, [&](const call_context_t& call) {
        std::optional<std::string> type = readText(call, "type");
        std::unique_ptr<schedule_t> schedule = readSchedule(call);
        variant_setBool(retval, addSchedule(*call.service, type, schedule.get()));
    });
}

int __removeSchedules(function_call_t* fcall, argument_value_list_t* args,
                      variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval, [&](const call_context_t& call) {
        std::optional<std::string> type = readText(call, "type");
        // Without "ID" every schedule of the type goes.
        std::optional<variant_list_t> ids = readList(call, "ID");
        variant_setBool(retval, removeSchedules(*call.service, type, ids));
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
        std::optional<schedule_t> record = getSchedule(*call.service, type, id);
        if (record) {
            std::optional<variant_t> map = schedule_t2variant(&*record);
            prependOut(args, "scheduleInfo", map ? std::move(*map) : variant_t());
        }
        variant_setBool(retval, record.has_value());
    });
}

int __enableSchedule(function_call_t* fcall, argument_value_list_t* args,
                     variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval, [&](const call_context_t& call) {
        std::optional<std::string> type = readText(call, "type");
        std::optional<std::string> id = readText(call, "ID");
        bool enable = readBool(call, "enable");
        variant_setBool(retval, enableSchedule(*call.service, type, id, enable));
    });
}

int __overrideSchedule(function_call_t* fcall, argument_value_list_t* args,
                       variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval, [&](const call_context_t& call) {
        std::optional<std::string> type = readText(call, "type");
        std::optional<std::string> id = readText(call, "ID");
        std::optional<std::string> state = readText(call, "override");
        variant_setBool(retval, overrideSchedule(*call.service, type, id, state));
    });
}

int __overrideState(function_call_t* fcall, argument_value_list_t* args,
                    variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval, [&](const call_context_t& call) {
        std::optional<std::string> type = readText(call, "type");
        std::optional<std::string> id = readText(call, "ID");
        std::optional<std::string> state = readText(call, "State", "state");
        variant_setBool(retval, overrideState(*call.service, type, id, state));
    });
}

namespace {

// A simulation costs time and memory in proportion to the span it covers, and
// any client may ask for one: a span longer than five years is refused.
constexpr std::int64_t kMaxSimulatedSeconds = 5LL * 366 * 86400;

bool spanTooLong(const call_context_t& call, time_t start, time_t stop) {
    if (static_cast<std::int64_t>(stop) - static_cast<std::int64_t>(start) <=
        kMaxSimulatedSeconds) {
        return false;
    }
    tolvTrace(TRACE_LEVEL_WARNING, "%s refused: a simulation covers at most five years",
              call.function);
    return true;
}

}  // namespace

int __simulateSchedule(function_call_t* fcall, argument_value_list_t* args,
                       variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval, [&](const call_context_t& call) {
        std::optional<std::string> type = readText(call, "type");
        std::optional<std::string> id = readText(call, "ID");
        time_t start = readTime(call, "start");
        time_t stop = readTime(call, "stop");
        if (spanTooLong(call, start, stop)) {
            returnLines(retval, std::nullopt);
            return;
        }
        returnLines(retval, simulateSchedule(*call.service, type, id, start, stop));
    });
}

int __simulateSchedules(function_call_t* fcall, argument_value_list_t* args,
                        variant_t* retval) noexcept {
    return serve(__func__, __LINE__, fcall, args, retval, [&](const call_context_t& call) {
        time_t start = readTime(call, "start");
        time_t stop = readTime(call, "stop");
        if (spanTooLong(call, start, stop)) {
            returnLines(retval, std::nullopt);
            return;
        }
        returnLines(retval, simulateSchedules(*call.service, start, stop));
    });
}
