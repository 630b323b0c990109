// What a bus transport does for a context. The in-process transport serves
// tests; the D-Bus transport serves the daemon.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "orv/notification.h"
#include "orv/request.h"
#include "orv/variant.h"

// The parameters of remote objects, by path, as the last replies and value
// changes reported them.
class orv_client_cache_t {
  public:
    void store(const std::string& path, const variant_map_t& parameters);
    void update(const std::string& path, std::string_view name, const variant_t& value);
    void forget(const std::string& path);
    const variant_t* get(std::string_view path, std::string_view name) const;

  private:
    std::map<std::string, variant_map_t, std::less<>> objects_;
};

// The context's side of a transport: where replies go.
class orv_request_sink_t {
  public:
    virtual ~orv_request_sink_t() = default;
    // One delivery of reply items for an open request. Object items also fill
    // the client cache, value-change notifications update it.
    virtual void deliver(request_t* request, std::vector<reply_item_t> items) = 0;
    // The bus side ended the request: its cancel handler runs.
    virtual void cancel(request_t* request) = 0;
};

class orv_transport_t {
  public:
    virtual ~orv_transport_t() = default;
    // Starts a request. Replies go to the sink, never before send returns.
    // Returns false when it cannot be sent (for an execute-function request:
    // the destination's root has no owner on the bus).
    virtual bool send(request_t* request, orv_request_sink_t* sink) = 0;
    // The request ends on the caller's side; nothing more may be delivered.
    virtual void forget(request_t* request) = 0;
    // Sends a notification from a local object.
    virtual bool notify(const notification_t* notification) = 0;
};
