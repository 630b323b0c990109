// Definitions: parsing, defaults and validation errors with their locations.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "orv/definition.h"
#include "orv/variant.h"

namespace {

TEST(DefinitionParse, ReadsObjectsFunctionsAndArguments) {
    std::string error;
    auto root = definition_parse(R"({"objects": [{"name": "Scheduler",
      "functions": [
        {"name": "addSchedule", "type": "bool",
         "arguments": [{"name": "type", "type": "string"},
                       {"name": "scheduleInfo", "type": "list", "out": true}]},
        {"name": "getSchedules", "type": "variant", "arguments": [{"name": "any"}]},
        {"name": "reset", "type": "void"}],
      "objects": [{"name": "Types", "template": true}]}]})",
                                 &error);
    ASSERT_NE(root, nullptr) << error;
    ASSERT_EQ(root->objects.size(), 1u);
    const object_definition_t& scheduler = *root->objects[0];
    const function_definition_t* add = scheduler.function("addSchedule");
    ASSERT_NE(add, nullptr);
    EXPECT_EQ(add->returnType, variant_type_bool);
    ASSERT_EQ(add->arguments.size(), 2u);
    EXPECT_EQ(add->arguments[0].type, variant_type_string);
    EXPECT_FALSE(add->arguments[0].out);
    EXPECT_EQ(add->arguments[1].type, variant_type_array);
    EXPECT_TRUE(add->arguments[1].out);
    // "variant", "void" and a missing type all mean: any value.
    EXPECT_EQ(scheduler.function("getSchedules")->returnType, variant_type_unknown);
    EXPECT_EQ(scheduler.function("getSchedules")->arguments.at(0).type, variant_type_unknown);
    EXPECT_EQ(scheduler.function("reset")->returnType, variant_type_unknown);
    EXPECT_FALSE(scheduler.isTemplate);
    ASSERT_EQ(scheduler.objects.size(), 1u);
    EXPECT_TRUE(scheduler.objects[0]->isTemplate);
}

// A definition whose only object "A" has the given members.
std::string objectA(const std::string& members) {
    return R"({"objects": [{"name": "A", )" + members + "}]}";
}

TEST(DefinitionParse, DefaultsTakeTheDeclaredType) {
    variant_map_t ordered;  // maps keep the order of the document
    ordered.push_back({"z", variant_t(std::uint32_t{1})});
    ordered.push_back({"a", variant_t(true)});
    const std::vector<std::pair<std::string, variant_t>> rows = {
        // the members of parameter "p", its default value
        {R"("type": "string")", variant_t("")},
        {R"("type": "bool")", variant_t(false)},
        {R"("type": "datetime")", variant_t::dateTime(0)},
        {R"("type": "list")", variant_t(variant_list_t{})},
        {R"("type": "string", "default": 42)", variant_t("42")},
        {R"("type": "bool", "default": "yes")", variant_t(true)},
        {R"("type": "uint32", "default": "12")", variant_t(std::uint32_t{12})},
        {R"("type": "int64", "default": "-9000000000")", variant_t(std::int64_t{-9000000000})},
        {R"("type": "uint64", "default": 18000000000000000000)",
         variant_t(std::uint64_t{18000000000000000000u})},
        {R"("type": "datetime", "default": "2023-11-14T01:00:00Z")",
         variant_t::dateTime(1699923600)},
        {R"("type": "list", "default": [1, "a"])",
         variant_t(variant_list_t{variant_t(std::uint32_t{1}), variant_t("a")})},
        {R"("type": "map", "default": {"z": 1, "a": true})", variant_t(ordered)},
    };
    for (const auto& [members, expected] : rows) {
        SCOPED_TRACE(members);
        std::string error;
        auto root =
            definition_parse(objectA(R"("parameters": [{"name": "p", )" + members + "}]"), &error);
        ASSERT_NE(root, nullptr) << error;
        const variant_t& value = root->objects[0]->parameters.at(0).defaultValue;
        EXPECT_EQ(value, expected) << variant_toJSON(&value);
    }
}

TEST(DefinitionParse, ErrorsNameTheirLocation) {
    const std::vector<std::pair<std::string, std::string>> rows = {
        {"{\"objects\": [", "invalid JSON"},
        {"[]", "the definition must be a JSON object"},
        {R"({"objects": {}})", "\"objects\" must be an array"},
        {R"({"objects": [{}]})", "objects[0]: missing \"name\""},
        {R"({"objects": [{"name": "A.B"}]})", "objects[0]: name \"A.B\" contains '.'"},
        {R"({"objects": [{"name": "A"}, {"name": "A"}]})", "objects[1]: duplicate name \"A\""},
        {objectA(R"("template": "yes")"), "objects[0]: \"template\" must be a boolean"},
        {objectA(R"("objects": [{"name": "B"}, {"name": "C"}, {"name": "B"}])"),
         "objects[0].objects[2]: duplicate name \"B\""},
        {objectA(R"("parameters": [{"name": "p", "type": "strng"}])"),
         "objects[0].parameters[0]: unknown type \"strng\""},
        {objectA(R"("parameters": [{"name": "p", "type": "void"}])"),
         "objects[0].parameters[0]: type \"void\" is not allowed for a parameter"},
        {objectA(R"("parameters": [{"name": "p", "type": "uint32", "default": -1}])"),
         "objects[0].parameters[0]: default value -1 does not convert to uint32"},
        {objectA(R"("functions": [{"name": "f", "type": "number"}])"),
         "objects[0].functions[0]: unknown type \"number\""},
        {objectA(R"("functions": [{"name": "f"}, {"name": "h",
                    "arguments": [{"name": "a"}, {"name": "b", "type": "strng"}]}])"),
         "objects[0].functions[1].arguments[1]: unknown type \"strng\""},
        {objectA(R"("functions": [{"name": "f", "arguments": [{"name": "a", "type": "void"}]}])"),
         "objects[0].functions[0].arguments[0]: type \"void\" is not allowed for an argument"},
        {objectA(R"("objects": [{"name": "T", "template": true,
                    "objects": [{"name": "S", "parameters": [{"name": "", "type": "bool"}]}]}])"),
         "objects[0].objects[0].objects[0].parameters[0]: empty \"name\""},
    };
    for (const auto& [json, expected] : rows) {
        SCOPED_TRACE(json);
        std::string error;
        EXPECT_EQ(definition_parse(json, &error), nullptr);
        // Invalid JSON goes on with the parser's own words.
        EXPECT_EQ(expected == "invalid JSON" ? error.substr(0, expected.size()) : error, expected);
    }
}

}  // namespace
