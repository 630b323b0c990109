// The in-process transport: a bus inside the test process. Remote objects
// live in a table the test fills; requests the plug-in sends are answered
// from it on the loop, calls are recorded with the loop's time, and tests
// inject value changes, notifications and errors.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "orv/loop.h"
#include "orv/transport.h"

class orv_inproc_bus_t final : public orv_transport_t {
  public:
    struct call_t {
        std::int64_t time_us;
        std::string path;
        std::string function;
        variant_map_t arguments;
    };
    struct sent_notification_t {
        std::int64_t time_us;
        std::uint32_t type;
        std::string path;
        variant_map_t parameters;
    };

    explicit orv_inproc_bus_t(orv_loop_t* loop);
    ~orv_inproc_bus_t() override;

    // Remote objects. Publishing an object whose root is new answers the
    // requests that wait for objects with an item for that root; removing
    // the last object of a root tells them it is gone.
    void publish(std::string_view path, variant_map_t parameters = {});
    void unpublish(std::string_view path);
    bool isPublished(std::string_view path) const;
    // Changes a parameter; subscribers receive a type-1 notification with
    // "parameter" and "newvalue" (the value as text).
    bool setParameter(std::string_view path, std::string_view name, const variant_t& value);
    // The object sends notifications; subscribers receive them in one delivery.
    void emit(std::string_view path, std::vector<notification_t> notifications);
    // Delivers arbitrary items to every open request on that path (the empty
    // path is the root lookup).
    void deliver(std::string_view path, std::vector<reply_item_t> items);
    // Ends the open requests on that path from the bus side.
    void cancel(std::string_view path);

    const std::vector<call_t>& calls() const { return calls_; }
    const std::vector<sent_notification_t>& notifications() const { return notifications_; }
    void clearRecords();
    std::size_t openRequestCount(std::string_view path) const;

    bool send(request_t* request, orv_request_sink_t* sink) override;
    void forget(request_t* request) override;
    bool notify(const notification_t* notification) override;

  private:
    bool sendCall(request_t* request);
    std::vector<reply_item_t> objectItems(const request_t* request, bool* stayOpen) const;
    struct open_t {
        request_t* request;
        orv_request_sink_t* sink;
    };
    std::vector<open_t> matching(std::string_view path) const;
    void post(request_t* request, std::vector<reply_item_t> items);

    orv_loop_t* loop_;
    std::map<std::string, variant_map_t, std::less<>> objects_;
    // Roots in the order they appeared: root lookups list them in that order.
    std::vector<std::string> roots_;
    std::vector<open_t> open_;
    // Requests that close after their first delivery, by id.
    std::set<std::uint32_t> oneShot_;
    // Deliveries wait on the loop; this token tells them the bus still exists.
    std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
    std::vector<call_t> calls_;
    std::vector<sent_notification_t> notifications_;
};
