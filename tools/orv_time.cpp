// orv-time: the gateway's Time service on D-Bus.
//
// It publishes whether the system clock is synchronised (property Status on
// /Time) and announces when the clock is set or the local time zone changes,
// so that time-based services know when to recompute their plans.
#include <sys/inotify.h>
#include <sys/timerfd.h>
#include <sys/timex.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "orv/dbus_value.h"
#include "orv/protocol.h"
#include "orv/sd_loop.h"
#include "orv/variant.h"
#include "tool_bus.h"

namespace {

void complain(std::string_view what, int r) {
    tool_complain("orv-time", what, r);
}

constexpr const char* kBusName = "org.orv.Time";
constexpr const char* kObjectPath = "/Time";
constexpr const char* kSynchronized = "Synchronized";
constexpr const char* kUnsynchronized = "Unsynchronized";
// Above this estimated error the kernel clock is not trusted as synchronised.
constexpr long kMaxErrorUs = 16000000;
constexpr std::uint64_t kRecheckUs = 10000000;
constexpr const char* kTimesyncFlag = "/run/systemd/timesync/synchronized";

class unique_fd_t {
  public:
    explicit unique_fd_t(int fd = -1) : fd_(fd) {}
    ~unique_fd_t() { reset(); }
    unique_fd_t(unique_fd_t&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    unique_fd_t& operator=(unique_fd_t&& other) noexcept {
        if (this != &other) {
            reset();
            fd_ = std::exchange(other.fd_, -1);
        }
        return *this;
    }
    unique_fd_t(const unique_fd_t&) = delete;
    unique_fd_t& operator=(const unique_fd_t&) = delete;
    int get() const { return fd_; }
    void reset() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
        fd_ = -1;
    }

  private:
    int fd_;
};

struct options_t {
    std::string bus = "session";
    std::string status = "auto";
};

// The kernel's view, or the flag file that the time synchronisation daemon
// leaves once it has set the clock.
bool clockSynchronized() {
    struct timex tx {};
    const int state = adjtimex(&tx);
    if (state >= 0 && state != TIME_ERROR && tx.maxerror < kMaxErrorUs) {
        return true;
    }
    return access(kTimesyncFlag, F_OK) == 0;
}

// Far in the future, so the timer only ever wakes up when the clock is set.
int armClockWatch(int fd) {
    struct itimerspec spec {};
    spec.it_value.tv_sec = std::numeric_limits<time_t>::max();
    return timerfd_settime(fd, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &spec, nullptr) < 0
               ? -errno
               : 0;
}

class time_service_t {
  public:
    time_service_t(orv_sd_loop_t* loop, bus_ptr bus, std::optional<std::string> forced)
        : loop_(loop), bus_(std::move(bus)), forced_(forced.has_value()) {
        status_ = forced ? *forced : currentStatus();
    }
    time_service_t(const time_service_t&) = delete;
    time_service_t& operator=(const time_service_t&) = delete;

    // 0, or exit code 1 after a message on stderr.
    int start();

  private:
    static const sd_bus_vtable kVtable[];

    static int getStatus(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                         void* userdata, sd_bus_error*);
    static int setStatus(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onBusMessage(sd_bus_message* m, void* userdata, sd_bus_error*);
    static int onClockFd(sd_event_source*, int fd, uint32_t, void* userdata);
    static int onInotifyFd(sd_event_source*, int fd, uint32_t, void* userdata);

    static std::string currentStatus() {
        return clockSynchronized() ? kSynchronized : kUnsynchronized;
    }
    int setupBus();
    int setupClockWatch();
    int setupZoneWatch();
    void updateStatus(const std::string& status);
    void recheck();
    void notify(std::uint32_t type);
    void stop();
    int replySetStatus(sd_bus_message* m);

    orv_sd_loop_t* loop_;
    // Declared before the slots and sources, so that those go first.
    bus_ptr bus_;
    bool forced_;
    std::string status_;
    unique_fd_t clock_fd_;
    unique_fd_t inotify_fd_;
    slot_ptr object_slot_;
    slot_ptr filter_slot_;
    source_ptr clock_source_;
    source_ptr inotify_source_;
    std::unique_ptr<orv_loop_timer_t> recheck_timer_;
};

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
        std::fprintf(stderr, "orv-time: lost the connection to the bus\n");
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
    const int r = armClockWatch(fd);
    if (r < 0) {
        complain("cannot re-arm the clock watch", r);
    }
    self->notify(notification_time_set);
    self->recheck();
    return 0;
}

int time_service_t::onInotifyFd(sd_event_source*, int fd, uint32_t, void* userdata) {
    auto* self = static_cast<time_service_t*>(userdata);
    alignas(struct inotify_event) std::array<char, 4096> buffer{};
    bool zone_changed = false;
    for (;;) {
        const ssize_t n = read(fd, buffer.data(), buffer.size());
        if (n <= 0) {
            break;
        }
        for (ssize_t at = 0; at < n;) {
            const auto* event = reinterpret_cast<const struct inotify_event*>(buffer.data() + at);
            if (event->len > 0 && std::strcmp(event->name, "localtime") == 0) {
                zone_changed = true;
            }
            at += static_cast<ssize_t>(sizeof(struct inotify_event) + event->len);
        }
    }
    if (zone_changed) {
        tzset();
        self->notify(notification_time_zone_changed);
    }
    return 0;
}

int time_service_t::start() {
    // Before the name is owned, so that a SIGTERM never kills the service
    // without releasing it.
    const bool signals =
        loop_->onSignal(SIGTERM, [this] { stop(); }) && loop_->onSignal(SIGINT, [this] { stop(); });
    if (!signals) {
        std::fprintf(stderr, "orv-time: cannot handle SIGTERM and SIGINT\n");
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
        complain("cannot serve " + std::string(kObjectPath), r);
        return 1;
    }
    slot = nullptr;
    r = sd_bus_add_filter(bus, &slot, onBusMessage, this);
    filter_slot_.reset(slot);
    if (r < 0 || (r = sd_bus_attach_event(bus, loop_->event(), 0)) < 0) {
        complain("cannot attach the bus to the loop", r);
        return 1;
    }
    r = sd_bus_request_name(bus, kBusName, 0);
    if (r < 0) {
        complain("cannot own the name " + std::string(kBusName), r);
        return 1;
    }
    return 0;
}

int time_service_t::setupClockWatch() {
    clock_fd_ = unique_fd_t(timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC));
    int r = clock_fd_.get() < 0 ? -errno : armClockWatch(clock_fd_.get());
    sd_event_source* source = nullptr;
    if (r >= 0) {
        r = sd_event_add_io(loop_->event(), &source, clock_fd_.get(), EPOLLIN, onClockFd, this);
    }
    clock_source_.reset(source);
    if (r < 0) {
        complain("cannot watch the system clock", r);
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
        complain("cannot watch the time zone", r);
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
        complain("cannot announce the new status", r);
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
        std::fprintf(stderr, "orv-time: cannot send notification %u: %s\n", type,
                     std::strerror(-r));
    }
}

void time_service_t::stop() {
    const int r = sd_bus_release_name(bus_.get(), kBusName);
    if (r < 0) {
        complain("cannot release the name org.orv.Time", r);
    }
    loop_->exit(0);
}

// 0 to go on, or the exit code.
int parseOptions(int argc, char** argv, options_t* options) {
    CLI::App app{"orv-time: the Time service on D-Bus"};
    app.add_option("--bus", options->bus, "session, system or a D-Bus address")
        ->capture_default_str();
    app.add_option("--status", options->status, "auto, or a forced status")
        ->check(CLI::IsMember({"auto", kSynchronized, kUnsynchronized}))
        ->capture_default_str();
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? -1 : 2;
    }
    return 0;
}

int serve(const options_t& options) {
    std::string error;
    auto loop = orv_sd_loop_t::create(&error);
    if (!loop) {
        std::fprintf(stderr, "orv-time: cannot create the event loop: %s\n", error.c_str());
        return 1;
    }
    int r = 0;
    bus_ptr bus = tool_openBus(options.bus, "orv-time", &r);
    if (r < 0) {
        complain("cannot connect to the " + options.bus + " bus", r);
        return 1;
    }
    std::optional<std::string> forced;
    if (options.status != "auto") {
        forced = options.status;
    }
    time_service_t service(loop.get(), std::move(bus), forced);
    const int code = service.start();
    if (code != 0) {
        return code;
    }
    r = loop->run();
    if (r < 0) {
        complain("the event loop failed", r);
        return 1;
    }
    return r;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        options_t options;
        const int code = parseOptions(argc, argv, &options);
        if (code != 0) {
            return code < 0 ? 0 : code;
        }
        return serve(options);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "orv-time: %s\n", e.what());
        return 1;
    }
}
