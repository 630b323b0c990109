// client_t: setting up on the bus and the loop, and the bus callbacks.
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <system_error>

#include "client_impl.h"
#include "orv/dbus_value.h"
#include "orv/protocol.h"
#include "orv/variant.h"
#include "orv/variant_map.h"

namespace scheduler {

namespace {

void check(int r, const char* what) {
    if (r < 0) {
        throw std::system_error(-r, std::generic_category(), what);
    }
}

void checkType(const type_info_t& type) {
    if (type.name.empty() || type.path.empty() || type.states.empty()) {
        throw std::invalid_argument("a schedule type needs a name, a path and states");
    }
    if (orv_dbus_busName(type.path).empty()) {
        throw std::invalid_argument("the path \"" + type.path + "\" has no root object");
    }
}

bus_ptr openBus(const std::string& address) {
    int r = 0;
    orv_bus_ptr opened = orv_dbus_open(address, "scheduler-client", &r);
    check(r, "cannot connect to the bus");
    return bus_ptr(opened.release(), bus_release{true});
}

bus_ptr borrowBus(sd_bus* bus) {
    if (bus == nullptr) {
        throw std::invalid_argument("no bus connection");
    }
    return bus_ptr(sd_bus_ref(bus), bus_release{false});
}

// The text value of a named argument, or nullopt.
std::optional<std::string> textArgument(const variant_map_t& arguments, const char* name) {
    const variant_t* value = variant_map_find(&arguments, name);
    return value != nullptr ? variant_toChar(value) : std::nullopt;
}

int replyBool(sd_bus_message* m, bool value, const std::string& error) {
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_return(m, &raw);
    orv_message_ptr reply(raw);
    if (r >= 0) {
        r = sd_bus_message_append(raw, "v", "b", value ? 1 : 0);
    }
    if (r >= 0) {
        r = error.empty() ? sd_bus_message_append(raw, "a{sv}", 0)
                          : sd_bus_message_append(raw, "a{sv}", 1, "error", "s", error.c_str());
    }
    return r < 0 ? r : sd_bus_send(nullptr, raw, nullptr);
}

}  // namespace

client_t::impl_t::impl_t(bus_ptr bus, options_t options)
    : options_(std::move(options)),
      bus_(std::move(bus)),
      store_(options_.store, options_.type.name, options_.type.states,
             [this](std::string_view line) { log(std::string(line)); }),
      objectPath_(orv_dbus_objectPath(options_.type.path)),
      clientName_(orv_dbus_busName(options_.type.path)) {}

client_t::impl_t::~impl_t() {
    slots_.clear();
    if (attachedBus_) {
        sd_bus_detach_event(bus_.get());
    }
}

void client_t::impl_t::log(const std::string& line) const {
    if (options_.log) {
        options_.log(line);
    } else {
        std::fprintf(stderr, "scheduler-client: %s\n", line.c_str());
    }
}

bool client_t::impl_t::allowedState(const std::string& state) const {
    const auto& states = options_.type.states;
    return std::find(states.begin(), states.end(), state) != states.end();
}

call_result_t client_t::impl_t::call(const std::string& function, json arguments) const {
    arguments["type"] = options_.type.name;
    return scheduler_call(bus_.get(), function, arguments);
}

// The bus runs on the caller's loop, on the loop the caller's bus is
// attached to already, or on a loop of the client's own.
void client_t::impl_t::attach() {
    sd_event* attached = sd_bus_get_event(bus_.get());
    if (attached != nullptr && options_.event != nullptr && attached != options_.event) {
        throw std::invalid_argument("the bus is attached to another loop");
    }
    sd_event* loop = attached != nullptr ? attached : options_.event;
    if (loop != nullptr) {
        event_.reset(sd_event_ref(loop));
    } else {
        sd_event* created = nullptr;
        check(sd_event_new(&created), "cannot create the loop");
        event_.reset(created);
        ownLoop_ = true;
    }
    if (attached == nullptr) {
        check(sd_bus_attach_event(bus_.get(), event_.get(), SD_EVENT_PRIORITY_NORMAL),
              "cannot attach the bus to the loop");
        attachedBus_ = true;
    }
    // Without its bus the owner can do nothing: the loop ends with 1, so
    // that a service manager starts it again. A caller's bus is its own
    // business.
    if (bus_.get_deleter().opened) {
        check(sd_bus_set_exit_on_disconnect(bus_.get(), 1), "cannot follow the bus");
    }
}

void client_t::impl_t::serveClientObject() {
    static const sd_bus_vtable vtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_METHOD_WITH_NAMES("setState", "a{sv}", SD_BUS_PARAM(arguments), "va{sv}",
                                 SD_BUS_PARAM(result) SD_BUS_PARAM(out), onSetState, 0),
        SD_BUS_VTABLE_END};
    sd_bus_slot* slot = nullptr;
    check(sd_bus_add_object_vtable(bus_.get(), &slot, objectPath_.c_str(), kObjectInterface, vtable,
                                   this),
          "cannot serve the client object");
    slots_.emplace_back(slot);
}

// Both matches are in place before the scheduler's owner is asked for, so
// that no change of owner falls between the two.
void client_t::impl_t::watchScheduler() {
    const std::string owners =
        std::string(
            "type='signal',sender='org.freedesktop.DBus',interface='org.freedesktop.DBus',"
            "member='NameOwnerChanged',arg0='") +
        kSchedulerName + "'";
    const std::string notifications = std::string("type='signal',interface='") + kObjectInterface +
                                      "',member='Notification',path='" +
                                      orv_dbus_objectPath("Scheduler.Types." + options_.type.name) +
                                      "'";
    const std::pair<const std::string*, sd_bus_message_handler_t> matches[] = {
        {&owners, onOwnerChanged}, {&notifications, onNotification}};
    for (const auto& [rule, handler] : matches) {
        sd_bus_slot* slot = nullptr;
        check(sd_bus_add_match(bus_.get(), &slot, rule->c_str(), handler, this),
              "cannot follow the scheduler");
        slots_.emplace_back(slot);
    }
    sd_event_source* source = nullptr;
    check(sd_event_add_defer(event_.get(), &source, onStart, this), "cannot start");
    startSource_.reset(source);
    check(sd_event_source_set_enabled(source, SD_EVENT_ONESHOT), "cannot start");
}

int client_t::impl_t::onStart(sd_event_source*, void* userdata) {
    auto* self = static_cast<impl_t*>(userdata);
    try {
        const char* owner = nullptr;
        orv_bus_error_t error;
        sd_bus_message* raw = nullptr;
        int r = sd_bus_call_method(self->bus_.get(), "org.freedesktop.DBus",
                                   "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetNameOwner",
                                   error.get(), &raw, "s", kSchedulerName);
        orv_message_ptr reply(raw);
        if (r >= 0 && sd_bus_message_read(raw, "s", &owner) >= 0 && owner != nullptr) {
            self->startSession(owner);
        } else {
            self->log(std::string("waiting for the scheduler (") + kSchedulerName +
                      ") to appear on the bus");
        }
    } catch (const std::exception& e) {
        self->log(std::string("start failed: ") + e.what());
    }
    return 0;
}

int client_t::impl_t::onOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<impl_t*>(userdata);
    const char* name = nullptr;
    const char* before = nullptr;
    const char* after = nullptr;
    if (sd_bus_message_read(m, "sss", &name, &before, &after) < 0) {
        return 0;
    }
    try {
        if (after[0] == '\0') {
            self->schedulerLeft();
        } else if (self->schedulerOwner_ != after) {
            self->startSession(after);
        }
    } catch (const std::exception& e) {
        self->log(std::string("following the scheduler failed: ") + e.what());
    }
    return 0;
}

// Only the scheduler's own signals count: anyone may send a signal with
// any path.
int client_t::impl_t::onNotification(sd_bus_message* m, void* userdata, sd_bus_error*) {
    auto* self = static_cast<impl_t*>(userdata);
    const char* sender = sd_bus_message_get_sender(m);
    std::uint32_t type = 0;
    if (sender == nullptr || self->schedulerOwner_ != sender ||
        sd_bus_message_read(m, "u", &type) < 0 || type != notification_schedules_changed) {
        return 0;
    }
    try {
        self->readBackAndSave(nullptr);
    } catch (const std::exception& e) {
        self->log(std::string("saving the schedules failed: ") + e.what());
    }
    return 0;
}

int client_t::impl_t::onSetState(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    auto* self = static_cast<impl_t*>(userdata);
    const char* sender = sd_bus_message_get_sender(m);
    if (sender == nullptr || self->schedulerOwner_ != sender) {
        return sd_bus_error_set(error, SD_BUS_ERROR_ACCESS_DENIED,
                                "only the scheduler sets the states of this object");
    }
    try {
        return self->setState(m, error);
    } catch (const std::exception& e) {
        self->log(std::string("a setState failed: ") + e.what());
        return -ENOMEM;
    }
}

int client_t::impl_t::setState(sd_bus_message* m, sd_bus_error* error) {
    variant_map_t arguments;
    if (orv_dbus_readMap(m, &arguments) < 0) {
        return sd_bus_error_set(error, SD_BUS_ERROR_INVALID_ARGS, "setState takes a{sv}");
    }
    std::optional<std::string> id = textArgument(arguments, "ID");
    std::optional<std::string> state = textArgument(arguments, "state");
    if (!id || !state) {
        return replyBool(m, false, "setState needs the texts \"ID\" and \"state\"");
    }
    if (!allowedState(*state)) {
        log("refused the state \"" + *state + "\" for \"" + *id +
            "\": it is not one of the type's states");
        return replyBool(m, false, "the state \"" + *state + "\" is not one of the type's states");
    }
    try {
        if (options_.on_state) {
            options_.on_state(*id, *state);
        }
    } catch (const std::exception& e) {
        log("the state handler failed for \"" + *id + "\": " + e.what());
    }
    return replyBool(m, true, "");
}

int client_t::impl_t::onStopSignal(sd_event_source* source, const struct signalfd_siginfo*, void*) {
    return sd_event_exit(sd_event_source_get_event(source), 0);
}

// --- client_t -------------------------------------------------------------------

namespace {

std::unique_ptr<client_t::impl_t> makeClient(client_t* client, bus_ptr bus, options_t options) {
    checkType(options.type);
    auto impl = std::make_unique<client_t::impl_t>(std::move(bus), std::move(options));
    impl->client_ = client;
    impl->attach();
    impl->stored_ = impl->store_.load();
    impl->serveClientObject();
    impl->watchScheduler();
    return impl;
}

}  // namespace

client_t::client_t(sd_bus* bus, options_t options)
    : impl_(makeClient(this, borrowBus(bus), std::move(options))) {}

client_t::client_t(const std::string& bus_address, options_t options)
    : impl_(makeClient(this, openBus(bus_address), std::move(options))) {}

client_t::~client_t() = default;

bool client_t::registered() const {
    return impl_->registered_;
}

sd_event* client_t::event() const {
    return impl_->event_.get();
}

int client_t::run() {
    if (!impl_->ownLoop_) {
        return -EBUSY;
    }
    if (impl_->signalSources_.empty()) {
        sigset_t mask;
        sigemptyset(&mask);
        sigaddset(&mask, SIGTERM);
        sigaddset(&mask, SIGINT);
        sigprocmask(SIG_BLOCK, &mask, nullptr);
        for (int signal : {SIGTERM, SIGINT}) {
            sd_event_source* source = nullptr;
            check(sd_event_add_signal(impl_->event_.get(), &source, signal, impl_t::onStopSignal,
                                      nullptr),
                  "cannot handle SIGTERM and SIGINT");
            impl_->signalSources_.emplace_back(source);
        }
    }
    const int r = sd_event_loop(impl_->event_.get());
    if (impl_->registered_) {
        save();
    }
    return r;
}

bool client_t::save(std::string* error) {
    if (!impl_->registered_) {
        if (error != nullptr) {
            *error = "the type is not registered";
        }
        return false;
    }
    const bool saved = impl_->readBackAndSave(nullptr);
    if (!saved && error != nullptr) {
        *error = "the schedules could not be read back and saved";
    }
    return saved;
}

void client_t::stop() {
    sd_event_exit(impl_->event_.get(), 0);
}

}  // namespace scheduler
