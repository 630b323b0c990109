// Notifications: type, sender path and named parameters.
#include "orv/notification.h"

std::unique_ptr<notification_t> notification_create(std::uint32_t type) {
    return std::make_unique<notification_t>(type);
}

bool notification_setObjectPath(notification_t* notification, std::string_view path) {
    if (!notification) {
        return false;
    }
    notification->setObjectPath(path);
    return true;
}

std::uint32_t notification_type(const notification_t* notification) {
    return notification ? notification->type() : 0;
}

const char* notification_objectPath(const notification_t* notification) {
    if (!notification || !notification->objectPath()) {
        return nullptr;
    }
    return notification->objectPath()->c_str();
}

bool notification_addParameter(notification_t* notification, std::string_view name,
                               const variant_t* value) {
    if (!notification || !value) {
        return false;
    }
    // A name that is present already is replaced in place, as in variant maps.
    for (auto& entry : notification->parameters()) {
        if (entry.key == name) {
            entry.value = *value;
            return true;
        }
    }
    notification->parameters().push_back(variant_map_entry_t{std::string(name), *value});
    return true;
}

const notification_parameter_t* notification_getParameter(const notification_t* notification,
                                                          std::string_view name) {
    if (!notification) {
        return nullptr;
    }
    for (const auto& entry : notification->parameters()) {
        if (entry.key == name) {
            return &entry;
        }
    }
    return nullptr;
}

std::optional<std::string> notification_parameter_value(const notification_parameter_t* parameter) {
    if (!parameter) {
        return std::nullopt;
    }
    return variant_char(&parameter->value);
}
