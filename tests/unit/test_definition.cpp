// Definitions: parsing, validation errors with their locations, defaults.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orv/definition.h"
#include "orv/variant.h"

namespace {

const char* const kSchedulerDefinition = R"({
  "objects": [
    {
      "name": "Scheduler",
      "parameters": [ { "name": "Version", "type": "string", "default": "1" },
                      { "name": "Count", "type": "uint32", "default": "12" },
                      { "name": "Enabled", "type": "bool" } ],
      "functions": [
        { "name": "addSchedule", "type": "bool",
          "arguments": [ { "name": "type", "type": "string" },
                         { "name": "info", "type": "map" },
                         { "name": "scheduleInfo", "type": "list", "out": true } ] },
        { "name": "getSchedules", "type": "variant", "arguments": [ { "name": "any" } ] },
        { "name": "reset", "type": "void" }
      ],
      "objects": [ { "name": "Types", "template": true,
                     "parameters": [ { "name": "Type", "type": "string" } ],
                     "objects": [ { "name": "Schedules", "template": true } ] } ]
    }
  ]
})";

TEST(DefinitionParse, ReadsObjectsParametersFunctionsAndArguments) {
    std::string error;
    auto root = definition_parse(kSchedulerDefinition, &error);
    ASSERT_NE(root, nullptr) << error;
    ASSERT_EQ(root->objects.size(), 1u);
    const object_definition_t& scheduler = *root->objects[0];
    EXPECT_EQ(scheduler.name, "Scheduler");
    EXPECT_FALSE(scheduler.isTemplate);
    ASSERT_EQ(scheduler.parameters.size(), 3u);
    EXPECT_EQ(scheduler.parameters[0].type, variant_type_string);
    EXPECT_EQ(scheduler.parameters[0].defaultValue, variant_t("1"));
    EXPECT_EQ(scheduler.parameters[1].type, variant_type_uint32);
    EXPECT_EQ(scheduler.parameters[1].defaultValue, variant_t(std::uint32_t{12}));
    EXPECT_EQ(scheduler.parameters[2].defaultValue, variant_t(false));

    ASSERT_EQ(scheduler.functions.size(), 3u);
    const function_definition_t* add = scheduler.function("addSchedule");
    ASSERT_NE(add, nullptr);
    EXPECT_EQ(add->returnType, variant_type_bool);
    ASSERT_EQ(add->arguments.size(), 3u);
    EXPECT_EQ(add->arguments[0].name, "type");
    EXPECT_EQ(add->arguments[0].type, variant_type_string);
    EXPECT_FALSE(add->arguments[0].out);
    EXPECT_EQ(add->arguments[1].type, variant_type_map);
    EXPECT_EQ(add->arguments[2].type, variant_type_array);
    EXPECT_TRUE(add->arguments[2].out);
    EXPECT_EQ(add->handler, nullptr);
    EXPECT_EQ(scheduler.function("getSchedules")->returnType, variant_type_unknown);
    EXPECT_EQ(scheduler.function("getSchedules")->arguments[0].type, variant_type_unknown);
    EXPECT_EQ(scheduler.function("reset")->returnType, variant_type_unknown);
    EXPECT_EQ(scheduler.function("nothing"), nullptr);
    EXPECT_NE(scheduler.parameter("Count"), nullptr);
    EXPECT_EQ(scheduler.parameter("count"), nullptr);

    ASSERT_EQ(scheduler.objects.size(), 1u);
    const object_definition_t& types = *scheduler.objects[0];
    EXPECT_EQ(types.name, "Types");
    EXPECT_TRUE(types.isTemplate);
    ASSERT_EQ(types.objects.size(), 1u);
    EXPECT_TRUE(types.objects[0]->isTemplate);
}

TEST(DefinitionParse, ZeroValuesWithoutDefault) {
    std::string error;
    auto root = definition_parse(R"({"objects":[{"name":"O","parameters":[
        {"name":"s","type":"string"}, {"name":"b","type":"bool"},
        {"name":"i","type":"int32"}, {"name":"u","type":"uint32"},
        {"name":"I","type":"int64"}, {"name":"U","type":"uint64"},
        {"name":"d","type":"double"}, {"name":"t","type":"datetime"},
        {"name":"l","type":"list"}, {"name":"m","type":"map"}]}]})",
                                 &error);
    ASSERT_NE(root, nullptr) << error;
    const auto& p = root->objects[0]->parameters;
    ASSERT_EQ(p.size(), 10u);
    EXPECT_EQ(p[0].defaultValue, variant_t(""));
    EXPECT_EQ(p[1].defaultValue, variant_t(false));
    EXPECT_EQ(p[2].defaultValue, variant_t(std::int32_t{0}));
    EXPECT_EQ(p[3].defaultValue, variant_t(std::uint32_t{0}));
    EXPECT_EQ(p[4].defaultValue, variant_t(std::int64_t{0}));
    EXPECT_EQ(p[5].defaultValue, variant_t(std::uint64_t{0}));
    EXPECT_EQ(p[6].defaultValue, variant_t(0.0));
    EXPECT_EQ(p[7].defaultValue, variant_t::dateTime(0));
    EXPECT_EQ(p[8].defaultValue, variant_t(variant_list_t{}));
    EXPECT_EQ(p[9].defaultValue, variant_t(variant_map_t{}));
}

TEST(DefinitionParse, DefaultsConvertToTheParameterType) {
    std::string error;
    auto root = definition_parse(R"({"objects":[{"name":"O","parameters":[
        {"name":"s","type":"string","default":42},
        {"name":"b","type":"bool","default":"yes"},
        {"name":"i","type":"int32","default":-7},
        {"name":"I","type":"int64","default":"-9000000000"},
        {"name":"U","type":"uint64","default":18000000000000000000},
        {"name":"d","type":"double","default":1.5},
        {"name":"t1","type":"datetime","default":"2023-11-14T01:00:00Z"},
        {"name":"t2","type":"datetime","default":1699923600},
        {"name":"l","type":"list","default":[1,"a"]},
        {"name":"m","type":"map","default":{"z":1,"a":true}}]}]})",
                                 &error);
    ASSERT_NE(root, nullptr) << error;
    const auto& p = root->objects[0]->parameters;
    EXPECT_EQ(p[0].defaultValue, variant_t("42"));
    EXPECT_EQ(p[1].defaultValue, variant_t(true));
    EXPECT_EQ(p[2].defaultValue, variant_t(std::int32_t{-7}));
    EXPECT_EQ(p[3].defaultValue, variant_t(std::int64_t{-9000000000}));
    EXPECT_EQ(p[4].defaultValue, variant_t(std::uint64_t{18000000000000000000u}));
    EXPECT_EQ(p[5].defaultValue, variant_t(1.5));
    EXPECT_EQ(p[6].defaultValue, variant_t::dateTime(1699923600));
    EXPECT_EQ(p[7].defaultValue, variant_t::dateTime(1699923600));
    EXPECT_EQ(p[8].defaultValue,
              variant_t(variant_list_t{variant_t(std::uint32_t{1}), variant_t("a")}));
    // Maps keep the order of the document.
    const variant_map_t* map = p[9].defaultValue.map();
    ASSERT_NE(map, nullptr);
    ASSERT_EQ(map->size(), 2u);
    EXPECT_EQ((*map)[0].key, "z");
    EXPECT_EQ((*map)[1].key, "a");
}

TEST(DefinitionParse, EmptyDocumentHasNoObjects) {
    std::string error;
    auto root = definition_parse("{}", &error);
    ASSERT_NE(root, nullptr) << error;
    EXPECT_TRUE(root->objects.empty());
}

struct error_row_t {
    const char* json;
    const char* expected;  // the exact error text, or a prefix ending in '*'
};

const std::vector<error_row_t> kErrorRows = {
    {"", "invalid JSON*"},
    {"{\"objects\": [", "invalid JSON*"},
    {"[]", "the definition must be a JSON object"},
    {R"({"objects": {}})", "\"objects\" must be an array"},
    {R"({"objects": [1]})", "objects[0]: must be a JSON object"},
    {R"({"objects": [{}]})", "objects[0]: missing \"name\""},
    {R"({"objects": [{"name": ""}]})", "objects[0]: empty \"name\""},
    {R"({"objects": [{"name": 3}]})", "objects[0]: \"name\" must be a string"},
    {R"({"objects": [{"name": "A.B"}]})", "objects[0]: name \"A.B\" contains '.'"},
    {R"({"objects": [{"name": "A"}, {"name": "A"}]})", "objects[1]: duplicate name \"A\""},
    {R"({"objects": [{"name": "A", "template": "yes"}]})",
     "objects[0]: \"template\" must be a boolean"},
    {R"({"objects": [{"name": "A", "objects": [{"name": "B"}, {"name": "C"},
        {"name": "B"}]}]})",
     "objects[0].objects[2]: duplicate name \"B\""},
    {R"({"objects": [{"name": "A", "parameters": [{"name": "p", "type": "strng"}]}]})",
     "objects[0].parameters[0]: unknown type \"strng\""},
    {R"({"objects": [{"name": "A", "parameters": [{"name": "p", "type": "void"}]}]})",
     "objects[0].parameters[0]: type \"void\" is not allowed for a parameter"},
    {R"({"objects": [{"name": "A", "parameters": [{"name": "p", "type": 1}]}]})",
     "objects[0].parameters[0]: \"type\" must be a string"},
    {R"({"objects": [{"name": "A", "parameters": [{"name": "p"}, {"name": "p"}]}]})",
     "objects[0].parameters[1]: duplicate name \"p\""},
    {R"({"objects": [{"name": "A", "parameters": [{"type": "bool"}]}]})",
     "objects[0].parameters[0]: missing \"name\""},
    {R"({"objects": [{"name": "A", "parameters": [{"name": "p", "type": "uint32",
        "default": "x"}]}]})",
     "objects[0].parameters[0]: default value \"x\" does not convert to uint32"},
    {R"({"objects": [{"name": "A", "parameters": [{"name": "p", "type": "uint32",
        "default": -1}]}]})",
     "objects[0].parameters[0]: default value -1 does not convert to uint32"},
    {R"({"objects": [{"name": "A", "parameters": [{"name": "p", "type": "list",
        "default": {}}]}]})",
     "objects[0].parameters[0]: default value {} does not convert to list"},
    {R"({"objects": [{"name": "A", "parameters": [{"name": "p", "type": "datetime",
        "default": "tomorrow"}]}]})",
     "objects[0].parameters[0]: default value \"tomorrow\" does not convert to datetime"},
    {R"({"objects": [{"name": "A", "functions": [{"name": "f"}, {"name": "g"},
        {"name": "h", "arguments": [{"name": "a"}, {"name": "b", "type": "strng"}]}]}]})",
     "objects[0].functions[2].arguments[1]: unknown type \"strng\""},
    {R"({"objects": [{"name": "A", "functions": [{"name": "f", "arguments": [
        {"name": "a"}, {"name": "a"}]}]}]})",
     "objects[0].functions[0].arguments[1]: duplicate name \"a\""},
    {R"({"objects": [{"name": "A", "functions": [{"name": "f", "arguments": [
        {"name": "x.y"}]}]}]})",
     "objects[0].functions[0].arguments[0]: name \"x.y\" contains '.'"},
    {R"({"objects": [{"name": "A", "functions": [{"name": "f", "arguments": [
        {"name": "a", "type": "void"}]}]}]})",
     "objects[0].functions[0].arguments[0]: type \"void\" is not allowed for an argument"},
    {R"({"objects": [{"name": "A", "functions": [{"name": "f", "arguments": [
        {"name": "a", "out": 1}]}]}]})",
     "objects[0].functions[0].arguments[0]: \"out\" must be a boolean"},
    {R"({"objects": [{"name": "A", "functions": [{"name": "f", "arguments": {}}]}]})",
     "objects[0].functions[0]: \"arguments\" must be an array"},
    {R"({"objects": [{"name": "A", "functions": [{"name": "f"}, {"name": "f"}]}]})",
     "objects[0].functions[1]: duplicate name \"f\""},
    {R"({"objects": [{"name": "A", "functions": [{"name": "f", "type": "number"}]}]})",
     "objects[0].functions[0]: unknown type \"number\""},
    {R"({"objects": [{"name": "A", "objects": [{"name": "T", "template": true,
        "objects": [{"name": "S", "parameters": [{"name": "", "type": "bool"}]}]}]}]})",
     "objects[0].objects[0].objects[0].parameters[0]: empty \"name\""},
};

TEST(DefinitionParse, ErrorsNameTheirLocation) {
    for (const auto& row : kErrorRows) {
        SCOPED_TRACE(row.json);
        std::string error;
        auto root = definition_parse(row.json, &error);
        EXPECT_EQ(root, nullptr);
        std::string expected = row.expected;
        if (!expected.empty() && expected.back() == '*') {
            expected.pop_back();
            EXPECT_EQ(error.substr(0, expected.size()), expected) << error;
        } else {
            EXPECT_EQ(error, expected);
        }
    }
}

TEST(DefinitionParse, ErrorPointerMayBeNull) {
    EXPECT_EQ(definition_parse("{", nullptr), nullptr);
}

TEST(DefinitionTypes, NamesMapToTypesAndBack) {
    const std::vector<std::pair<const char*, variant_type_t>> rows = {
        {"string", variant_type_string}, {"bool", variant_type_bool},
        {"int32", variant_type_int32},   {"uint32", variant_type_uint32},
        {"int64", variant_type_int64},   {"uint64", variant_type_uint64},
        {"double", variant_type_double}, {"datetime", variant_type_date_time},
        {"list", variant_type_array},    {"map", variant_type_map},
    };
    for (const auto& [name, type] : rows) {
        SCOPED_TRACE(name);
        EXPECT_EQ(definition_typeFromName(name), type);
        EXPECT_STREQ(definition_typeName(type), name);
    }
    EXPECT_EQ(definition_typeFromName("void"), variant_type_unknown);
    EXPECT_EQ(definition_typeFromName("variant"), variant_type_unknown);
    EXPECT_EQ(definition_typeFromName("String"), std::nullopt);
    EXPECT_EQ(definition_typeFromName(""), std::nullopt);
}

TEST(DefinitionConvert, UsesTheExactReaders) {
    EXPECT_EQ(definition_convertValue(variant_type_uint32, variant_t("12")),
              variant_t(std::uint32_t{12}));
    EXPECT_EQ(definition_convertValue(variant_type_uint32, variant_t("x")), std::nullopt);
    EXPECT_EQ(definition_convertValue(variant_type_uint32, variant_t(1.5)), std::nullopt);
    EXPECT_EQ(definition_convertValue(variant_type_string, variant_t(true)), variant_t("true"));
    EXPECT_EQ(definition_convertValue(variant_type_unknown, variant_t(1.5)), variant_t(1.5));
    EXPECT_EQ(definition_convertValue(variant_type_map, variant_t(variant_list_t{})), std::nullopt);
}

}  // namespace
