// Data-model definitions, loaded from JSON.
//
// {
//   "objects": [
//     {
//       "name": "Scheduler",
//       "parameters": [ { "name": "Version", "type": "string", "default": "1" } ],
//       "functions": [
//         { "name": "addSchedule", "type": "bool",
//           "arguments": [ { "name": "type", "type": "string" },
//                          { "name": "info", "type": "map" },
//                          { "name": "scheduleInfo", "type": "list", "out": true } ] }
//       ],
//       "objects": [ { "name": "Types", "template": true, "parameters": [...],
//                      "objects": [...] } ]
//     }
//   ]
// }
//
// Types are "string", "bool", "int32", "uint32", "int64", "uint64", "double",
// "datetime", "list", "map" and, for function results only, "void" and
// "variant". The objects below a template are created for each of its
// instances. A parameter without "default" starts at the zero value of its
// type (the empty text, false, 0, the epoch, an empty list or map).
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orv/variant.h"

class function_call_t;
class argument_value_list_t;

// The handler a plug-in exports as "__" + the function name. It returns 0
// when it handled the call; the host then answers with *retval and the
// out-arguments the handler prepended to args.
using function_handler_t = int (*)(function_call_t* call, argument_value_list_t* args,
                                   variant_t* retval);

struct parameter_definition_t {
    std::string name;
    variant_type_t type = variant_type_string;
    variant_t defaultValue;
};

struct argument_definition_t {
    std::string name;
    variant_type_t type = variant_type_unknown;  // unknown: any variant
    bool out = false;
};

struct function_definition_t {
    std::string name;
    variant_type_t returnType = variant_type_unknown;  // unknown: "void" or "variant"
    std::vector<argument_definition_t> arguments;
    function_handler_t handler = nullptr;
};

struct object_definition_t {
    std::string name;
    bool isTemplate = false;
    std::vector<parameter_definition_t> parameters;
    std::vector<std::unique_ptr<function_definition_t>> functions;
    std::vector<std::unique_ptr<object_definition_t>> objects;

    const parameter_definition_t* parameter(std::string_view name) const;
    const function_definition_t* function(std::string_view name) const;
};

// Parses a definition. On failure returns nullptr and sets *error.
std::unique_ptr<object_definition_t> definition_parse(std::string_view json, std::string* error);
// Maps a type name of the definition format to a variant type.
std::optional<variant_type_t> definition_typeFromName(std::string_view name);
const char* definition_typeName(variant_type_t type);
// Converts a value to a declared type with the exact variant_to* readers
// (variant_type_unknown keeps it as it is); nullopt when it does not convert.
// Parameter defaults and the parameter setters of object.h use it.
std::optional<variant_t> definition_convertValue(variant_type_t type, const variant_t& value);
