// Guards the bus functions of Scheduler against any sequence of calls with
// any named arguments, as a client on the bus could send them. Each input
// runs the real plug-in in a fresh virtual host: a program of calls (with
// arguments built from the usual vocabulary mixed with arbitrary values, or
// raw JSON text), clock moves that let timers fire and changes go out, and
// moves of the Time service and the client objects.
//
// After each step nothing may have reached a client before the clock was
// synchronised; after the program the service must still answer, its
// schedule lists must match its data model, and no enabled schedule with a
// change ahead may show a next change in the past.
//
// An input that starts with the line "script" is a readable program, one
// action a line (see runScript); the seeds are written that way. Any other
// input is a byte program drawn through FuzzedDataProvider.
#include <dlfcn.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz_support.h"
#include "orv/object.h"
#include "orv/trace.h"
#include "orv/variant.h"
#include "orv/variant_map.h"
#include "virtual_host.h"

namespace {

enum class arg_t { type, path, states, schedules, info, id, ids, flag, state, time, out };

struct function_t {
    const char* name;
    std::vector<std::pair<const char*, arg_t>> arguments;
};

const std::vector<function_t>& functions() {
    static const std::vector<function_t> table = {
        {"registerScheduleType",
         {{"type", arg_t::type},
          {"path", arg_t::path},
          {"states", arg_t::states},
          {"schedules", arg_t::schedules}}},
        {"unregisterScheduleType", {{"type", arg_t::type}}},
        {"addSchedule", {{"type", arg_t::type}, {"info", arg_t::info}}},
        {"removeSchedules", {{"type", arg_t::type}, {"ID", arg_t::ids}}},
        {"getScheduleTypes", {{"types", arg_t::out}}},
        {"getSchedules", {{"type", arg_t::type}, {"scheduleInfo", arg_t::out}}},
        {"getCompleteSchedules", {{"type", arg_t::type}, {"scheduleInfo", arg_t::out}}},
        {"getSchedule", {{"type", arg_t::type}, {"ID", arg_t::id}, {"scheduleInfo", arg_t::out}}},
        {"enableSchedule", {{"type", arg_t::type}, {"ID", arg_t::id}, {"enable", arg_t::flag}}},
        {"overrideSchedule",
         {{"type", arg_t::type}, {"ID", arg_t::id}, {"override", arg_t::state}}},
        {"overrideState", {{"type", arg_t::type}, {"ID", arg_t::id}, {"State", arg_t::state}}},
        {"simulateSchedule",
         {{"type", arg_t::type}, {"ID", arg_t::id}, {"start", arg_t::time}, {"stop", arg_t::time}}},
        {"simulateSchedules", {{"start", arg_t::time}, {"stop", arg_t::time}}},
    };
    return table;
}

// Start times: an ordinary day, daylight-saving switches in Europe, the end
// of a leap February, the end of a year, and just before the end of 32-bit
// time.
constexpr std::int64_t kStarts[] = {1700000000, 1711839600, 1729987200,
                                    1709164800, 1704067199, 2147483000};

// The notifications of the Time service that make the plug-in recompute.
constexpr std::uint32_t kTimeNotifications[] = {926, 927, 928, 1, 4};

const char* const kClients[] = {"Device.Light", "Device.Fan"};

// The actions both input forms take, and the check made after each one.
class session_t {
  public:
    session_t(virtual_host_t& host, bool synchronized, bool timePublished)
        : host_(host), synchronized_(synchronized), timePublished_(timePublished) {}

    virtual_host_t& host() { return host_; }
    bool synchronized() const { return synchronized_; }

    void call(const std::string& function, std::string_view json) {
        try {
            host_.call(function, json);
        } catch (const std::invalid_argument&) {
            // Not a JSON object: no call is made.
        }
        afterStep();
    }

    void advanceMs(std::int64_t milliseconds) {
        host_.advanceMs(std::clamp<std::int64_t>(milliseconds, 0, kMaxAdvanceMs));
        afterStep();
    }

    // Publishes "Time" with that status the first time, then changes it.
    void timeStatus(std::string_view status) {
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

    void notifyTime(std::vector<std::uint32_t> types) {
        host_.emitTime(std::move(types));
        afterStep();
    }

    // The Time service announces every clock change it makes.
    void setClock(std::int64_t delta) {
        host_.setClock(host_.now() +
                       std::clamp<std::int64_t>(delta, -kMaxClockJump, kMaxClockJump));
        host_.emitTime({926});
        afterStep();
    }

    void client(std::string_view path, bool add) {
        if (add) {
            host_.addClient(path);
        } else {
            host_.removeClient(path);
        }
        afterStep();
    }

  private:
    static constexpr std::int64_t kMaxAdvanceMs = std::int64_t{864000} * 1000;
    static constexpr std::int64_t kMaxClockJump = std::int64_t{400} * 86400;

    void afterStep() {
        if (!synchronized_) {
            FUZZ_REQUIRE(host_.setStateCalls().empty());
        }
    }

    virtual_host_t& host_;
    bool synchronized_;
    bool timePublished_;
};

// The byte program: each step draws an action and its arguments.
class run_t {
  public:
    run_t(FuzzedDataProvider& in, session_t& session)
        : in_(in), session_(session), source_(in, session.host().now()) {}

    void step() {
        source_.setNow(session_.host().now());
        switch (in_.ConsumeIntegralInRange(0, 9)) {
            case 5:
                callRaw();
                break;
            case 6:
                advance();
                break;
            case 7:
                timeService();
                break;
            case 8:
                session_.client(kClients[in_.ConsumeIntegralInRange(0, 1)], in_.ConsumeBool());
                break;
            case 9:
                session_.setClock(in_.ConsumeIntegralInRange(-86400, 86400));
                break;
            default:
                callGenerated();
                break;
        }
    }

  private:
    variant_t text(std::initializer_list<const char*> words) {
        if (source_.oneIn(6)) {
            return variant_t(source_.text());
        }
        const std::size_t index = in_.ConsumeIntegralInRange<std::size_t>(0, words.size() - 1);
        return variant_t(*(words.begin() + index));
    }

    // A date-time as the bus takes it: ISO text in UTC or local time, or
    // seconds; within ten days of the clock.
    variant_t time() {
        const std::int64_t t = session_.host().now() + in_.ConsumeIntegralInRange(-86400, 864000);
        std::string iso = orv_isoTime(t);
        switch (in_.ConsumeIntegralInRange(0, 3)) {
            case 0:
                return variant_t(iso);
            case 1:
                iso.pop_back();
                return variant_t(iso);
            case 2:
                return variant_t(t);
            default:
                return source_.number();
        }
    }

    variant_t value(arg_t kind) {
        if (source_.oneIn(16)) {
            return source_.anyValue(2);
        }
        switch (kind) {
            case arg_t::type:
                return text({"Light", "Fan"});
            case arg_t::path:
                return text({"Device.Light", "Device.Fan", "Scheduler", "Time"});
            case arg_t::states:
                return source_.oneIn(3)
                           ? source_.states()
                           : variant_t(variant_list_t{variant_t("on"), variant_t("off")});
            case arg_t::schedules: {
                variant_list_t list;
                const int count = in_.ConsumeIntegralInRange(0, 3);
                for (int i = 0; i < count; ++i) {
                    list.push_back(source_.schedule());
                }
                return variant_t(std::move(list));
            }
            case arg_t::info:
                return source_.schedule();
            case arg_t::id:
                return text({"a", "b"});
            case arg_t::ids: {
                variant_list_t list;
                const int count = in_.ConsumeIntegralInRange(0, 3);
                for (int i = 0; i < count; ++i) {
                    list.push_back(text({"a", "b"}));
                }
                return variant_t(std::move(list));
            }
            case arg_t::flag:
                return variant_t(in_.ConsumeBool());
            case arg_t::state:
                return text({"on", "off", ""});
            case arg_t::time:
                return time();
            case arg_t::out:
                return source_.anyValue(1);
        }
        return variant_t();
    }

    const function_t& function() {
        return functions()[in_.ConsumeIntegralInRange<std::size_t>(0, functions().size() - 1)];
    }

    void callGenerated() {
        const function_t& chosen = function();
        variant_map_t arguments;
        for (const auto& [name, kind] : chosen.arguments) {
            if (source_.oneIn(10)) {
                continue;
            }
            variant_t argument = value(kind);
            variant_map_add(&arguments, name, &argument);
        }
        if (source_.oneIn(8)) {
            variant_t extra = source_.anyValue(1);
            variant_map_add(&arguments, source_.text(), &extra);
        }
        const variant_t map(std::move(arguments));
        session_.call(chosen.name, variant_toJSON(&map));
    }

    // Arguments that are not built by this program at all: nesting, sizes and
    // kinds that only the bus limits and the JSON parser see.
    void callRaw() {
        const function_t& chosen = function();
        session_.call(chosen.name, in_.ConsumeRandomLengthString(1024));
    }

    void advance() {
        static constexpr std::int64_t kScales[] = {1, 1000, 60000, 3600000, 86400000, 864000000};
        const std::int64_t scale =
            kScales[in_.ConsumeIntegralInRange<std::size_t>(0, std::size(kScales) - 1)];
        session_.advanceMs(in_.ConsumeIntegralInRange<std::int64_t>(0, scale));
    }

    void timeService() {
        if (in_.ConsumeBool()) {
            const char* status = in_.ConsumeBool()   ? "Synchronized"
                                 : in_.ConsumeBool() ? "Unsynchronized"
                                                     : "Error";
            session_.timeStatus(status);
            return;
        }
        std::vector<std::uint32_t> types;
        const int count = in_.ConsumeIntegralInRange(1, 3);
        for (int i = 0; i < count; ++i) {
            types.push_back(kTimeNotifications[in_.ConsumeIntegralInRange<std::size_t>(
                0, std::size(kTimeNotifications) - 1)]);
        }
        session_.notifyTime(std::move(types));
    }

    FuzzedDataProvider& in_;
    session_t& session_;
    fuzz::value_source_t source_;
};

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

// Zones with daylight-saving time, one of them with a 30-minute shift.
constexpr const char* kZones[] = {"UTC", "Europe/Berlin", "Australia/Lord_Howe"};

void useZone(const char* zone) {
    static std::string current;
    if (current != zone) {
        current = zone;
        setenv("TZ", zone, 1);
        tzset();
    }
}

// What a host starts with.
struct setup_t {
    std::int64_t start = kStarts[0];
    const char* zone = kZones[0];
    bool verbose = false;
    std::optional<std::string> timeStatus = "Synchronized";
    std::vector<const char*> clients;
};

// Runs the actions on a fresh host made from the setup, then checks the
// service and shuts the host down, so that the next input finds the plug-in
// cleaned up.
template <typename Actions>
void runHost(const setup_t& setup, Actions&& actions) {
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
        tolvTraceSetSink([](std::string_view) {});
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

std::optional<std::int64_t> number(std::string_view text) {
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

// Splits off the first word of text.
std::string_view firstWord(std::string_view* text) {
    const std::size_t space = text->find(' ');
    std::string_view word = text->substr(0, space);
    text->remove_prefix(space == std::string_view::npos ? text->size() : space + 1);
    return word;
}

// The readable program, one line each:
//   start SECONDS | zone NAME | time STATUS|none | trace   (the host's setup)
//   client add|remove PATH        call FUNCTION JSON      advance MILLISECONDS
//   status TEXT                   notify TYPE...          clock DELTA_SECONDS
// Setup lines count wherever they stand; unknown lines are skipped.
void runScript(std::string_view script) {
    std::vector<std::string_view> lines;
    while (!script.empty() && lines.size() < 64) {
        const std::size_t newline = script.find('\n');
        lines.push_back(script.substr(0, newline));
        script.remove_prefix(newline == std::string_view::npos ? script.size() : newline + 1);
    }
    setup_t setup;
    for (std::string_view line : lines) {
        const std::string_view word = firstWord(&line);
        if (word == "start") {
            setup.start = std::clamp<std::int64_t>(number(line).value_or(setup.start), 0,
                                                   std::int64_t{4} << 32);
        } else if (word == "zone") {
            for (const char* zone : kZones) {
                setup.zone = line == zone ? zone : setup.zone;
            }
        } else if (word == "time") {
            setup.timeStatus = line == "none" ? std::nullopt : std::optional<std::string>(line);
        } else if (word == "trace") {
            setup.verbose = true;
        }
    }
    runHost(setup, [&](session_t& session) {
        for (std::string_view line : lines) {
            const std::string_view word = firstWord(&line);
            if (word == "client") {
                // Clients live under "Device", away from the objects the
                // virtual host itself provides.
                const std::string_view how = firstWord(&line);
                if (line.substr(0, 7) == "Device.") {
                    session.client(line, how == "add");
                }
            } else if (word == "call") {
                const std::string function(firstWord(&line));
                session.call(function, line);
            } else if (word == "advance") {
                session.advanceMs(number(line).value_or(0));
            } else if (word == "status") {
                session.timeStatus(line);
            } else if (word == "notify") {
                std::vector<std::uint32_t> types;
                while (!line.empty()) {
                    types.push_back(
                        static_cast<std::uint32_t>(number(firstWord(&line)).value_or(0)));
                }
                session.notifyTime(std::move(types));
            } else if (word == "clock") {
                session.setClock(number(line).value_or(0));
            }
        }
    });
}

void runProgram(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    const auto flags = in.ConsumeIntegral<std::uint8_t>();
    setup_t setup;
    setup.verbose = (flags & 0x01) != 0;
    setup.zone = kZones[(((flags >> 1) & 0x01) | ((flags >> 5) & 0x02)) % std::size(kZones)];
    setup.start = kStarts[in.ConsumeIntegralInRange<std::size_t>(0, std::size(kStarts) - 1)] +
                  in.ConsumeIntegralInRange(0, 7200);
    switch ((flags >> 2) & 0x03) {
        case 2:
            setup.timeStatus = "Unsynchronized";
            break;
        case 3:
            setup.timeStatus = std::nullopt;
            break;
        default:
            break;
    }
    for (std::size_t i = 0; i < 2; ++i) {
        if ((flags & (0x10 << i)) != 0) {
            setup.clients.push_back(kClients[i]);
        }
    }
    runHost(setup, [&](session_t& session) {
        run_t run(in, session);
        for (int step = 0; step < 48 && in.remaining_bytes() > 0; ++step) {
            run.step();
        }
    });
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // Each host loads and unloads the plug-in. Unloading would unmap the
    // coverage counters that libFuzzer reads after every input, so one
    // reference is held for the whole run. The plug-in's state lives on
    // between hosts only as far as its clean-up leaves it.
    if (dlopen(SCHEDULER_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE) == nullptr) {
        std::fprintf(stderr, "cannot load the plug-in: %s\n", dlerror());
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::string_view kScript = "script\n";
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (text.substr(0, kScript.size()) == kScript) {
        runScript(text.substr(kScript.size()));
    } else {
        runProgram(data, size);
    }
    return 0;
}
