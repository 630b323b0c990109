// orv-cli serve and watch: the programs that stay on the bus until SIGTERM
// or SIGINT.
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "cli_object.h"
#include "orv/dbus_value.h"
#include "orv/protocol.h"
#include "orv/sd_loop.h"
#include "orv/variant.h"

namespace {

std::string isoTimeMs() {
    struct timespec now {};
    clock_gettime(CLOCK_REALTIME, &now);
    struct tm utc {};
    gmtime_r(&now.tv_sec, &utc);
    std::array<char, 32> text{};
    const std::size_t n = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &utc);
    std::snprintf(text.data() + n, text.size() - n, ".%03ldZ", now.tv_nsec / 1000000);
    return text.data();
}

// The loop, the bus on it and the signals that stop it.
class session_t {
  public:
    session_t(std::unique_ptr<orv_sd_loop_t> loop, bus_ptr bus)
        : loop_(std::move(loop)), bus_(std::move(bus)) {}
    session_t(const session_t&) = delete;
    session_t& operator=(const session_t&) = delete;

    // Null after a message on stderr.
    static std::unique_ptr<session_t> open(const cli_args_t& args);
    sd_bus* bus() const { return bus_.get(); }
    // Stops with stopping() run first; false after a message on stderr.
    bool start(std::function<void()> stopping);
    // The loop's exit code: 0 after SIGTERM/SIGINT, 1 when the bus went away.
    int run();

  private:
    static int onBusMessage(sd_bus_message* m, void* userdata, sd_bus_error*);

    // The loop outlives the bus attached to it.
    std::unique_ptr<orv_sd_loop_t> loop_;
    bus_ptr bus_;
    slot_ptr filter_slot_;
    std::function<void()> stopping_;
};

std::unique_ptr<session_t> session_t::open(const cli_args_t& args) {
    std::string error;
    auto loop = orv_sd_loop_t::create(&error);
    if (!loop) {
        std::fprintf(stderr, "orv-cli: cannot create the event loop: %s\n", error.c_str());
        return nullptr;
    }
    bus_ptr bus = cli_openBus(args);
    if (!bus) {
        return nullptr;
    }
    return std::make_unique<session_t>(std::move(loop), std::move(bus));
}

bool session_t::start(std::function<void()> stopping) {
    stopping_ = std::move(stopping);
    auto stop = [this] {
        stopping_();
        loop_->exit(0);
    };
    if (!loop_->onSignal(SIGTERM, stop) || !loop_->onSignal(SIGINT, stop)) {
        std::fprintf(stderr, "orv-cli: cannot handle SIGTERM and SIGINT\n");
        return false;
    }
    sd_bus_slot* slot = nullptr;
    int r = sd_bus_add_filter(bus_.get(), &slot, onBusMessage, this);
    filter_slot_.reset(slot);
    if (r < 0 || (r = sd_bus_attach_event(bus_.get(), loop_->event(), 0)) < 0) {
        cli_complain("cannot attach the bus to the loop", r);
        return false;
    }
    return true;
}

int session_t::run() {
    const int r = loop_->run();
    if (r < 0) {
        cli_complain("the event loop failed", r);
        return 1;
    }
    return r;
}

// sd-bus delivers the loss of the connection as a local signal.
int session_t::onBusMessage(sd_bus_message* m, void* userdata, sd_bus_error*) {
    if (sd_bus_message_is_signal(m, "org.freedesktop.DBus.Local", "Disconnected") > 0) {
        std::fprintf(stderr, "orv-cli: lost the connection to the bus\n");
        static_cast<session_t*>(userdata)->loop_->exit(1);
    }
    return 0;
}

class server_t {
  public:
    server_t(session_t* session, const cli_args_t& args) : session_(session), args_(args) {}
    server_t(const server_t&) = delete;
    server_t& operator=(const server_t&) = delete;
    // 0, or the exit code after a message on stderr.
    int start();

  private:
    static int onCall(sd_bus_message* m, void* userdata, sd_bus_error*);
    int answer(sd_bus_message* m);
    void buildVtable();

    session_t* session_;
    const cli_args_t& args_;
    std::string name_;
    // Points into args_.functions, which outlives the server.
    std::vector<sd_bus_vtable> vtable_;
    slot_ptr object_slot_;
};

void server_t::buildVtable() {
    vtable_.push_back(SD_BUS_VTABLE_START(0));
    for (const auto& function : args_.functions) {
        vtable_.push_back(SD_BUS_METHOD_WITH_NAMES(
            function.c_str(), "a{sv}", SD_BUS_PARAM(parameters), "va{sv}",
            SD_BUS_PARAM(retval) SD_BUS_PARAM(out), server_t::onCall, SD_BUS_VTABLE_UNPRIVILEGED));
    }
    vtable_.push_back(SD_BUS_SIGNAL_WITH_NAMES("Notification", "ua{sv}",
                                               SD_BUS_PARAM(type) SD_BUS_PARAM(parameters), 0));
    vtable_.push_back(SD_BUS_VTABLE_END);
}

int server_t::start() {
    const auto name = cli_busName(args_.path);
    if (!name) {
        return kFailed;
    }
    name_ = *name;
    buildVtable();
    sd_bus* bus = session_->bus();
    // Before the name is owned, so that a SIGTERM never ends the program
    // without releasing it.
    if (!session_->start([this] { sd_bus_release_name(session_->bus(), name_.c_str()); })) {
        return kFailed;
    }
    sd_bus_slot* slot = nullptr;
    int r = sd_bus_add_object_vtable(bus, &slot, orv_dbus_objectPath(args_.path).c_str(),
                                     orv_dbus_interface, vtable_.data(), this);
    object_slot_.reset(slot);
    if (r < 0) {
        cli_complain("cannot serve " + args_.path, r);
        return kFailed;
    }
    r = sd_bus_request_name(bus, name_.c_str(), 0);
    if (r < 0) {
        cli_complain("cannot own the name " + name_, r);
        return kFailed;
    }
    return 0;
}

int server_t::onCall(sd_bus_message* m, void* userdata, sd_bus_error*) {
    try {
        return static_cast<server_t*>(userdata)->answer(m);
    } catch (...) {
        return -ENOMEM;
    }
}

int server_t::answer(sd_bus_message* m) {
    variant_map_t arguments;
    const int r = orv_dbus_readMap(m, &arguments);
    if (r < 0) {
        return r;
    }
    const char* member = sd_bus_message_get_member(m);
    variant_map_t line;
    line.push_back({"time", variant_t(isoTimeMs())});
    line.push_back({"path", variant_t(args_.path)});
    line.push_back({"function", variant_t(member != nullptr ? member : "")});
    line.push_back({"args", variant_t(std::move(arguments))});
    const variant_t printed(std::move(line));
    cli_printLine(variant_toJSON(&printed));
    return sd_bus_reply_method_return(m, "va{sv}", "b", 1, 0);
}

int onNotification(sd_bus_message* m, void*, sd_bus_error*) {
    try {
        std::uint32_t type = 0;
        variant_map_t parameters;
        int r = sd_bus_message_read(m, "u", &type);
        if (r >= 0) {
            r = orv_dbus_readMap(m, &parameters);
        }
        const auto path = orv_dbus_dataModelPath(sd_bus_message_get_path(m));
        if (r < 0 || !path) {
            cli_complain("ignored a malformed notification", r < 0 ? r : -EBADMSG);
            return 0;
        }
        variant_map_t line;
        line.push_back({"type", variant_t(type)});
        line.push_back({"path", variant_t(*path)});
        line.push_back({"parameters", variant_t(std::move(parameters))});
        const variant_t printed(std::move(line));
        cli_printLine(variant_toJSON(&printed));
    } catch (...) {
        cli_complain("cannot print a notification", -ENOMEM);
    }
    return 0;
}

}  // namespace

int cli_runServe(const cli_args_t& args) {
    auto session = session_t::open(args);
    if (!session) {
        return kFailed;
    }
    server_t server(session.get(), args);
    const int code = server.start();
    return code != 0 ? code : session->run();
}

int cli_runWatch(const cli_args_t& args) {
    auto session = session_t::open(args);
    if (!session || !session->start([] {})) {
        return kFailed;
    }
    const std::string match = "type='signal',interface='" + std::string(orv_dbus_interface) +
                              "',member='Notification',path_namespace='" +
                              orv_dbus_objectPath(args.path) + "'";
    sd_bus_slot* raw = nullptr;
    const int r = sd_bus_add_match(session->bus(), &raw, match.c_str(), onNotification, nullptr);
    slot_ptr slot(raw);
    if (r < 0) {
        cli_complain("cannot watch " + args.path, r);
        return kFailed;
    }
    return session->run();
}
