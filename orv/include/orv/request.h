// Requests a plug-in sends to the bus, and the replies they receive.
//
// A request is created by the caller and handed to orv_sendRequest, which
// keeps it until it is destroyed (request_destroy) or the context ends.
// Replies arrive on the loop after the send returns, as a batch of items per
// delivery: request_reply holds the items of the delivery in progress only.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orv/notification.h"
#include "orv/variant.h"

class request_t;
class orv_context_t;

enum request_type_t : std::uint32_t {
    request_type_get_object = 1,
    request_type_exec_function = 2,
};

// Attributes of a get-object request.
enum : std::uint32_t {
    request_getObject_parameters = 0x0001,   // items carry the parameters
    request_notify_subscribe = 0x0040,       // stay open after the first reply
    request_wait = 0x0080,                   // wait for objects; deliver them as they appear
    request_notify_values_changed = 0x0200,  // value changes as notifications of type 1
    request_notify_object_added = 0x0400,    // instances added below the object
    request_notify_object_deleted = 0x0800,  // instances removed below the object
    request_notify_custom = 0x1000,          // the object's own notifications
};

enum reply_item_type_t : std::uint32_t {
    reply_type_object = 1,
    reply_type_notification = 2,
    reply_type_error = 3,
    // A root lookup that waits hears that a root left the bus: its service
    // stopped or lost its name. The item's object is the root.
    reply_type_object_gone = 4,
};

// A remote object as a reply carries it: its path and parameters.
struct remote_object_t {
    std::string path;
    variant_map_t parameters;
};

class reply_item_t {
  public:
    static reply_item_t object(remote_object_t object);
    static reply_item_t gone(std::string root);
    static reply_item_t notification(notification_t notification);
    static reply_item_t error(std::uint32_t code, std::string description, std::string info);

    reply_item_type_t type() const { return type_; }
    const remote_object_t* object() const;
    const notification_t* notification() const;
    std::uint32_t errorCode() const { return error_; }
    const std::string& errorDescription() const { return description_; }
    const std::string& errorInfo() const { return info_; }

  private:
    explicit reply_item_t(reply_item_type_t type) : type_(type) {}
    reply_item_type_t type_;
    std::optional<remote_object_t> object_;
    std::optional<notification_t> notification_;
    std::uint32_t error_ = 0;
    std::string description_;
    std::string info_;
};

class reply_t {
  public:
    std::vector<reply_item_t>& items() { return items_; }
    const std::vector<reply_item_t>& items() const { return items_; }

  private:
    std::vector<reply_item_t> items_;
};

// Called on the loop for each delivery; the result is not used.
using request_reply_handler_t = bool (*)(request_t* request);
// Called when the bus side ends the request.
using request_cancel_handler_t = void (*)(request_t* request);

class request_t {
  public:
    request_t(request_type_t type, std::string path, std::uint32_t attributes);
    request_type_t type() const { return type_; }
    const std::string& path() const { return path_; }
    std::uint32_t attributes() const { return attributes_; }
    std::uint32_t id() const { return id_; }
    std::int32_t depth() const { return depth_; }
    const std::string& function() const { return function_; }
    const variant_map_t& parameters() const { return parameters_; }

  private:
    friend struct request_access;
    request_type_t type_;
    std::string path_;
    std::uint32_t attributes_;
    std::uint32_t id_;
    std::int32_t depth_ = 0;
    std::string function_;
    variant_map_t parameters_;
    reply_t reply_;
    request_reply_handler_t replyHandler_ = nullptr;
    request_cancel_handler_t cancelHandler_ = nullptr;
    void* userData_ = nullptr;
    orv_context_t* context_ = nullptr;
    bool destroyed_ = false;
};

std::unique_ptr<request_t> request_create_getObject(std::string_view path, std::int32_t depth,
                                                    std::uint32_t attributes);
std::unique_ptr<request_t> request_create_executeFunction(std::string_view path,
                                                          std::string_view function,
                                                          std::uint32_t attributes);
// Appends a named argument; the request keeps its own copy of the value.
bool request_addParameter(request_t* request, std::string_view name, const variant_t* value);
bool request_setReplyHandler(request_t* request, request_reply_handler_t handler);
bool request_setCancelHandler(request_t* request, request_cancel_handler_t handler);
bool request_setUserData(request_t* request, void* userdata);
void* request_userData(const request_t* request);
std::uint32_t request_id(const request_t* request);
std::uint32_t request_attributes(const request_t* request);
// The items of the delivery in progress; null outside a delivery.
reply_t* request_reply(request_t* request);
// Ends a sent request: no handler is called for it any more. Safe inside its
// own handlers; the memory goes when the delivery returns.
void request_destroy(request_t* request);

const reply_item_t* reply_firstItem(const reply_t* reply);
const reply_item_t* reply_nextItem(const reply_t* reply, const reply_item_t* item);
reply_item_type_t reply_item_type(const reply_item_t* item);
const remote_object_t* reply_item_object(const reply_item_t* item);
const notification_t* reply_item_notification(const reply_item_t* item);
std::uint32_t reply_item_error(const reply_item_t* item);
const char* reply_item_errorDescription(const reply_item_t* item);
const char* reply_item_errorInfo(const reply_item_t* item);

// The last element of a remote object's path. attributes as object_name.
std::optional<std::string> object_name(const remote_object_t* object, std::uint32_t attributes);
