// Notifications: a numeric type (protocol.h names the known ones), the path
// of the object that sends it and named parameters.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "orv/protocol.h"
#include "orv/variant.h"

class notification_t {
  public:
    explicit notification_t(std::uint32_t type) : type_(type) {}
    std::uint32_t type() const { return type_; }
    const std::optional<std::string>& objectPath() const { return objectPath_; }
    void setObjectPath(std::string_view path) { objectPath_ = std::string(path); }
    variant_map_t& parameters() { return parameters_; }
    const variant_map_t& parameters() const { return parameters_; }

  private:
    std::uint32_t type_;
    std::optional<std::string> objectPath_;
    variant_map_t parameters_;
};

using notification_parameter_t = variant_map_entry_t;

std::unique_ptr<notification_t> notification_create(std::uint32_t type);
bool notification_setObjectPath(notification_t* notification, std::string_view path);
std::uint32_t notification_type(const notification_t* notification);
// The sender's path, not copied; null when none was set.
const char* notification_objectPath(const notification_t* notification);
bool notification_addParameter(notification_t* notification, std::string_view name,
                               const variant_t* value);
const notification_parameter_t* notification_getParameter(const notification_t* notification,
                                                          std::string_view name);
// The parameter's value as a new text; nullopt for none.
std::optional<std::string> notification_parameter_value(const notification_parameter_t* parameter);
