// Function calls: argument readers, out-arguments, binding and calling.
#include <gtest/gtest.h>

#include <ctime>
#include <optional>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "orv/definition.h"
#include "orv/error.h"
#include "orv/function.h"
#include "orv/object.h"
#include "orv/variant.h"
#include "time_zone.h"

namespace {

argument_value_list_t makeArgs(std::vector<std::pair<std::string, variant_t>> values) {
    argument_value_list_t args;
    for (auto& [name, value] : values) {
        args.values().push_back(argument_value_t{name, std::move(value)});
    }
    return args;
}

enum class reader_t { text, boolean, uint32, list, dateTime };

// Reads "arg" with one of the readers and returns whether it succeeded and
// what it delivered, as a variant; a date-time becomes its local text, marked
// when it is daylight-saving time. The defaults are "dflt", true, 77, [] and
// 2000-01-01 00:00:00.
std::pair<bool, variant_t> readArg(reader_t reader, const argument_value_list_t& args) {
    std::optional<std::string> text;
    bool flag = false;
    std::uint32_t number = 0;
    std::optional<variant_list_t> list;
    std::optional<struct tm> time;
    switch (reader) {
        case reader_t::text:
            return {argument_getChar(&text, &args, 0, "arg", "dflt"), variant_t(*text)};
        case reader_t::boolean:
            return {argument_getBool(&flag, &args, 0, "arg", true), variant_t(flag)};
        case reader_t::uint32:
            return {argument_getUInt32(&number, &args, 0, "arg", 77), variant_t(number)};
        case reader_t::list:
            return {argument_getList(&list, &args, 0, "arg", variant_list_t{}), variant_t(*list)};
        case reader_t::dateTime:
            break;
    }
    struct tm fallback {};
    fallback.tm_mday = 1;
    fallback.tm_year = 100;
    bool ok = argument_getDateTime(&time, &args, 0, "arg", fallback);
    char buffer[40] = "";
    std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &*time);
    return {ok, variant_t(std::string(buffer) + (time->tm_isdst > 0 ? " DST" : ""))};
}

TEST(ArgumentReaders, ConvertOrFallBackToTheDefault) {
    scoped_time_zone_t zone("Europe/Berlin");
    using r = reader_t;
    const variant_t missing, dflt("dflt"), list(variant_list_t{variant_t("on")});
    const variant_t day2000("2000-01-01 00:00:00"), summer("2023-07-01 12:00:00 DST");
    const std::vector<std::tuple<reader_t, variant_t, bool, variant_t>> rows = {
        // reader, argument (empty: none), success, value delivered
        {r::text, variant_t(std::uint32_t{12}), true, variant_t("12")},
        {r::text, list, false, dflt},
        {r::text, missing, false, dflt},
        {r::boolean, variant_t("yes"), true, variant_t(true)},
        {r::boolean, variant_t(std::uint32_t{0}), true, variant_t(false)},
        {r::boolean, variant_t("maybe"), false, variant_t(true)},
        {r::uint32, variant_t(3600.0), true, variant_t(std::uint32_t{3600})},
        {r::uint32, variant_t(std::int32_t{-1}), false, variant_t(std::uint32_t{77})},
        {r::list, list, true, list},
        {r::list, variant_t("on"), false, variant_t(variant_list_t{})},
        {r::dateTime, variant_t(std::int64_t{1699923600}), true, variant_t("2023-11-14 02:00:00")},
        {r::dateTime, variant_t("2023-07-01T10:00:00Z"), true, summer},
        {r::dateTime, variant_t("2023-07-01T12:00:00"), true, summer},
        {r::dateTime, variant_t("tomorrow"), false, day2000},
        {r::dateTime, missing, false, day2000},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const auto& [reader, value, ok, expected] = rows[i];
        // A later argument of the same name never stands in for the first.
        auto args = makeArgs({{"other", variant_t("x")}});
        if (!(value == missing)) {
            args.values().push_back({"arg", value});
            args.values().push_back({"arg", variant_t("later")});
        }
        auto [read, delivered] = readArg(reader, args);
        EXPECT_EQ(read, ok) << "row " << i;
        EXPECT_EQ(delivered, expected) << "row " << i << ": " << variant_toJSON(&delivered);
    }
}

const char* const kFunctions = R"({"objects": [{"name": "Scheduler",
  "functions": [{"name": "addSchedule", "type": "bool",
                 "arguments": [{"name": "type", "type": "string"},
                               {"name": "scheduleInfo", "type": "list", "out": true}]},
                {"name": "unbound", "type": "void"}, {"name": "throws", "type": "void"},
                {"name": "refuses", "type": "void"}],
  "objects": [{"name": "Types", "template": true,
               "functions": [{"name": "unbound", "type": "void"}]}]}]})";

// What the handler saw: "object function type" per call, and the request.
std::vector<std::string> g_calls;
const request_t* g_request = nullptr;

int handler(function_call_t* call, argument_value_list_t* args, variant_t* retval) {
    const std::string& name = call->function()->name;
    std::optional<std::string> type;
    argument_getChar(&type, args, 0, "type", "none");
    g_calls.push_back(object_path(fcall_object(call), 0) + " " + name + " " + *type);
    g_request = fcall_request(call);
    if (name == "throws") {
        throw std::runtime_error("boom");
    }
    if (name == "refuses") {
        return 1;
    }
    auto out = argument_valueCreate("scheduleInfo");
    out->value = variant_t(variant_list_t{variant_t("s1")});
    argument_valuePrepend(args, std::move(out));
    variant_setBool(retval, true);
    return 0;
}

class FunctionCall : public ::testing::Test {
  protected:
    void SetUp() override {
        g_calls.clear();
        auto error = model.load(kFunctions);
        ASSERT_FALSE(error.has_value()) << *error;
        missing = function_bindAll(model.definitions()[0].get(), [](const std::string& name) {
            return name == "unbound" ? nullptr : &handler;
        });
        scheduler = model.root()->child("Scheduler");
    }

    datamodel_t model;
    std::vector<std::string> missing;
    object_t* scheduler = nullptr;
};

TEST_F(FunctionCall, CallsTheBoundHandlerWhichPrependsOutArguments) {
    EXPECT_EQ(missing, (std::vector<std::string>{"unbound"}));  // once, for both objects
    auto args = makeArgs({{"type", variant_t("Light")}});
    variant_t retval;
    const auto* request = reinterpret_cast<const request_t*>(&g_calls);
    ASSERT_TRUE(object_callFunction(scheduler, "addSchedule", &args, &retval, request));
    EXPECT_EQ(g_calls, (std::vector<std::string>{"Scheduler addSchedule Light"}));
    EXPECT_EQ(g_request, request);
    EXPECT_EQ(retval, variant_t(true));
    ASSERT_EQ(llist_size(&args), 2u);
    EXPECT_EQ(args.values().front().name, "scheduleInfo");
    EXPECT_EQ(args.values().front().value, variant_t(variant_list_t{variant_t("s1")}));
}

TEST_F(FunctionCall, FailedCallsLeaveResultAndArgumentsAlone) {
    const std::vector<std::tuple<object_t*, const char*, std::uint32_t>> rows = {
        // object, function, error (none: the handler ran and failed)
        {scheduler, "unbound", orv_error_not_supported},
        {scheduler, "nothing", orv_error_not_found},
        {model.root(), "addSchedule", orv_error_not_found},
        {nullptr, "addSchedule", orv_error_invalid_argument},
        {scheduler, "throws", orv_error_none},
        {scheduler, "refuses", orv_error_none},
    };
    for (const auto& [object, function, error] : rows) {
        auto args = makeArgs({{"type", variant_t("Light")}});
        variant_t retval("unchanged");
        orv_setError(orv_error_none);
        EXPECT_FALSE(object_callFunction(object, function, &args, &retval, nullptr)) << function;
        EXPECT_EQ(orv_error(), error) << function;
        EXPECT_EQ(retval, variant_t("unchanged")) << function;
        EXPECT_EQ(llist_size(&args), 1u) << function;
    }
    EXPECT_EQ(g_calls,
              (std::vector<std::string>{"Scheduler throws Light", "Scheduler refuses Light"}));
}

}  // namespace
