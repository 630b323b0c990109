// The requests of plug-ins, carried over D-Bus.
//
// - An execute-function request becomes a method call of org.orv.Object to
//   the bus name of the path's root ("Device.Light" -> org.orv.Device on
//   /Device/Light). "setState" expects no reply; other functions answer with
//   an object item (the return value as "retval" and the out-arguments) or an
//   error item. A root whose name has no owner cannot be called: send()
//   returns false without a round trip, as the owners of the org.orv.* names
//   are tracked through NameOwnerChanged.
// - The root lookup (get-object on "") answers with one object item per
//   org.orv.* name on the bus, carrying the root object's parameters, and,
//   while it stays open, with one more for each root that appears.
// - A get-object request on a path answers with the object's parameters.
//   When it subscribes, PropertiesChanged from that path becomes one type-1
//   notification per property ("parameter", "newvalue" as text) and the
//   Notification signal a notification of its own type. When the root's
//   owner changes, the object is read again and the values that differ are
//   reported as if they had changed, so a restarted service is followed.
// - Notifications of local objects go out as the Notification signal.
//
// Replies are delivered on the loop, never from inside a bus callback.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "orv/dbus_handle.h"
#include "orv/loop.h"
#include "orv/transport.h"

class orv_dbus_transport_t final : public orv_transport_t {
  public:
    // Starts following the owners of the org.orv.* names. Null and *error
    // when the bus does not answer.
    static std::unique_ptr<orv_dbus_transport_t> create(sd_bus* bus, orv_loop_t* loop,
                                                        std::string* error);
    ~orv_dbus_transport_t() override;
    orv_dbus_transport_t(const orv_dbus_transport_t&) = delete;
    orv_dbus_transport_t& operator=(const orv_dbus_transport_t&) = delete;

    bool send(request_t* request, orv_request_sink_t* sink) override;
    void forget(request_t* request) override;
    bool notify(const notification_t* notification) override;

    // Whether org.orv.<root> has an owner, as far as the bus has told.
    bool hasOwner(std::string_view root) const;

  private:
    struct open_t;
    struct pending_t;
    struct dispatch_t;
    friend struct dispatch_t;

    orv_dbus_transport_t(sd_bus* bus, orv_loop_t* loop);
    bool start(std::string* error);
    bool call(request_t* request, orv_request_sink_t* sink);
    void subscribe(open_t& open);
    void fetch(std::uint32_t id, int kind, const std::string& path);
    void rootGone(const std::string& root);
    void ownerChanged(const std::string& root, const std::string& oldOwner,
                      const std::string& newOwner);
    void post(std::uint32_t id, std::vector<reply_item_t> items);
    open_t* find(std::uint32_t id) const;

    sd_bus* bus_;
    orv_loop_t* loop_;
    orv_slot_ptr ownerWatch_;
    // Unique owner by root ("Time" -> ":1.7").
    std::map<std::string, std::string, std::less<>> owners_;
    std::map<std::uint32_t, std::unique_ptr<open_t>> open_;
    std::map<std::uint64_t, std::unique_ptr<pending_t>> pending_;
    std::uint64_t nextPending_ = 0;
    // Deliveries wait on the loop; this token tells them the transport lives.
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
};
