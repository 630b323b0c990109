#include "bus_inputs.h"

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "bus_session.h"
#include "fuzz_support.h"
#include "orv/variant.h"
#include "orv/variant_map.h"

namespace fuzz {

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

    // Up to three values that make() draws, after their count.
    template <typename Make>
    variant_t list(Make make) {
        variant_list_t list;
        const int count = in_.ConsumeIntegralInRange(0, 3);
        for (int i = 0; i < count; ++i) {
            list.push_back(make());
        }
        return variant_t(std::move(list));
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
            case arg_t::schedules:
                return list([this] { return source_.schedule(); });
            case arg_t::info:
                return source_.schedule();
            case arg_t::id:
                return text({"a", "b"});
            case arg_t::ids:
                return list([this] { return text({"a", "b"}); });
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
    value_source_t source_;
};

// The host's setup from the flag byte and the start time drawn after it.
setup_t setupOf(std::uint8_t flags, FuzzedDataProvider& in) {
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
    return setup;
}

}  // namespace

void runProgram(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    const auto flags = in.ConsumeIntegral<std::uint8_t>();
    runHost(setupOf(flags, in), [&](session_t& session) {
        run_t run(in, session);
        for (int step = 0; step < 48 && in.remaining_bytes() > 0; ++step) {
            run.step();
        }
    });
}

}  // namespace fuzz
