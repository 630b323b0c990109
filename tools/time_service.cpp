// orv-time's service on the bus.
#include "time_service.h"

#include <sys/inotify.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string_view>
#include <utility>

#include "orv/dbus_value.h"
#include "orv/protocol.h"
#include "orv/trace.h"
#include "orv/variant.h"

namespace {

// The root object "Time", served at this path under its own bus name.
constexpr const char* kRoot = "Time";
constexpr const char* kObjectPath = "/Time";
constexpr std::uint64_t kRecheckUs = 10000000;

}  // namespace

time_service_t::time_service_t(orv_sd_loop_t* loop, bus_ptr bus, std::optional<std::string> forced)
    : loop_(loop),
      bus_(std::move(bus)),
      forced_(forced.has_value()),
      busName_(orv_dbus_busName(kRoot)),
      status_(forced ? *forced : currentStatus()) {}

const sd_bus_vtable time_service_t::kVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_PROPERTY("Status", "s", time_service_t::getStatus, 0,
                    SD_BUS_VTABLE_PROPERTY_EMITS_CHANGE),
    SD_BUS_METHOD_WITH_NAMES("setStatus", "a{sv}", SD_BUS_PARAM(parameters), "va{sv}",
                             SD_BUS_PARAM(retval) SD_BUS_PARAM(out), time_service_t::setStatus,
                             SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_NAMES("Notification", "ua{sv}", SD_BUS_PARAM(type) SD_BUS_PARAM(parameters),
                             0),
    SD_BUS_VTABLE_END};

int time_service_t::getStatus(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                              void* userdata, sd_bus_error*) {
    auto* self = static_cast<time_service_t*>(userdata);
    return sd_bus_message_append(reply, "s", self->status_.c_str());
}

int time_service_t::setStatus(sd_bus_message* m, void* userdata, sd_bus_error* error) {
    auto* self = static_cast<time_service_t*>(userdata);
    if (!self->forced_) {
        return sd_bus_error_set(error, SD_BUS_ERROR_NOT_SUPPORTED,
                                "Status follows the system clock; start with --status to set it");
    }
    try {
        return self->replySetStatus(m);
    } catch (...) {
        return -ENOMEM;
    }
}

int time_service_t::replySetStatus(sd_bus_message* m) {
    variant_map_t parameters;
    const int r = orv_dbus_readMap(m, &parameters);
    if (r < 0) {
        return r;
    }
    std::string wanted;
    for (const auto& entry : parameters) {
        if (entry.key == "Status" && entry.value.text() != nullptr) {
            wanted = *entry.value.text();
        }
    }
    const bool valid = wanted == kSynchronized || wanted == kUnsynchronized;
    if (valid) {
        updateStatus(wanted);
    }
    return sd_bus_reply_method_return(m, "va{sv}", "b", valid ? 1 : 0, 0);
}

// sd-bus delivers the loss of the connection as a local signal.
int time_service_t::onBusMessage(sd_bus_message* m, void* userdata, sd_bus_error*) {
    if (sd_bus_message_is_signal(m, "org.freedesktop.DBus.Local", "Disconnected") > 0) {
        tolvTrace(TRACE_LEVEL_ERROR, "lost the connection to the bus");
        static_cast<time_service_t*>(userdata)->loop_->exit(1);
    }
    return 0;
}

int time_service_t::onClockFd(sd_event_source*, int fd, uint32_t, void* userdata) {
    auto* self = static_cast<time_service_t*>(userdata);
    std::uint64_t expirations = 0;
    if (read(fd, &expirations, sizeof expirations) >= 0 || errno != ECANCELED) {
        return 0;
    }
    const int r = time_armClockWatch(fd);
    if (r < 0) {
        time_complain("cannot re-arm the clock watch", r);
    }
    self->notify(notification_time_set);
    self->recheck();
    return 0;
}

int time_service_t::onInotifyFd(sd_event_source*, int fd, uint32_t, void* userdata) {
    if (time_zoneChanged(fd)) {
        tzset();
        static_cast<time_service_t*>(userdata)->notify(notification_time_zone_changed);
    }
    return 0;
}

int time_service_t::start(const orv_service_options_t& options) {
    // Before the name is owned, so that a SIGTERM never kills the service
    // without releasing it.
    std::string error;
    runtime_ = orv_service_runtime_t::start(
        *loop_, options, [this] { stop(); },
        [this] { return "status " + status_ + (forced_ ? " (forced)" : ""); }, &error);
    if (!runtime_) {
        std::fprintf(stderr, "orv-time: %s\n", error.c_str());
        return 1;
    }
    if (setupBus() != 0) {
        return 1;
    }
    if (setupClockWatch() < 0 || setupZoneWatch() < 0) {
        return 1;
    }
    if (!forced_) {
        recheck_timer_ = loop_->createTimer([this] { recheck(); });
        if (!recheck_timer_ || !recheck_timer_->arm(kRecheckUs)) {
            std::fprintf(stderr, "orv-time: cannot start the status timer\n");
            return 1;
        }
    }
    return 0;
}

int time_service_t::setupBus() {
    sd_bus* bus = bus_.get();
    sd_bus_slot* slot = nullptr;
    int r = sd_bus_add_object_vtable(bus, &slot, kObjectPath, orv_dbus_interface, kVtable, this);
    object_slot_.reset(slot);
    if (r < 0) {
        time_complain("cannot serve " + std::string(kObjectPath), r);
        return 1;
    }
    slot = nullptr;
    r = sd_bus_add_filter(bus, &slot, onBusMessage, this);
    filter_slot_.reset(slot);
    if (r < 0 || (r = sd_bus_attach_event(bus, loop_->event(), 0)) < 0) {
        time_complain("cannot attach the bus to the loop", r);
        return 1;
    }
    r = sd_bus_request_name(bus, busName_.c_str(), 0);
    if (r < 0) {
        time_complain("cannot own the name " + busName_, r);
        return 1;
    }
    return 0;
}

int time_service_t::setupClockWatch() {
    clock_fd_ = unique_fd_t(timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC));
    int r = clock_fd_.get() < 0 ? -errno : time_armClockWatch(clock_fd_.get());
    sd_event_source* source = nullptr;
    if (r >= 0) {
        r = sd_event_add_io(loop_->event(), &source, clock_fd_.get(), EPOLLIN, onClockFd, this);
    }
    clock_source_.reset(source);
    if (r < 0) {
        time_complain("cannot watch the system clock", r);
    }
    return r;
}

int time_service_t::setupZoneWatch() {
    inotify_fd_ = unique_fd_t(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    const std::uint32_t mask = IN_CREATE | IN_MOVED_TO | IN_DELETE | IN_CLOSE_WRITE | IN_ATTRIB;
    int r = inotify_fd_.get() < 0 ? -errno : 0;
    if (r >= 0 && inotify_add_watch(inotify_fd_.get(), "/etc", mask) < 0) {
        r = -errno;
    }
    sd_event_source* source = nullptr;
    if (r >= 0) {
        r = sd_event_add_io(loop_->event(), &source, inotify_fd_.get(), EPOLLIN, onInotifyFd, this);
    }
    inotify_source_.reset(source);
    if (r < 0) {
        time_complain("cannot watch the time zone", r);
    }
    return r;
}

void time_service_t::updateStatus(const std::string& status) {
    if (status == status_) {
        return;
    }
    status_ = status;
    const int r = sd_bus_emit_properties_changed(bus_.get(), kObjectPath, orv_dbus_interface,
                                                 "Status", nullptr);
    if (r < 0) {
        time_complain("cannot announce the new status", r);
    }
}

void time_service_t::recheck() {
    if (forced_) {
        return;
    }
    updateStatus(currentStatus());
    if (recheck_timer_) {
        recheck_timer_->arm(kRecheckUs);
    }
}

void time_service_t::notify(std::uint32_t type) {
    const int r = sd_bus_emit_signal(bus_.get(), kObjectPath, orv_dbus_interface, "Notification",
                                     "ua{sv}", type, 0);
    if (r < 0) {
        tolvTrace(TRACE_LEVEL_ERROR, "cannot send notification %u: %s", type, std::strerror(-r));
    }
}

void time_service_t::stop() {
    const int r = sd_bus_release_name(bus_.get(), busName_.c_str());
    if (r < 0) {
        time_complain("cannot release the name " + busName_, r);
    }
    loop_->exit(0);
}
