// The frame of every bus-function handler: the call's context, the readers
// of its named arguments, the bounds on what a client may send, and serve,
// which runs a handler's body so that nothing leaves it.
#pragma once

#include <ctime>
#include <exception>
#include <memory>
#include <optional>
#include <string>

#include "orv/function.h"
#include "orv/trace.h"
#include "orv/variant.h"
#include "outcome.h"
#include "scheduler_plugin_common.h"
#include "service.h"

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

// Thrown by the readers when an argument is there but does not convert to
// the reader's type. Treating it as absent would turn a client's mistake
// into a default, such as "remove every schedule" or "disable", so the whole
// call is refused instead.
struct argument_refused_t {
    std::string reason;
};

call_context_t beginCall(function_call_t* call, argument_value_list_t* args, const char* function,
                         int line);
// The readers hand on an absent argument as none, traced; an argument of
// the wrong type refuses the call (argument_refused_t). label is the name
// the trace uses; it differs from name for "State".
std::optional<std::string> readText(const call_context_t& call, const char* name,
                                    const char* label);
std::optional<std::string> readText(const call_context_t& call, const char* name);
std::optional<variant_list_t> readList(const call_context_t& call, const char* name);
std::optional<bool> readBool(const call_context_t& call, const char* name);
std::optional<std::uint32_t> readCount(const call_context_t& call, const char* name);
// A date-time argument as seconds since the epoch; 0 when absent.
std::optional<time_t> readTime(const call_context_t& call, const char* name);
std::unique_ptr<schedule_t> readSchedule(const call_context_t& call);
// The simulations answer with their lines; without a list, with none.
void returnLines(variant_t* retval, std::optional<variant_list_t> lines);
// Puts an out-argument in front of the arguments.
void prependOut(argument_value_list_t* args, const char* name, variant_t value);
variant_t listVariant(variant_list_t* list);
// A refused call is answered like any failed one, false or an empty list
// for the functions that return one, and carries the reason as the
// out-argument "error".
void refuse(const function_call_t* fcall, argument_value_list_t* args, variant_t* retval,
            const std::string& reason);
// The answer of an operation: its outcome as the return value, and the
// reason of a refusal as "error".
void answer(argument_value_list_t* args, variant_t* retval, const outcome_t& outcome);
// The reason the arguments break a bound, or null.
const char* argumentsOverLimit(const argument_value_list_t* args);
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
            tolvTrace(TRACE_LEVEL_WARNING, "%s refused: the scheduler is not running", function);
            refuse(fcall, args, retval, "the scheduler is not running");
        } else if (const char* reason = argumentsOverLimit(args)) {
            tolvTrace(TRACE_LEVEL_WARNING, "%s refused: %s", function, reason);
            refuse(fcall, args, retval, reason);
        } else {
            body(call);
        }
    } catch (const argument_refused_t& refused) {
        refuse(fcall, args, retval, refused.reason);
    } catch (const std::exception& e) {
        tolvTrace(TRACE_LEVEL_WARNING, "%s failed: %s", function, e.what());
    } catch (...) {
        tolvTrace(TRACE_LEVEL_WARNING, "%s failed", function);
    }
    return 0;
}
