// Data-model definitions: parsing the JSON format of definition.h.
#include "orv/definition.h"

#include <cstdint>
#include <exception>
#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <utility>

#include "variant_json.h"

namespace {

using json = nlohmann::ordered_json;

struct parse_error_t {
    std::string message;
};

[[noreturn]] void fail(const std::string& where, const std::string& what) {
    throw parse_error_t{where.empty() ? what : where + ": " + what};
}

std::string quote(std::string_view text) {
    std::string out = "\"";
    out.append(text);
    out += '"';
    return out;
}

const json* member(const json& object, const char* key) {
    auto it = object.find(key);
    return it == object.end() ? nullptr : &*it;
}

const json* arrayMember(const json& object, const char* key, const std::string& where) {
    const json* value = member(object, key);
    if (!value || value->is_null()) {
        return nullptr;
    }
    if (!value->is_array()) {
        fail(where, quote(key) + " must be an array");
    }
    return value;
}

bool boolMember(const json& object, const char* key, const std::string& where) {
    const json* value = member(object, key);
    if (!value || value->is_null()) {
        return false;
    }
    if (!value->is_boolean()) {
        fail(where, quote(key) + " must be a boolean");
    }
    return value->get<bool>();
}

std::string nameOf(const json& object, const std::string& where, std::set<std::string>* seen) {
    const json* value = member(object, "name");
    if (!value) {
        fail(where, "missing \"name\"");
    }
    if (!value->is_string()) {
        fail(where, "\"name\" must be a string");
    }
    std::string name = value->get<std::string>();
    if (name.empty()) {
        fail(where, "empty \"name\"");
    }
    if (name.find('.') != std::string::npos) {
        fail(where, "name " + quote(name) + " contains '.'");
    }
    if (!seen->insert(name).second) {
        fail(where, "duplicate name " + quote(name));
    }
    return name;
}

enum class type_use_t { parameter, argument, result };

// The declared type; nullopt when the entry has no "type".
std::optional<variant_type_t> typeOf(const json& object, const std::string& where, type_use_t use) {
    const json* value = member(object, "type");
    if (!value || value->is_null()) {
        return std::nullopt;
    }
    if (!value->is_string()) {
        fail(where, "\"type\" must be a string");
    }
    const auto& name = value->get_ref<const std::string&>();
    auto type = definition_typeFromName(name);
    if (!type) {
        fail(where, "unknown type " + quote(name));
    }
    if (use == type_use_t::parameter && *type == variant_type_unknown) {
        fail(where, "type " + quote(name) + " is not allowed for a parameter");
    }
    if (use == type_use_t::argument && name == "void") {
        fail(where, "type \"void\" is not allowed for an argument");
    }
    return type;
}

void ensureObject(const json& value, const std::string& where) {
    if (!value.is_object()) {
        fail(where, "must be a JSON object");
    }
}

parameter_definition_t parseParameter(const json& value, const std::string& where,
                                      std::set<std::string>* seen) {
    ensureObject(value, where);
    parameter_definition_t parameter;
    parameter.name = nameOf(value, where, seen);
    parameter.type = typeOf(value, where, type_use_t::parameter).value_or(variant_type_string);
    const json* def = member(value, "default");
    if (def && !def->is_null()) {
        variant_t raw = variant_detail::fromJson(*def);
        auto converted = definition_convertValue(parameter.type, raw);
        if (!converted) {
            fail(where, "default value " + def->dump() + " does not convert to " +
                            definition_typeName(parameter.type));
        }
        parameter.defaultValue = std::move(*converted);
    } else {
        variant_initialize(&parameter.defaultValue, parameter.type);
    }
    return parameter;
}

std::unique_ptr<function_definition_t> parseFunction(const json& value, const std::string& where,
                                                     std::set<std::string>* seen) {
    ensureObject(value, where);
    auto function = std::make_unique<function_definition_t>();
    function->name = nameOf(value, where, seen);
    function->returnType = typeOf(value, where, type_use_t::result).value_or(variant_type_unknown);
    if (const json* arguments = arrayMember(value, "arguments", where)) {
        std::set<std::string> names;
        for (std::size_t i = 0; i < arguments->size(); ++i) {
            std::string at = where + ".arguments[" + std::to_string(i) + "]";
            const json& entry = (*arguments)[i];
            ensureObject(entry, at);
            argument_definition_t argument;
            argument.name = nameOf(entry, at, &names);
            argument.type = typeOf(entry, at, type_use_t::argument).value_or(variant_type_unknown);
            argument.out = boolMember(entry, "out", at);
            function->arguments.push_back(std::move(argument));
        }
    }
    return function;
}

void parseObjectBody(const json& value, const std::string& where, object_definition_t* object) {
    if (const json* parameters = arrayMember(value, "parameters", where)) {
        std::set<std::string> names;
        for (std::size_t i = 0; i < parameters->size(); ++i) {
            object->parameters.push_back(parseParameter(
                (*parameters)[i],
                where + (where.empty() ? "" : ".") + "parameters[" + std::to_string(i) + "]",
                &names));
        }
    }
    if (const json* functions = arrayMember(value, "functions", where)) {
        std::set<std::string> names;
        for (std::size_t i = 0; i < functions->size(); ++i) {
            object->functions.push_back(parseFunction(
                (*functions)[i],
                where + (where.empty() ? "" : ".") + "functions[" + std::to_string(i) + "]",
                &names));
        }
    }
    if (const json* objects = arrayMember(value, "objects", where)) {
        std::set<std::string> names;
        for (std::size_t i = 0; i < objects->size(); ++i) {
            std::string at =
                where + (where.empty() ? "" : ".") + "objects[" + std::to_string(i) + "]";
            const json& entry = (*objects)[i];
            ensureObject(entry, at);
            auto child = std::make_unique<object_definition_t>();
            child->name = nameOf(entry, at, &names);
            child->isTemplate = boolMember(entry, "template", at);
            parseObjectBody(entry, at, child.get());
            object->objects.push_back(std::move(child));
        }
    }
}

}  // namespace

const parameter_definition_t* object_definition_t::parameter(std::string_view wanted) const {
    for (const auto& p : parameters) {
        if (p.name == wanted) {
            return &p;
        }
    }
    return nullptr;
}

const function_definition_t* object_definition_t::function(std::string_view wanted) const {
    for (const auto& f : functions) {
        if (f->name == wanted) {
            return f.get();
        }
    }
    return nullptr;
}

std::unique_ptr<object_definition_t> definition_parse(std::string_view text, std::string* error) {
    std::string message;
    try {
        json document = json::parse(text.begin(), text.end());
        if (!document.is_object()) {
            fail("", "the definition must be a JSON object");
        }
        auto root = std::make_unique<object_definition_t>();
        // The root itself is nameless; only its "objects" are read.
        if (const json* objects = arrayMember(document, "objects", "")) {
            std::set<std::string> names;
            for (std::size_t i = 0; i < objects->size(); ++i) {
                std::string at = "objects[" + std::to_string(i) + "]";
                const json& entry = (*objects)[i];
                ensureObject(entry, at);
                auto child = std::make_unique<object_definition_t>();
                child->name = nameOf(entry, at, &names);
                child->isTemplate = boolMember(entry, "template", at);
                parseObjectBody(entry, at, child.get());
                root->objects.push_back(std::move(child));
            }
        }
        return root;
    } catch (const parse_error_t& e) {
        message = e.message;
    } catch (const nlohmann::json::exception& e) {
        message = std::string("invalid JSON: ") + e.what();
    } catch (const std::exception& e) {
        message = std::string("cannot parse the definition: ") + e.what();
    } catch (...) {
        message = "cannot parse the definition";
    }
    if (error) {
        try {
            *error = std::move(message);
        } catch (...) {
        }
    }
    return nullptr;
}
