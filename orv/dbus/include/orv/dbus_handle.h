// Owners of the sd-bus handles, shared by the daemon, the bridge and the
// tools, and opening the bus that a "--bus" option names.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>
#include <string>
#include <vector>

struct orv_bus_close {
    void operator()(sd_bus* bus) const { sd_bus_flush_close_unref(bus); }
};
struct orv_slot_unref {
    void operator()(sd_bus_slot* slot) const { sd_bus_slot_unref(slot); }
};
struct orv_message_unref {
    void operator()(sd_bus_message* m) const { sd_bus_message_unref(m); }
};
struct orv_source_unref {
    void operator()(sd_event_source* source) const { sd_event_source_disable_unref(source); }
};
using orv_bus_ptr = std::unique_ptr<sd_bus, orv_bus_close>;
using orv_slot_ptr = std::unique_ptr<sd_bus_slot, orv_slot_unref>;
using orv_message_ptr = std::unique_ptr<sd_bus_message, orv_message_unref>;
using orv_source_ptr = std::unique_ptr<sd_event_source, orv_source_unref>;

// An sd_bus_error that frees itself.
class orv_bus_error_t {
  public:
    orv_bus_error_t() = default;
    ~orv_bus_error_t() { sd_bus_error_free(&error_); }
    orv_bus_error_t(const orv_bus_error_t&) = delete;
    orv_bus_error_t& operator=(const orv_bus_error_t&) = delete;
    sd_bus_error* get() { return &error_; }
    const char* name() const { return error_.name != nullptr ? error_.name : ""; }
    const char* message() const { return error_.message != nullptr ? error_.message : ""; }

  private:
    sd_bus_error error_ = SD_BUS_ERROR_NULL;
};

// Opens "session", "system" or, for anything else, the bus at that address.
// *r is negative on failure; the returned owner may then hold a half-made bus.
orv_bus_ptr orv_dbus_open(const std::string& which, const char* description, int* r);

// While a method call is handled, the messages it causes that expect no
// answer (signals, announcements to other services) are held and go out
// after its reply: the caller gets its answer without waiting for the bus
// daemon to route them first. One holder lives per handled call; outside
// one, orv_dbus_send sends at once. Held messages keep their order. An error
// reply, which sd-bus sends once the handler has returned, follows them.
class orv_dbus_reply_first_t {
  public:
    orv_dbus_reply_first_t();
    ~orv_dbus_reply_first_t();
    orv_dbus_reply_first_t(const orv_dbus_reply_first_t&) = delete;
    orv_dbus_reply_first_t& operator=(const orv_dbus_reply_first_t&) = delete;

  private:
    friend int orv_dbus_send(sd_bus_message* m);
    std::vector<orv_message_ptr> held_;
    orv_dbus_reply_first_t* outer_;
};

// Sends a message that expects no reply on its own bus, or holds it while a
// call is handled (then 0 means queued).
int orv_dbus_send(sd_bus_message* m);
