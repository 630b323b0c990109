// The in-process transport of the tests.
#include "orv/inproc.h"

#include <algorithm>
#include <memory>

#include "orv/error.h"

namespace {

std::string_view rootOf(std::string_view path) {
    const std::size_t dot = path.find('.');
    return dot == std::string_view::npos ? path : path.substr(0, dot);
}

constexpr std::uint32_t kStayOpen =
    request_notify_subscribe | request_notify_values_changed | request_notify_custom | request_wait;

}  // namespace

orv_inproc_bus_t::orv_inproc_bus_t(orv_loop_t* loop) : loop_(loop) {}

orv_inproc_bus_t::~orv_inproc_bus_t() = default;

void orv_inproc_bus_t::publish(std::string_view path, variant_map_t parameters) {
    objects_[std::string(path)] = std::move(parameters);
    const std::string root(rootOf(path));
    if (root.empty() || std::find(roots_.begin(), roots_.end(), root) != roots_.end()) {
        return;
    }
    roots_.push_back(root);
    // The root is new: every open root lookup that waits hears of it.
    for (const open_t& open : matching("")) {
        if (!(open.request->attributes() & request_wait)) {
            continue;
        }
        auto it = objects_.find(root);
        variant_map_t rootParameters = it == objects_.end() ? variant_map_t{} : it->second;
        std::vector<reply_item_t> items;
        items.push_back(reply_item_t::object(remote_object_t{root, std::move(rootParameters)}));
        post(open.request, std::move(items));
    }
}

void orv_inproc_bus_t::unpublish(std::string_view path) {
    auto it = objects_.find(path);
    if (it == objects_.end()) {
        return;
    }
    objects_.erase(it);
    const std::string_view root = rootOf(path);
    const bool rootRemains = std::any_of(objects_.begin(), objects_.end(), [&](const auto& entry) {
        return rootOf(entry.first) == root;
    });
    if (rootRemains) {
        return;
    }
    std::erase(roots_, std::string(root));
    for (const open_t& open : matching("")) {
        if (open.request->attributes() & request_wait) {
            std::vector<reply_item_t> items;
            items.push_back(reply_item_t::gone(std::string(root)));
            post(open.request, std::move(items));
        }
    }
}

bool orv_inproc_bus_t::isPublished(std::string_view path) const {
    return objects_.find(path) != objects_.end();
}

bool orv_inproc_bus_t::setParameter(std::string_view path, std::string_view name,
                                    const variant_t& value) {
    auto it = objects_.find(path);
    if (it == objects_.end()) {
        return false;
    }
    bool found = false;
    for (auto& entry : it->second) {
        if (entry.key == name) {
            entry.value = value;
            found = true;
            break;
        }
    }
    if (!found) {
        it->second.push_back(variant_map_entry_t{std::string(name), value});
    }

    for (const open_t& open : matching(path)) {
        if (!(open.request->attributes() & request_notify_values_changed)) {
            continue;
        }
        notification_t notification(notification_value_changed);
        notification.setObjectPath(path);
        notification.parameters().push_back(variant_map_entry_t{"parameter", variant_t(name)});
        notification.parameters().push_back(
            variant_map_entry_t{"newvalue", variant_t(variant_char(&value).value_or(""))});
        std::vector<reply_item_t> items;
        items.push_back(reply_item_t::notification(std::move(notification)));
        post(open.request, std::move(items));
    }
    return true;
}

void orv_inproc_bus_t::emit(std::string_view path, std::vector<notification_t> notifications) {
    if (notifications.empty()) {
        return;
    }
    for (auto& notification : notifications) {
        if (!notification.objectPath()) {
            notification.setObjectPath(path);
        }
    }
    for (const open_t& open : matching(path)) {
        if (!(open.request->attributes() & request_notify_custom)) {
            continue;
        }
        std::vector<reply_item_t> items;
        items.reserve(notifications.size());
        for (const auto& notification : notifications) {
            items.push_back(reply_item_t::notification(notification));
        }
        post(open.request, std::move(items));
    }
}

void orv_inproc_bus_t::deliver(std::string_view path, std::vector<reply_item_t> items) {
    for (const open_t& open : matching(path)) {
        post(open.request, items);
    }
}

void orv_inproc_bus_t::cancel(std::string_view path) {
    std::vector<std::pair<open_t, std::uint32_t>> ending;
    for (const open_t& open : matching(path)) {
        ending.emplace_back(open, open.request->id());
    }
    for (const auto& entry : ending) {
        const open_t& open = entry.first;
        const std::uint32_t id = entry.second;
        // A cancel handler may have ended other requests meanwhile.
        auto it = std::find_if(open_.begin(), open_.end(),
                               [&](const open_t& o) { return o.request == open.request; });
        if (it == open_.end() || it->request->id() != id) {
            continue;
        }
        forget(open.request);
        open.sink->cancel(open.request);
    }
}

void orv_inproc_bus_t::clearRecords() {
    calls_.clear();
    notifications_.clear();
}

std::size_t orv_inproc_bus_t::openRequestCount(std::string_view path) const {
    return matching(path).size();
}

bool orv_inproc_bus_t::send(request_t* request, orv_request_sink_t* sink) {
    if (!request || !sink) {
        return false;
    }
    if (request->type() == request_type_exec_function) {
        return sendCall(request);
    }
    if (request->type() != request_type_get_object) {
        return false;
    }
    bool stayOpen = false;
    std::vector<reply_item_t> items = objectItems(request, &stayOpen);
    open_.push_back(open_t{request, sink});
    if (!stayOpen) {
        oneShot_.insert(request->id());
    }
    if (!items.empty() || !stayOpen) {
        post(request, std::move(items));
    }
    return true;
}

// A function call is recorded when some object of its root is on the bus.
bool orv_inproc_bus_t::sendCall(request_t* request) {
    const std::string_view root = rootOf(request->path());
    const bool owned = !root.empty() &&
                       std::any_of(objects_.begin(), objects_.end(),
                                   [&](const auto& entry) { return rootOf(entry.first) == root; });
    if (!owned) {
        return false;
    }
    calls_.push_back(call_t{loop_ ? loop_->now_us() : 0, request->path(), request->function(),
                            request->parameters()});
    return true;
}

// The first answer of a get-object request, and whether the request stays
// open after it.
std::vector<reply_item_t> orv_inproc_bus_t::objectItems(const request_t* request,
                                                        bool* stayOpen) const {
    std::vector<reply_item_t> items;
    if (request->path().empty()) {
        // The root lookup: one item for each root on the bus.
        for (const std::string& root : roots_) {
            auto it = objects_.find(root);
            items.push_back(reply_item_t::object(
                remote_object_t{root, it == objects_.end() ? variant_map_t{} : it->second}));
        }
        *stayOpen = (request->attributes() & request_wait) != 0;
        return items;
    }
    auto it = objects_.find(request->path());
    if (it != objects_.end()) {
        items.push_back(reply_item_t::object(remote_object_t{it->first, it->second}));
    } else {
        items.push_back(
            reply_item_t::error(orv_error_not_found, "object not found", request->path()));
    }
    *stayOpen = (request->attributes() & kStayOpen) != 0;
    return items;
}

void orv_inproc_bus_t::forget(request_t* request) {
    if (!request) {
        return;
    }
    auto it = std::find_if(open_.begin(), open_.end(),
                           [&](const open_t& o) { return o.request == request; });
    if (it == open_.end()) {
        return;
    }
    open_.erase(it);
    oneShot_.erase(request->id());
}

bool orv_inproc_bus_t::notify(const notification_t* notification) {
    if (!notification) {
        return false;
    }
    notifications_.push_back(sent_notification_t{
        loop_ ? loop_->now_us() : 0, notification->type(),
        notification->objectPath() ? *notification->objectPath() : std::string(),
        notification->parameters()});
    return true;
}

std::vector<orv_inproc_bus_t::open_t> orv_inproc_bus_t::matching(std::string_view path) const {
    std::vector<open_t> result;
    for (const open_t& open : open_) {
        if (open.request->path() == path) {
            result.push_back(open);
        }
    }
    return result;
}

void orv_inproc_bus_t::post(request_t* request, std::vector<reply_item_t> items) {
    if (!loop_ || !request) {
        return;
    }
    std::weak_ptr<bool> token = alive_;
    const std::uint32_t id = request->id();
    loop_->defer([this, token, request, id, items = std::move(items)]() mutable {
        if (token.expired()) {
            return;  // the bus is gone
        }
        // Skip requests that were forgotten since (the pointer is only
        // followed while the request is open, hence alive).
        auto it = std::find_if(open_.begin(), open_.end(),
                               [&](const open_t& o) { return o.request == request; });
        if (it == open_.end() || request->id() != id) {
            return;
        }
        orv_request_sink_t* sink = it->sink;
        if (oneShot_.erase(id) != 0) {
            open_.erase(it);  // answered once: the bus side is done with it
        }
        sink->deliver(request, std::move(items));
    });
}
