// Function calls: argument readers, out-arguments, binding and calling.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "orv/definition.h"
#include "orv/error.h"
#include "orv/function.h"
#include "orv/object.h"
#include "orv/variant.h"

namespace {

argument_value_list_t makeArgs(std::vector<std::pair<std::string, variant_t>> values) {
    argument_value_list_t args;
    for (auto& [name, value] : values) {
        args.values().push_back(argument_value_t{name, std::move(value)});
    }
    return args;
}

TEST(ArgumentReaders, GetCharConvertsAndFallsBackToTheDefault) {
    auto args = makeArgs({{"type", variant_t("Light")},
                          {"number", variant_t(std::uint32_t{12})},
                          {"type", variant_t("Second")},
                          {"list", variant_t(variant_list_t{})}});
    std::optional<std::string> value;
    EXPECT_TRUE(argument_getChar(&value, &args, 0, "type", std::nullopt));
    EXPECT_EQ(value, "Light");  // the first argument of that name
    EXPECT_TRUE(argument_getChar(&value, &args, 0, "number", std::nullopt));
    EXPECT_EQ(value, "12");
    EXPECT_FALSE(argument_getChar(&value, &args, 0, "missing", std::string("dflt")));
    EXPECT_EQ(value, "dflt");
    EXPECT_FALSE(argument_getChar(&value, &args, 0, "list", std::nullopt));
    EXPECT_EQ(value, std::nullopt);
    EXPECT_FALSE(argument_getChar(&value, nullptr, 0, "type", std::nullopt));
    EXPECT_EQ(value, std::nullopt);
}

TEST(ArgumentReaders, GetBoolConvertsAndFallsBackToTheDefault) {
    auto args = makeArgs({{"a", variant_t(true)},
                          {"b", variant_t("yes")},
                          {"c", variant_t(std::uint32_t{0})},
                          {"d", variant_t("maybe")}});
    bool value = false;
    EXPECT_TRUE(argument_getBool(&value, &args, 0, "a", false));
    EXPECT_TRUE(value);
    value = false;
    EXPECT_TRUE(argument_getBool(&value, &args, 0, "b", false));
    EXPECT_TRUE(value);
    EXPECT_TRUE(argument_getBool(&value, &args, 0, "c", true));
    EXPECT_FALSE(value);
    EXPECT_FALSE(argument_getBool(&value, &args, 0, "d", true));
    EXPECT_TRUE(value);
    EXPECT_FALSE(argument_getBool(&value, &args, 0, "missing", false));
    EXPECT_FALSE(value);
}

TEST(ArgumentReaders, GetUInt32AcceptsWholeNumbersOfAnyKind) {
    struct row_t {
        const char* note;
        variant_t value;
        bool ok;
        std::uint32_t expected;
    };
    std::vector<row_t> rows;
    rows.push_back({"uint32", variant_t(std::uint32_t{3600}), true, 3600});
    rows.push_back({"int32", variant_t(std::int32_t{3600}), true, 3600});
    rows.push_back({"int64", variant_t(std::int64_t{3600}), true, 3600});
    rows.push_back({"uint64", variant_t(std::uint64_t{3600}), true, 3600});
    rows.push_back({"whole double", variant_t(3600.0), true, 3600});
    rows.push_back({"text", variant_t("3600"), true, 3600});
    rows.push_back({"zero", variant_t(std::int32_t{0}), true, 0});
    rows.push_back({"fraction", variant_t(3600.5), false, 77});
    rows.push_back({"negative int32", variant_t(std::int32_t{-1}), false, 77});
    rows.push_back({"negative int64", variant_t(std::int64_t{-3600}), false, 77});
    rows.push_back({"negative double", variant_t(-1.0), false, 77});
    rows.push_back({"too large", variant_t(std::uint64_t{1} << 32), false, 77});
    rows.push_back({"text not a number", variant_t("x"), false, 77});
    rows.push_back({"text with a fraction", variant_t("1.5"), false, 77});
    rows.push_back({"list", variant_t(variant_list_t{}), false, 77});
    for (auto& row : rows) {
        SCOPED_TRACE(row.note);
        argument_value_list_t args;
        args.values().push_back(argument_value_t{"begin", row.value});
        std::uint32_t value = 1;
        EXPECT_EQ(argument_getUInt32(&value, &args, 0, "begin", 77), row.ok);
        EXPECT_EQ(value, row.expected);
    }
    argument_value_list_t empty;
    std::uint32_t value = 1;
    EXPECT_FALSE(argument_getUInt32(&value, &empty, 0, "begin", 77));
    EXPECT_EQ(value, 77u);
}

TEST(ArgumentReaders, GetListAcceptsOnlyLists) {
    variant_list_t states{variant_t("on"), variant_t("off")};
    variant_map_t map;
    map.push_back(variant_map_entry_t{"k", variant_t("v")});
    auto args = makeArgs(
        {{"states", variant_t(states)}, {"map", variant_t(map)}, {"text", variant_t("on,off")}});
    std::optional<variant_list_t> value;
    EXPECT_TRUE(argument_getList(&value, &args, 0, "states", std::nullopt));
    ASSERT_TRUE(value.has_value());
    EXPECT_EQ(variant_t(*value), variant_t(states));
    // A copy: the argument keeps its list.
    EXPECT_EQ(args.values().front().value, variant_t(states));
    EXPECT_FALSE(argument_getList(&value, &args, 0, "map", std::nullopt));
    EXPECT_EQ(value, std::nullopt);
    EXPECT_FALSE(argument_getList(&value, &args, 0, "text", std::nullopt));
    EXPECT_FALSE(argument_getList(&value, &args, 0, "missing", variant_list_t{variant_t("x")}));
    ASSERT_TRUE(value.has_value());
    EXPECT_EQ(value->size(), 1u);
}

class ArgumentDateTime : public ::testing::Test {
  protected:
    void SetUp() override {
        setenv("TZ", "Europe/Berlin", 1);
        tzset();
    }
    void TearDown() override {
        setenv("TZ", "UTC", 1);
        tzset();
    }
};

TEST_F(ArgumentDateTime, GetDateTimeDeliversALocalBrokenDownTime) {
    auto args = makeArgs({{"winter", variant_t(std::int64_t{1699923600})},
                          {"iso", variant_t("2023-07-01T10:00:00Z")},
                          {"local", variant_t("2023-07-01T12:00:00")},
                          {"dt", variant_t::dateTime(1699923600)},
                          {"bad", variant_t("tomorrow")},
                          {"fraction", variant_t(1.5)}});
    std::optional<struct tm> value;
    ASSERT_TRUE(argument_getDateTime(&value, &args, 0, "winter", std::nullopt));
    ASSERT_TRUE(value.has_value());
    EXPECT_EQ(value->tm_year, 123);
    EXPECT_EQ(value->tm_mon, 10);
    EXPECT_EQ(value->tm_mday, 14);
    EXPECT_EQ(value->tm_hour, 2);  // CET
    EXPECT_EQ(value->tm_isdst, 0);

    ASSERT_TRUE(argument_getDateTime(&value, &args, 0, "iso", std::nullopt));
    EXPECT_EQ(value->tm_hour, 12);  // CEST
    EXPECT_EQ(value->tm_isdst, 1);
    struct tm copy = *value;
    EXPECT_EQ(mktime(&copy), 1688205600);

    ASSERT_TRUE(argument_getDateTime(&value, &args, 0, "local", std::nullopt));
    EXPECT_EQ(value->tm_hour, 12);
    copy = *value;
    EXPECT_EQ(mktime(&copy), 1688205600);

    ASSERT_TRUE(argument_getDateTime(&value, &args, 0, "dt", std::nullopt));
    EXPECT_EQ(value->tm_hour, 2);

    EXPECT_FALSE(argument_getDateTime(&value, &args, 0, "bad", std::nullopt));
    EXPECT_EQ(value, std::nullopt);
    EXPECT_FALSE(argument_getDateTime(&value, &args, 0, "fraction", std::nullopt));
    struct tm fallback {};
    fallback.tm_year = 100;
    EXPECT_FALSE(argument_getDateTime(&value, &args, 0, "missing", fallback));
    ASSERT_TRUE(value.has_value());
    EXPECT_EQ(value->tm_year, 100);
}

TEST(ArgumentValues, GetFindsWithoutConverting) {
    auto args = makeArgs({{"info", variant_t(std::uint32_t{1})}, {"info", variant_t("2")}});
    argument_value_t* found = nullptr;
    ASSERT_TRUE(argument_get(&found, &args, 0, "info"));
    EXPECT_EQ(found, &args.values().front());
    variant_t* value = argument_value(found);
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(*value, variant_t(std::uint32_t{1}));
    variant_setChar(value, "changed");
    EXPECT_EQ(args.values().front().value, variant_t("changed"));
    EXPECT_FALSE(argument_get(&found, &args, 0, "missing"));
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(argument_value(nullptr), nullptr);
    EXPECT_EQ(argument_valueByName(&args, "info"), &args.values().front());
    EXPECT_EQ(argument_valueByName(&args, "missing"), nullptr);
}

TEST(ArgumentValues, OutArgumentsArePrependedAndDestroyed) {
    auto args = makeArgs({{"type", variant_t("Light")}});
    EXPECT_EQ(llist_size(&args), 1u);
    auto created = argument_valueCreate("scheduleInfo");
    EXPECT_EQ(created->name, "scheduleInfo");
    EXPECT_EQ(created->value.type(), variant_type_unknown);
    variant_initialize(&created->value, variant_type_array);
    argument_value_t* placed = argument_valuePrepend(&args, std::move(created));
    ASSERT_NE(placed, nullptr);
    EXPECT_EQ(placed, &args.values().front());
    EXPECT_EQ(placed->name, "scheduleInfo");
    auto second = argument_valueCreate("count");
    variant_setUInt32(&second->value, 2);
    argument_valuePrepend(&args, std::move(second));
    ASSERT_EQ(llist_size(&args), 3u);
    std::vector<std::string> names;
    for (const auto& v : args.values()) {
        names.push_back(v.name);
    }
    EXPECT_EQ(names, (std::vector<std::string>{"count", "scheduleInfo", "type"}));

    argument_valueDestroy(&args, argument_valueByName(&args, "scheduleInfo"));
    EXPECT_EQ(llist_size(&args), 2u);
    EXPECT_EQ(argument_valueByName(&args, "scheduleInfo"), nullptr);
    argument_valueDestroy(&args, nullptr);
    EXPECT_EQ(llist_size(&args), 2u);
    EXPECT_EQ(argument_valuePrepend(&args, nullptr), nullptr);
    EXPECT_EQ(llist_size(nullptr), 0u);
}

// ------------------------------------------------------ binding and calling

const char* const kFunctions = R"({
  "objects": [
    { "name": "Scheduler",
      "functions": [ { "name": "addSchedule", "type": "bool",
                       "arguments": [ { "name": "type", "type": "string" },
                                      { "name": "scheduleInfo", "type": "list", "out": true } ] },
                     { "name": "unbound", "type": "void" },
                     { "name": "throws", "type": "void" },
                     { "name": "refuses", "type": "void" } ],
      "objects": [ { "name": "Types", "template": true,
                     "functions": [ { "name": "describe", "type": "string" },
                                    { "name": "unbound", "type": "void" } ] } ] }
  ]
})";

struct call_record_t {
    object_t* object = nullptr;
    const request_t* request = nullptr;
    const function_definition_t* function = nullptr;
    std::optional<std::string> type;
    int calls = 0;
};
call_record_t g_call;

int addScheduleHandler(function_call_t* call, argument_value_list_t* args, variant_t* retval) {
    ++g_call.calls;
    g_call.object = fcall_object(call);
    g_call.request = fcall_request(call);
    g_call.function = call->function();
    argument_getChar(&g_call.type, args, 0, "type", std::nullopt);
    auto out = argument_valueCreate("scheduleInfo");
    variant_list_t list{variant_t("s1")};
    variant_setListMove(&out->value, &list);
    argument_valuePrepend(args, std::move(out));
    variant_setBool(retval, true);
    return 0;
}

int describeHandler(function_call_t* call, argument_value_list_t*, variant_t* retval) {
    variant_setChar(retval, object_path(fcall_object(call), 0));
    return 0;
}

int throwingHandler(function_call_t*, argument_value_list_t*, variant_t*) {
    throw std::runtime_error("boom");
}

int refusingHandler(function_call_t*, argument_value_list_t*, variant_t*) {
    return 1;
}

class FunctionCall : public ::testing::Test {
  protected:
    void SetUp() override {
        g_call = call_record_t{};
        auto error = model.load(kFunctions);
        ASSERT_FALSE(error.has_value()) << *error;
        std::map<std::string, function_handler_t> handlers = {
            {"addSchedule", addScheduleHandler},
            {"describe", describeHandler},
            {"throws", throwingHandler},
            {"refuses", refusingHandler},
        };
        missing = function_bindAll(model.definitions()[0].get(),
                                   [&](const std::string& name) -> function_handler_t {
                                       auto it = handlers.find(name);
                                       return it == handlers.end() ? nullptr : it->second;
                                   });
        bool match = false;
        scheduler = object_getObject(model.root(), "Scheduler", 0, &match);
        types = object_getObject(model.root(), "Scheduler.Types", 0, &match);
    }

    datamodel_t model;
    std::vector<std::string> missing;
    object_t* scheduler = nullptr;
    object_t* types = nullptr;
};

TEST_F(FunctionCall, BindAllReportsFunctionsWithoutHandler) {
    EXPECT_EQ(missing, (std::vector<std::string>{"unbound"}));
    const object_definition_t* root = model.definitions()[0].get();
    EXPECT_EQ(root->objects[0]->function("addSchedule")->handler, addScheduleHandler);
    EXPECT_EQ(root->objects[0]->objects[0]->function("describe")->handler, describeHandler);
    EXPECT_EQ(root->objects[0]->function("unbound")->handler, nullptr);
}

TEST_F(FunctionCall, CallsABoundHandler) {
    auto args = makeArgs({{"type", variant_t("Light")}});
    variant_t retval;
    request_t* request = reinterpret_cast<request_t*>(0x1234);
    ASSERT_TRUE(object_callFunction(scheduler, "addSchedule", &args, &retval, request));
    EXPECT_EQ(g_call.calls, 1);
    EXPECT_EQ(g_call.object, scheduler);
    EXPECT_EQ(g_call.request, request);
    ASSERT_NE(g_call.function, nullptr);
    EXPECT_EQ(g_call.function->name, "addSchedule");
    EXPECT_EQ(g_call.type, "Light");
    EXPECT_EQ(retval, variant_t(true));
    ASSERT_EQ(llist_size(&args), 2u);
    EXPECT_EQ(args.values().front().name, "scheduleInfo");
    EXPECT_EQ(args.values().front().value, variant_t(variant_list_t{variant_t("s1")}));
}

TEST_F(FunctionCall, InstancesCallTheFunctionsOfTheirTemplate) {
    object_t* light = object_createInstance(types, -1, "Light");
    ASSERT_NE(light, nullptr);
    ASSERT_TRUE(object_commit(light));
    argument_value_list_t args;
    variant_t retval;
    ASSERT_TRUE(object_callFunction(light, "describe", &args, &retval, nullptr));
    EXPECT_EQ(retval, variant_t("Scheduler.Types.Light"));
}

TEST_F(FunctionCall, UnboundUnknownThrowingAndRefusingCallsFail) {
    auto args = makeArgs({{"type", variant_t("Light")}});
    variant_t retval("unchanged");
    orv_setError(orv_error_none);
    EXPECT_FALSE(object_callFunction(scheduler, "unbound", &args, &retval, nullptr));
    EXPECT_EQ(orv_error(), orv_error_not_supported);
    EXPECT_FALSE(object_callFunction(scheduler, "nothing", &args, &retval, nullptr));
    EXPECT_EQ(orv_error(), orv_error_not_found);
    EXPECT_FALSE(object_callFunction(scheduler, "describe", &args, &retval, nullptr));
    EXPECT_EQ(retval, variant_t("unchanged"));
    EXPECT_EQ(llist_size(&args), 1u);

    EXPECT_FALSE(object_callFunction(scheduler, "throws", &args, &retval, nullptr));
    EXPECT_FALSE(object_callFunction(scheduler, "refuses", &args, &retval, nullptr));
    EXPECT_FALSE(object_callFunction(nullptr, "addSchedule", &args, &retval, nullptr));
    EXPECT_FALSE(object_callFunction(model.root(), "addSchedule", &args, &retval, nullptr));
    EXPECT_EQ(g_call.calls, 0);
}

TEST(FunctionBind, WithoutResolverEverythingIsMissing) {
    std::string error;
    auto definition = definition_parse(kFunctions, &error);
    ASSERT_NE(definition, nullptr) << error;
    auto missing = function_bindAll(definition.get(), nullptr);
    EXPECT_EQ(missing, (std::vector<std::string>{"addSchedule", "unbound", "throws", "refuses",
                                                 "describe"}));
    EXPECT_TRUE(function_bindAll(nullptr, nullptr).empty());
}

}  // namespace
