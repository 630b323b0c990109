// The plug-in's context: it owns the requests it sent and hands their
// replies to their handlers; and the client cache of remote objects.
#include "orv/context.h"

#include <algorithm>

#include "request_internal.h"

// ---------------------------------------------------------------------------
// Client cache

void orv_client_cache_t::store(const std::string& path, const variant_map_t& parameters) {
    objects_[path] = parameters;
}

void orv_client_cache_t::update(const std::string& path, std::string_view name,
                                const variant_t& value) {
    variant_map_t& parameters = objects_[path];
    for (auto& entry : parameters) {
        if (entry.key == name) {
            entry.value = value;
            return;
        }
    }
    parameters.push_back(variant_map_entry_t{std::string(name), value});
}

void orv_client_cache_t::forget(const std::string& path) {
    objects_.erase(path);
}

const variant_t* orv_client_cache_t::get(std::string_view path, std::string_view name) const {
    auto it = objects_.find(path);
    if (it == objects_.end()) {
        return nullptr;
    }
    for (const auto& entry : it->second) {
        if (entry.key == name) {
            return &entry.value;
        }
    }
    return nullptr;
}

// ---------------------------------------------------------------------------
// Context

namespace {

const variant_t* findParameter(const variant_map_t& parameters, std::string_view name) {
    for (const auto& entry : parameters) {
        if (entry.key == name) {
            return &entry.value;
        }
    }
    return nullptr;
}

std::optional<std::string> textOf(const variant_t* value) {
    if (!value) {
        return std::nullopt;
    }
    if (const std::string* text = value->text()) {
        return *text;
    }
    return variant_toChar(value);
}

}  // namespace

orv_context_t::orv_context_t(orv_loop_t* loop, datamodel_t* model, orv_transport_t* transport)
    : loop_(loop), model_(model), transport_(transport) {
    connection_.context = this;
    peer_.connection = &connection_;
    config_.busPeer = &peer_;
}

orv_context_t::~orv_context_t() {
    // Cancel handlers run first; they may destroy their requests.
    std::vector<std::pair<request_t*, std::uint32_t>> open;
    for (const auto& request : requests_) {
        if (!request_access::destroyed(*request)) {
            open.emplace_back(request.get(), request->id());
        }
    }
    for (const auto& entry : open) {
        request_t* request = entry.first;
        auto it = find(request);
        if (it == requests_.end() || request->id() != entry.second ||
            request_access::destroyed(*request)) {
            continue;
        }
        cancel(request);
    }
    // Then the rest ends without handlers.
    for (const auto& request : requests_) {
        if (!request_access::destroyed(*request) && transport_) {
            transport_->forget(request.get());
        }
        request_access::setContext(*request, nullptr);
    }
    requests_.clear();
    index_.clear();
    connection_.context = nullptr;
}

std::optional<std::uint32_t> orv_context_t::attribute(std::uint32_t number) const {
    auto it = attributes_.find(number);
    if (it == attributes_.end()) {
        return std::nullopt;
    }
    return it->second;
}

std::vector<request_t*> orv_context_t::openRequests() const {
    std::vector<request_t*> open;
    for (const auto& request : requests_) {
        if (!request_access::destroyed(*request)) {
            open.push_back(request.get());
        }
    }
    return open;
}

request_t* orv_context_t::send(std::unique_ptr<request_t> request) {
    if (!request || !transport_) {
        return nullptr;
    }
    request_t* raw = request.get();
    request_access::setContext(*raw, this);
    requests_.push_back(std::move(request));
    index_[raw] = std::prev(requests_.end());
    if (!transport_->send(raw, sink())) {
        // Nothing was started on the bus: the request goes at once.
        index_.erase(raw);
        requests_.pop_back();
        return nullptr;
    }
    return raw;
}

void orv_context_t::destroy(request_t* request) {
    if (!request) {
        return;
    }
    auto it = find(request);
    if (it == requests_.end() || request_access::destroyed(*request)) {
        return;
    }
    if (transport_) {
        transport_->forget(request);
    }
    request_access::setDestroyed(*request, true);
    if (delivering_ == 0) {
        release(request);
    }
    // Otherwise a handler is running: the request goes when it returns.
}

void orv_context_t::deliver(request_t* request, std::vector<reply_item_t> items) {
    if (!request) {
        return;
    }
    auto it = find(request);
    if (it == requests_.end() || request_access::destroyed(*request)) {
        return;
    }

    for (const auto& item : items) {
        if (const remote_object_t* object = item.object()) {
            peer_.cache.store(object->path, object->parameters);
        } else if (const notification_t* notification = item.notification()) {
            if (notification->type() != notification_value_changed) {
                continue;
            }
            auto name = textOf(findParameter(notification->parameters(), "parameter"));
            const variant_t* value = findParameter(notification->parameters(), "newvalue");
            if (!name || !value) {
                continue;
            }
            const std::string& path =
                notification->objectPath() ? *notification->objectPath() : request->path();
            peer_.cache.update(path, *name, *value);
        }
    }

    ++delivering_;
    reply_t& reply = request_access::reply(*request);
    reply.items() = std::move(items);
    if (request_reply_handler_t handler = request_access::replyHandler(*request)) {
        handler(request);
    }
    reply.items().clear();
    --delivering_;
    if (delivering_ == 0) {
        // Requests destroyed by the handler go now.
        releaseDestroyed();
    }
}

void orv_context_t::cancel(request_t* request) {
    if (!request) {
        return;
    }
    auto it = find(request);
    if (it == requests_.end() || request_access::destroyed(*request)) {
        return;
    }
    ++delivering_;
    if (request_cancel_handler_t handler = request_access::cancelHandler(*request)) {
        handler(request);
    }
    --delivering_;
    if (delivering_ == 0) {
        releaseDestroyed();
    }
}

orv_context_t::request_list_t::iterator orv_context_t::find(const request_t* request) {
    auto it = index_.find(request);
    return it == index_.end() ? requests_.end() : it->second;
}

void orv_context_t::release(request_t* request) {
    auto it = find(request);
    if (it != requests_.end()) {
        index_.erase(request);
        requests_.erase(it);
    }
}

// Frees the requests that were destroyed while a handler ran.
void orv_context_t::releaseDestroyed() {
    for (auto it = requests_.begin(); it != requests_.end();) {
        if (request_access::destroyed(**it)) {
            index_.erase(it->get());
            it = requests_.erase(it);
        } else {
            ++it;
        }
    }
}

// ---------------------------------------------------------------------------
// Free functions

const orv_plugin_config_t* orv_pluginConfig(orv_context_t* context) {
    return context ? context->config() : nullptr;
}

bool orv_client_set_attribute(orv_context_t* context, std::uint32_t attribute,
                              std::uint32_t value) {
    if (!context) {
        return false;
    }
    context->setAttribute(attribute, value);
    return true;
}

const variant_t* orv_client_get(peer_info_t* peer, std::string_view path, std::string_view name) {
    return peer ? peer->cache.get(path, name) : nullptr;
}

orv_connection_t* peer_connection(peer_info_t* peer) {
    return peer ? peer->connection : nullptr;
}

orv_context_t* orv_fromConnection(orv_connection_t* connection) {
    return connection ? connection->context : nullptr;
}

request_t* orv_sendRequest(orv_context_t* context, peer_info_t* peer,
                           std::unique_ptr<request_t> request) {
    if (!context || !peer || !request) {
        return nullptr;
    }
    return context->send(std::move(request));
}

bool orv_sendNotification(orv_context_t* context, peer_info_t* from, peer_info_t* to,
                          const notification_t* notification) {
    (void)from;
    (void)to;
    if (!context || !notification || !context->transport()) {
        return false;
    }
    return context->transport()->notify(notification);
}
