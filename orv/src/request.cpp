// Requests, replies and reply items.
#include "orv/request.h"

#include <atomic>

#include "orv/context.h"
#include "orv/error.h"
#include "request_internal.h"

namespace {

std::atomic<std::uint32_t> g_nextRequestId{1};

}  // namespace

request_t::request_t(request_type_t type, std::string path, std::uint32_t attributes)
    : type_(type),
      path_(std::move(path)),
      attributes_(attributes),
      id_(g_nextRequestId.fetch_add(1)) {}

reply_item_t reply_item_t::object(remote_object_t object) {
    reply_item_t item(reply_type_object);
    item.object_ = std::move(object);
    return item;
}

reply_item_t reply_item_t::gone(std::string root) {
    reply_item_t item(reply_type_object_gone);
    item.object_ = remote_object_t{std::move(root), {}};
    return item;
}

reply_item_t reply_item_t::notification(notification_t notification) {
    reply_item_t item(reply_type_notification);
    item.notification_ = std::move(notification);
    return item;
}

reply_item_t reply_item_t::error(std::uint32_t code, std::string description, std::string info) {
    reply_item_t item(reply_type_error);
    item.error_ = code;
    item.description_ = std::move(description);
    item.info_ = std::move(info);
    return item;
}

const remote_object_t* reply_item_t::object() const {
    return object_ ? &*object_ : nullptr;
}

const notification_t* reply_item_t::notification() const {
    return notification_ ? &*notification_ : nullptr;
}

std::unique_ptr<request_t> request_create_getObject(std::string_view path, std::int32_t depth,
                                                    std::uint32_t attributes) {
    auto request =
        std::make_unique<request_t>(request_type_get_object, std::string(path), attributes);
    request_access::setDepth(*request, depth);
    return request;
}

std::unique_ptr<request_t> request_create_executeFunction(std::string_view path,
                                                          std::string_view function,
                                                          std::uint32_t attributes) {
    if (function.empty()) {
        orv_setError(orv_error_invalid_argument);
        return nullptr;
    }
    auto request =
        std::make_unique<request_t>(request_type_exec_function, std::string(path), attributes);
    request_access::setFunction(*request, function);
    return request;
}

bool request_addParameter(request_t* request, std::string_view name, const variant_t* value) {
    if (!request || !value) {
        orv_setError(orv_error_invalid_argument);
        return false;
    }
    variant_map_t& parameters = request_access::parameters(*request);
    // A name given twice keeps its place and takes the later value.
    for (auto& entry : parameters) {
        if (entry.key == name) {
            entry.value = *value;
            return true;
        }
    }
    parameters.push_back(variant_map_entry_t{std::string(name), *value});
    return true;
}

bool request_setReplyHandler(request_t* request, request_reply_handler_t handler) {
    if (!request) {
        return false;
    }
    request_access::setReplyHandler(*request, handler);
    return true;
}

bool request_setCancelHandler(request_t* request, request_cancel_handler_t handler) {
    if (!request) {
        return false;
    }
    request_access::setCancelHandler(*request, handler);
    return true;
}

bool request_setUserData(request_t* request, void* userdata) {
    if (!request) {
        return false;
    }
    request_access::setUserData(*request, userdata);
    return true;
}

void* request_userData(const request_t* request) {
    return request ? request_access::userData(*request) : nullptr;
}

std::uint32_t request_id(const request_t* request) {
    return request ? request->id() : 0;
}

std::uint32_t request_attributes(const request_t* request) {
    return request ? request->attributes() : 0;
}

reply_t* request_reply(request_t* request) {
    if (!request) {
        return nullptr;
    }
    reply_t& reply = request_access::reply(*request);
    return reply.items().empty() ? nullptr : &reply;
}

void request_destroy(request_t* request) {
    if (!request) {
        return;
    }
    orv_context_t* context = request_access::context(*request);
    if (context) {
        context->destroy(request);
    }
}

const reply_item_t* reply_firstItem(const reply_t* reply) {
    if (!reply || reply->items().empty()) {
        return nullptr;
    }
    return &reply->items().front();
}

const reply_item_t* reply_nextItem(const reply_t* reply, const reply_item_t* item) {
    if (!reply || !item) {
        return nullptr;
    }
    const auto& items = reply->items();
    if (items.empty() || item < items.data() || item >= items.data() + items.size()) {
        return nullptr;
    }
    const std::size_t index = static_cast<std::size_t>(item - items.data());
    return index + 1 < items.size() ? &items[index + 1] : nullptr;
}

reply_item_type_t reply_item_type(const reply_item_t* item) {
    return item ? item->type() : static_cast<reply_item_type_t>(0);
}

const remote_object_t* reply_item_object(const reply_item_t* item) {
    return item ? item->object() : nullptr;
}

const notification_t* reply_item_notification(const reply_item_t* item) {
    return item ? item->notification() : nullptr;
}

std::uint32_t reply_item_error(const reply_item_t* item) {
    return item ? item->errorCode() : 0;
}

const char* reply_item_errorDescription(const reply_item_t* item) {
    return item ? item->errorDescription().c_str() : nullptr;
}

const char* reply_item_errorInfo(const reply_item_t* item) {
    return item ? item->errorInfo().c_str() : nullptr;
}

std::optional<std::string> object_name(const remote_object_t* object, std::uint32_t attributes) {
    (void)attributes;
    if (!object) {
        orv_setError(orv_error_invalid_argument);
        return std::nullopt;
    }
    const std::string& path = object->path;
    const std::size_t dot = path.rfind('.');
    std::string name = dot == std::string::npos ? path : path.substr(dot + 1);
    if (name.empty()) {
        orv_setError(orv_error_not_found);
        return std::nullopt;
    }
    return name;
}
