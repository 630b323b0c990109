// Serves a data model on D-Bus.
//
// Every object of the model is an object path (see dbus_value.h) with the
// interface org.orv.Object: each bus function is a method taking its named
// arguments as "a{sv}" and answering "va{sv}" (the return value, then the
// out-arguments by name); parameters are read-only properties. "/" is the
// object manager. Introspection is generated from the definitions and the
// live instances. Instances that are not committed yet stay invisible, and
// properties show committed values only.
//
// Committed changes go out as signals: PropertiesChanged for parameters,
// InterfacesAdded and InterfacesRemoved (from "/") for instances.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "orv/dbus_handle.h"
#include "orv/object.h"

class orv_dbus_export_t final : private object_observer_t {
  public:
    // Serves the model on the bus and watches its commits. Null and *error
    // when the bus refuses the registration.
    static std::unique_ptr<orv_dbus_export_t> create(sd_bus* bus, datamodel_t* model,
                                                     std::string* error);
    ~orv_dbus_export_t() override;
    orv_dbus_export_t(const orv_dbus_export_t&) = delete;
    orv_dbus_export_t& operator=(const orv_dbus_export_t&) = delete;

  private:
    struct dispatch_t;
    friend struct dispatch_t;

    orv_dbus_export_t(sd_bus* bus, datamodel_t* model);
    void instanceAdded(object_t& instance) override;
    void instanceRemoved(object_t& instance) override;
    void parametersChanged(object_t& object, const std::vector<std::string>& names) override;

    sd_bus* bus_;
    datamodel_t* model_;
    orv_slot_ptr slot_;
    orv_slot_ptr peerSlot_;
};
