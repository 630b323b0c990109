// Function calls: the call record, named argument lists and their readers,
// and the binding of definition functions to plug-in handlers.
#pragma once

#include <cstdint>
#include <ctime>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "orv/definition.h"
#include "orv/variant.h"

class object_t;
class request_t;

struct argument_value_t {
    std::string name;
    variant_t value;
};

// The named arguments of one call, in order. Out-arguments are prepended.
class argument_value_list_t {
  public:
    std::list<argument_value_t>& values() { return values_; }
    const std::list<argument_value_t>& values() const { return values_; }

  private:
    std::list<argument_value_t> values_;
};

// One call of a bus function, owned by the host for the length of the call.
class function_call_t {
  public:
    function_call_t(object_t* object, const function_definition_t* function,
                    const request_t* request)
        : object_(object), function_(function), request_(request) {}
    object_t* object() const { return object_; }
    const function_definition_t* function() const { return function_; }
    const request_t* request() const { return request_; }

  private:
    object_t* object_;
    const function_definition_t* function_;
    const request_t* request_;
};

object_t* fcall_object(const function_call_t* call);
const request_t* fcall_request(const function_call_t* call);
std::size_t llist_size(const argument_value_list_t* args);

// Readers. Each finds the first argument of that name and converts it to the
// reader's type (see the conversions of variant.h). When there is no such
// argument, or it does not convert, the reader returns false and leaves the
// default in *value. attributes are the calling request's attributes.
bool argument_getChar(std::optional<std::string>* value, const argument_value_list_t* args,
                      std::uint32_t attributes, std::string_view name,
                      std::optional<std::string> defaultValue);
bool argument_getBool(bool* value, const argument_value_list_t* args, std::uint32_t attributes,
                      std::string_view name, bool defaultValue);
bool argument_getUInt32(std::uint32_t* value, const argument_value_list_t* args,
                        std::uint32_t attributes, std::string_view name,
                        std::uint32_t defaultValue);
bool argument_getList(std::optional<variant_list_t>* value, const argument_value_list_t* args,
                      std::uint32_t attributes, std::string_view name,
                      std::optional<variant_list_t> defaultValue);
// Delivers a broken-down local time.
bool argument_getDateTime(std::optional<struct tm>* value, const argument_value_list_t* args,
                          std::uint32_t attributes, std::string_view name,
                          std::optional<struct tm> defaultValue);
// Finds the argument without converting it; *value points into the list.
bool argument_get(argument_value_t** value, argument_value_list_t* args, std::uint32_t attributes,
                  std::string_view name);

variant_t* argument_value(argument_value_t* value);
argument_value_t* argument_valueByName(argument_value_list_t* args, std::string_view name);
// Removes the value from the list and frees it; null is accepted.
void argument_valueDestroy(argument_value_list_t* args, argument_value_t* value);
// A new empty named value; it belongs to the caller until it is prepended.
std::unique_ptr<argument_value_t> argument_valueCreate(std::string_view name);
// Inserts the value at the front and returns where it now lives.
argument_value_t* argument_valuePrepend(argument_value_list_t* args,
                                        std::unique_ptr<argument_value_t> value);

// Binds every function of the model's definitions to the handler the
// resolver finds for its name ("__" is not added here). Returns the names
// that found no handler.
std::vector<std::string> function_bindAll(
    object_definition_t* definition,
    const std::function<function_handler_t(const std::string&)>& resolve);

// Calls a function of an object on behalf of a request. Returns false when
// the object has no such function or it has no handler; *retval and args
// then stay as they were. Exceptions never leave this function.
bool object_callFunction(object_t* object, std::string_view name, argument_value_list_t* args,
                         variant_t* retval, const request_t* request);
