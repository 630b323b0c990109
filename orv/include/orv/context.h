// The plug-in's context: the loop, the data model, the bus peer and the
// requests in flight.
#pragma once

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <unordered_map>

#include "orv/loop.h"
#include "orv/notification.h"
#include "orv/object.h"
#include "orv/request.h"
#include "orv/transport.h"

class orv_context_t;
struct peer_info_t;

struct orv_connection_t {
    orv_context_t* context = nullptr;
};

struct peer_info_t {
    orv_connection_t* connection = nullptr;
    orv_client_cache_t cache;
};

// The host's configuration for a plug-in.
struct orv_plugin_config_t {
    peer_info_t* busPeer = nullptr;
};

class orv_context_t final : private orv_request_sink_t {
  public:
    orv_context_t(orv_loop_t* loop, datamodel_t* model, orv_transport_t* transport);
    // Ends every open request; cancel handlers run first.
    ~orv_context_t() override;
    orv_context_t(const orv_context_t&) = delete;
    orv_context_t& operator=(const orv_context_t&) = delete;

    orv_loop_t* loop() const { return loop_; }
    datamodel_t* datamodel() const { return model_; }
    orv_transport_t* transport() const { return transport_; }
    peer_info_t* peer() { return &peer_; }
    const orv_plugin_config_t* config() const { return &config_; }
    std::optional<std::uint32_t> attribute(std::uint32_t number) const;
    void setAttribute(std::uint32_t number, std::uint32_t value) { attributes_[number] = value; }
    // Requests still open, in sending order (tests and the host inspect them).
    std::vector<request_t*> openRequests() const;
    request_t* send(std::unique_ptr<request_t> request);
    void destroy(request_t* request);
    orv_request_sink_t* sink() { return this; }

  private:
    void deliver(request_t* request, std::vector<reply_item_t> items) override;
    void cancel(request_t* request) override;
    using request_list_t = std::list<std::unique_ptr<request_t>>;
    // The request's place in requests_, or requests_.end().
    request_list_t::iterator find(const request_t* request);
    void release(request_t* request);
    void releaseDestroyed();

    orv_loop_t* loop_;
    datamodel_t* model_;
    orv_transport_t* transport_;
    orv_connection_t connection_;
    peer_info_t peer_;
    orv_plugin_config_t config_;
    std::map<std::uint32_t, std::uint32_t> attributes_;
    request_list_t requests_;
    // Where each request sits in requests_: a plug-in that sends many requests
    // in one handler must not pay a walk of the list for each.
    std::unordered_map<const request_t*, request_list_t::iterator> index_;
    int delivering_ = 0;
};

const orv_plugin_config_t* orv_pluginConfig(orv_context_t* context);
// Client attributes are stored; none of them changes this library's behaviour.
bool orv_client_set_attribute(orv_context_t* context, std::uint32_t attribute, std::uint32_t value);
// A parameter of a remote object from the peer's cache, or null.
const variant_t* orv_client_get(peer_info_t* peer, std::string_view path, std::string_view name);
orv_connection_t* peer_connection(peer_info_t* peer);
orv_context_t* orv_fromConnection(orv_connection_t* connection);
// Sends the request to the peer. The context keeps it until request_destroy or
// until the context ends. Returns null when it could not be sent; the request
// is then freed.
request_t* orv_sendRequest(orv_context_t* context, peer_info_t* peer,
                           std::unique_ptr<request_t> request);
// Sends a notification from a local object; the peer arguments are unused.
bool orv_sendNotification(orv_context_t* context, peer_info_t* from, peer_info_t* to,
                          const notification_t* notification);
