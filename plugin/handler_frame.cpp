#include "handler_frame.h"

#include "orv/request.h"
#include "orv/variant_list.h"
#include "scheduler_plugin.h"

call_context_t beginCall(function_call_t* call, argument_value_list_t* args, const char* function,
                         int line) {
    tolvTrace_zoneMessage(TRACE_LEVEL_INFO, ME, function, __FILE__, line, "Number of arguments %d",
                          static_cast<int>(llist_size(args)));
    return {scheduler_service(), request_attributes(fcall_request(call)), args, function, line};
}

namespace {

// A reader found nothing usable under name: absent is traced and handed on
// as none, present with the wrong type refuses the call.
void traceMissing(const call_context_t& call, const char* name, const char* label,
                  const char* fallback) {
    if (argument_valueByName(call.args, name) != nullptr) {
        tolvTrace_message(TRACE_LEVEL_WARNING, TOLV_TRACE_MODULE, call.function, __FILE__,
                          call.line, "Named parameter %s has the wrong type", label);
        throw argument_refused_t{std::string("'") + label + "' has the wrong type"};
    }
    // An optional argument left out is an ordinary call.
    tolvTrace_zoneMessage(TRACE_LEVEL_INFO, ME, call.function, __FILE__, call.line,
                          "Named parameter %s not found, using default value %s", label, fallback);
}

}  // namespace

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

std::optional<std::uint32_t> readCount(const call_context_t& call, const char* name) {
    std::uint32_t value = 0;
    if (!argument_getUInt32(&value, call.args, call.attributes, name, 0)) {
        traceMissing(call, name, name, "none");
        return std::nullopt;
    }
    return value;
}

std::optional<variant_list_t> readList(const call_context_t& call, const char* name) {
    std::optional<variant_list_t> value;
    if (!argument_getList(&value, call.args, call.attributes, name, std::nullopt)) {
        traceMissing(call, name, name, "NULL");
    }
    return value;
}

std::optional<bool> readBool(const call_context_t& call, const char* name) {
    bool value = false;
    if (!argument_getBool(&value, call.args, call.attributes, name, false)) {
        traceMissing(call, name, name, "none");
        return std::nullopt;
    }
    return value;
}

// A date-time argument as seconds since the epoch; nullopt when absent.
std::optional<time_t> readTime(const call_context_t& call, const char* name) {
    std::optional<struct tm> value;
    if (!argument_getDateTime(&value, call.args, call.attributes, name, std::nullopt) || !value) {
        traceMissing(call, name, name, "NULL");
        return std::nullopt;
    }
    return mktime(&*value);
}

// The simulations answer with their lines; without a list, with none.
void returnLines(variant_t* retval, std::optional<variant_list_t> lines) {
    variant_list_t list = lines ? std::move(*lines) : variant_list_t{};
    tolvTraceZ(TRACE_LEVEL_INFO, ME, "returning %d elements", static_cast<int>(list.size()));
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

namespace {

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

}  // namespace

// A refused call is answered like any failed one: false, or an empty list
// for the functions that return one.
void refuse(const function_call_t* fcall, argument_value_list_t* args, variant_t* retval,
            const std::string& reason) {
    const function_definition_t* definition = fcall->function();
    if (definition != nullptr && definition->returnType == variant_type_array) {
        variant_list_t none;
        variant_setListMove(retval, &none);
    } else {
        variant_setBool(retval, false);
    }
    prependOut(args, "error", variant_t(reason));
}

void answer(argument_value_list_t* args, variant_t* retval, const outcome_t& outcome) {
    variant_setBool(retval, outcome.ok());
    if (!outcome.ok()) {
        prependOut(args, "error", variant_t(outcome.reason()));
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
