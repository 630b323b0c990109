#include "web_events.h"

#include <systemd/sd-bus.h>

#include <cstring>
#include <stdexcept>

#include "orv/dbus_value.h"
#include "orv/protocol.h"
#include "orv/variant.h"
#include "schedule_json.h"
#include "scheduler_call.h"
#include "web_view.h"

namespace {

using scheduler::json;

// A stream this far behind is ended rather than kept growing.
constexpr std::size_t kMaxQueued = 256;
constexpr std::uint64_t kPollUs = 250'000;

// "/Scheduler/Types/Light/Schedules/evening" -> {"type": "Light", "id":
// "evening"}; null for other paths.
json namesOf(const char* objectPath) {
    std::vector<std::string> labels;
    std::string_view path(objectPath != nullptr ? objectPath : "");
    for (std::size_t at = 1; at <= path.size() && path.size() > 1;) {
        const std::size_t slash = std::min(path.find('/', at), path.size());
        auto label = orv_dbus_unescapeLabel(path.substr(at, slash - at));
        if (!label) {
            return nullptr;
        }
        labels.push_back(std::move(*label));
        at = slash + 1;
    }
    const bool isType = labels.size() == 3 || (labels.size() == 5 && labels[3] == "Schedules");
    if (!isType || labels[0] != "Scheduler" || labels[1] != "Types") {
        return nullptr;
    }
    json names = {{"type", labels[2]}};
    if (labels.size() == 5) {
        names["id"] = labels[4];
    }
    return names;
}

web_events_t* eventsOf(void* userdata) {
    return static_cast<web_events_t*>(userdata);
}

std::string dump(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

int onPropertiesChanged(sd_bus_message* m, void* userdata, sd_bus_error*) noexcept try {
    json names = namesOf(sd_bus_message_get_path(m));
    const char* interface = nullptr;
    variant_map_t changed;
    if (names.is_null() || !names.contains("id") || sd_bus_message_read(m, "s", &interface) < 0 ||
        orv_dbus_readMap(m, &changed) < 0) {
        return 0;
    }
    const variant_t value(std::move(changed));
    json changes = json::parse(variant_toJSON(&value), nullptr, false);
    if (auto next = changes.find("NextStateChange"); next != changes.end() && next->is_string()) {
        const auto t = orv_parseIsoTime(next->get<std::string>());
        names["nextLocal"] = t && *t > 0 ? web_localTime(static_cast<std::time_t>(*t)) : "";
        if (!t || *t <= 0) {
            *next = "";
        }
    }
    names["changes"] = std::move(changes);
    eventsOf(userdata)->publish("schedule", dump(names));
    return 0;
} catch (...) {
    return 0;
}

int onNotification(sd_bus_message* m, void* userdata, sd_bus_error*) noexcept try {
    json names = namesOf(sd_bus_message_get_path(m));
    std::uint32_t number = 0;
    if (!names.is_null() && sd_bus_message_read(m, "u", &number) >= 0 &&
        number == notification_schedules_changed) {
        eventsOf(userdata)->publish("changed", dump(names));
    }
    return 0;
} catch (...) {
    return 0;
}

int onInterfaces(sd_bus_message* m, void* userdata, sd_bus_error*) noexcept try {
    const char* path = nullptr;
    if (sd_bus_message_read(m, "o", &path) < 0) {
        return 0;
    }
    json names = namesOf(path);
    if (!names.is_null()) {
        const bool added = std::strcmp(sd_bus_message_get_member(m), "InterfacesAdded") == 0;
        eventsOf(userdata)->publish(added ? "added" : "removed", dump(names));
    }
    return 0;
} catch (...) {
    return 0;
}

int onOwner(sd_bus_message* m, void* userdata, sd_bus_error*) noexcept try {
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    if (sd_bus_message_read(m, "sss", &name, &before, &after) >= 0) {
        eventsOf(userdata)->setPresent(after != nullptr && after[0] != '\0');
    }
    return 0;
} catch (...) {
    return 0;
}

bool schedulerOwned(sd_bus* bus) {
    orv_bus_error_t error;
    sd_bus_message* raw = nullptr;
    const int r = sd_bus_call_method(bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                     "org.freedesktop.DBus", "NameHasOwner", error.get(), &raw, "s",
                                     scheduler::kSchedulerName);
    orv_message_ptr reply(raw);
    int owned = 0;
    return r >= 0 && sd_bus_message_read(reply.get(), "b", &owned) >= 0 && owned != 0;
}

}  // namespace

web_events_t::web_events_t(std::string address) : address_(std::move(address)) {
    if (!connect()) {
        throw std::runtime_error("cannot watch the bus " + address_);
    }
    thread_ = std::thread([this] { run(); });
}

web_events_t::~web_events_t() {
    shutdown();
    if (thread_.joinable()) {
        thread_.join();
    }
}

bool web_events_t::connect() {
    int r = 0;
    orv_bus_ptr bus = orv_dbus_open(address_, "orv-web-events", &r);
    if (r < 0) {
        return false;
    }
    const std::string sender = std::string("sender='") + scheduler::kSchedulerName + "',";
    const std::pair<std::string, sd_bus_message_handler_t> rules[] = {
        {"type='signal'," + sender +
             "interface='org.freedesktop.DBus.Properties',"
             "member='PropertiesChanged'",
         onPropertiesChanged},
        {"type='signal'," + sender + "interface='" + orv_dbus_interface + "',member='Notification'",
         onNotification},
        {"type='signal'," + sender + "interface='org.freedesktop.DBus.ObjectManager'",
         onInterfaces},
        {std::string("type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',"
                     "arg0='") +
             scheduler::kSchedulerName + "'",
         onOwner},
    };
    std::vector<orv_slot_ptr> matches;
    for (const auto& [rule, handler] : rules) {
        sd_bus_slot* slot = nullptr;
        if (sd_bus_add_match(bus.get(), &slot, rule.c_str(), handler, this) < 0) {
            return false;
        }
        matches.emplace_back(slot);
    }
    // Asked after the match is in place, so that no change is missed between.
    setPresent(schedulerOwned(bus.get()));
    matches_ = std::move(matches);
    bus_ = std::move(bus);
    return true;
}

// The bus is read in short waits so that a stop is seen soon; a lost
// connection is opened again, and the scheduler counts as absent meanwhile.
void web_events_t::run() {
    while (!stopping_) {
        if (!bus_ || sd_bus_is_open(bus_.get()) <= 0) {
            setPresent(false);
            matches_.clear();
            bus_.reset();
            if (!connect()) {
                std::this_thread::sleep_for(std::chrono::seconds(1));
            }
            continue;
        }
        int r = 0;
        while ((r = sd_bus_process(bus_.get(), nullptr)) > 0) {
        }
        if (r >= 0) {
            sd_bus_wait(bus_.get(), kPollUs);
        }
    }
}

void web_events_t::publish(const std::string& event, const std::string& data) {
    const std::string text = "event: " + event + "\ndata: " + data + "\n\n";
    std::lock_guard lock(mutex_);
    for (const auto& stream : streams_) {
        if (stream->queue.size() >= kMaxQueued) {
            stream->lost = true;
        } else {
            stream->queue.push_back(text);
        }
    }
    changed_.notify_all();
}

void web_events_t::setPresent(bool present) {
    const bool was = present_.exchange(present);
    if (was != present) {
        publish("scheduler", present ? "{\"present\":true}" : "{\"present\":false}");
    }
}

std::shared_ptr<web_events_t::stream_t> web_events_t::open() {
    std::lock_guard lock(mutex_);
    if (streams_.size() >= kMaxStreams || stopping_) {
        return nullptr;
    }
    auto stream = std::make_shared<stream_t>();
    stream->queue.push_back(std::string("event: scheduler\ndata: {\"present\":") +
                            (present_ ? "true" : "false") + "}\n\n");
    streams_.push_back(stream);
    return stream;
}

void web_events_t::close(const std::shared_ptr<stream_t>& stream) {
    std::lock_guard lock(mutex_);
    std::erase(streams_, stream);
}

std::optional<std::string> web_events_t::next(stream_t& stream, std::chrono::milliseconds wait) {
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, wait,
                      [&] { return stopping_ || stream.lost || !stream.queue.empty(); });
    if (stopping_ || stream.lost) {
        return std::nullopt;
    }
    if (stream.queue.empty()) {
        return std::string();
    }
    std::string text = std::move(stream.queue.front());
    stream.queue.pop_front();
    return text;
}

void web_events_t::shutdown() {
    std::lock_guard lock(mutex_);
    stopping_ = true;
    changed_.notify_all();
}
