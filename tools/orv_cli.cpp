// orv-cli: the command-line client of the data model on D-Bus.
//
// It calls functions of objects, reads their parameters, lists their children
// and follows their notifications; `serve` stands in for a client object that
// receives calls, so that services can be exercised without the real one.
// Every failure to do what was asked ends with one line on stderr and exit 2.
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli_schedule.h"
#include "orv/dbus_value.h"
#include "orv/protocol.h"
#include "orv/sd_loop.h"
#include "orv/variant.h"
#include "tool_bus.h"

namespace {

void complain(std::string_view what, int r) {
    tool_complain("orv-cli", what, r);
}

constexpr int kFailed = 2;

// What the command line asked for; filled in by the command table's setups.
struct args_t {
    std::string bus = "session";
    std::string path;
    std::string function;
    std::string json = "{}";
    std::vector<std::string> functions;
    schedule_args_t schedule;
    cli_schedule_run_t scheduleRun = nullptr;
    int (*run)(const args_t&) = nullptr;
};

void printLine(const std::string& line) {
    std::fputs(line.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

// Null after a message on stderr.
bus_ptr connect(const args_t& args) {
    int r = 0;
    bus_ptr bus = tool_openBus(args.bus, "orv-cli", &r);
    if (r < 0) {
        complain("cannot connect to the " + args.bus + " bus", r);
        return nullptr;
    }
    return bus;
}

// The bus name of the process serving the path's root object.
std::optional<std::string> busName(const std::string& path) {
    std::string name = orv_dbus_busName(path);
    if (name.empty()) {
        std::fprintf(stderr, "orv-cli: the path \"%s\" has no root object\n", path.c_str());
        return std::nullopt;
    }
    return name;
}

bool isUnknownPath(std::string_view name) {
    return name == SD_BUS_ERROR_NAME_HAS_NO_OWNER || name == SD_BUS_ERROR_SERVICE_UNKNOWN ||
           name == SD_BUS_ERROR_UNKNOWN_OBJECT || name == SD_BUS_ERROR_UNKNOWN_METHOD ||
           name == SD_BUS_ERROR_UNKNOWN_INTERFACE;
}

int reportCallError(const std::string& path, const bus_error_t& error, int r) {
    if (isUnknownPath(error.name())) {
        std::fprintf(stderr, "orv-cli: unknown path %s: %s\n", path.c_str(), error.message());
    } else if (error.name()[0] != '\0') {
        std::fprintf(stderr, "orv-cli: %s failed: %s: %s\n", path.c_str(), error.name(),
                     error.message());
    } else {
        complain(path + " failed", r);
    }
    return kFailed;
}

// A method call to the path's object, not starting services that are not
// running, so that an unknown root is reported as such. Null after a message.
message_ptr newCall(sd_bus* bus, const std::string& path, const char* interface,
                    const char* member) {
    const auto name = busName(path);
    if (!name) {
        return nullptr;
    }
    sd_bus_message* raw = nullptr;
    int r = sd_bus_message_new_method_call(bus, &raw, name->c_str(),
                                           orv_dbus_objectPath(path).c_str(), interface, member);
    message_ptr m(raw);
    if (r >= 0) {
        r = sd_bus_message_set_auto_start(raw, 0);
    }
    if (r < 0) {
        complain("cannot call " + std::string(member) + " on " + path, r);
        return nullptr;
    }
    return m;
}

// Sends the call; the reply, or null after a message on stderr.
message_ptr send(sd_bus* bus, const std::string& path, sd_bus_message* m) {
    bus_error_t error;
    sd_bus_message* raw = nullptr;
    const int r = sd_bus_call(bus, m, 0, error.get(), &raw);
    message_ptr reply(raw);
    if (r < 0) {
        reportCallError(path, error, r);
        return nullptr;
    }
    return reply;
}

std::optional<variant_map_t> parseArguments(const std::string& json) {
    auto parsed = variant_fromJSON(json);
    if (!parsed) {
        std::fprintf(stderr, "orv-cli: bad JSON arguments: not valid JSON\n");
        return std::nullopt;
    }
    if (parsed->map() == nullptr) {
        std::fprintf(stderr, "orv-cli: bad JSON arguments: not an object\n");
        return std::nullopt;
    }
    return std::move(*parsed->map());
}

// --- call -----------------------------------------------------------------

int printCallReply(const std::string& path, sd_bus_message* reply) {
    variant_t result;
    variant_map_t out;
    int r = orv_dbus_readVariant(reply, &result);
    if (r >= 0) {
        r = orv_dbus_readMap(reply, &out);
    }
    if (r < 0) {
        complain("unexpected reply from " + path, r);
        return kFailed;
    }
    variant_map_t printed;
    printed.push_back({"return", std::move(result)});
    printed.push_back({"out", variant_t(std::move(out))});
    const variant_t line(std::move(printed));
    printLine(variant_toJSON(&line));
    return 0;
}

int runCall(const args_t& args) {
    const auto arguments = parseArguments(args.json);
    if (!arguments) {
        return kFailed;
    }
    bus_ptr bus = connect(args);
    if (!bus) {
        return kFailed;
    }
    message_ptr m = newCall(bus.get(), args.path, orv_dbus_interface, args.function.c_str());
    if (!m) {
        return kFailed;
    }
    const int r = orv_dbus_appendMap(m.get(), *arguments);
    if (r < 0) {
        complain("cannot send the arguments", r);
        return kFailed;
    }
    message_ptr reply = send(bus.get(), args.path, m.get());
    return reply ? printCallReply(args.path, reply.get()) : kFailed;
}

// --- get ------------------------------------------------------------------

int runGet(const args_t& args) {
    bus_ptr bus = connect(args);
    if (!bus) {
        return kFailed;
    }
    message_ptr m = newCall(bus.get(), args.path, "org.freedesktop.DBus.Properties", "GetAll");
    if (!m) {
        return kFailed;
    }
    int r = sd_bus_message_append(m.get(), "s", orv_dbus_interface);
    if (r < 0) {
        complain("cannot ask for the parameters", r);
        return kFailed;
    }
    message_ptr reply = send(bus.get(), args.path, m.get());
    if (!reply) {
        return kFailed;
    }
    variant_map_t parameters;
    r = orv_dbus_readMap(reply.get(), &parameters);
    if (r < 0) {
        complain("unexpected reply from " + args.path, r);
        return kFailed;
    }
    const variant_t printed(std::move(parameters));
    printLine(variant_toJSON(&printed));
    return 0;
}

// --- list -----------------------------------------------------------------

// The names of the <node name="..."/> children in introspection data.
std::vector<std::string> childNodes(std::string_view xml) {
    constexpr std::string_view kTag = "<node name=\"";
    std::vector<std::string> names;
    for (auto at = xml.find(kTag); at != std::string_view::npos; at = xml.find(kTag, at)) {
        at += kTag.size();
        const auto end = xml.find('"', at);
        if (end == std::string_view::npos) {
            break;
        }
        const std::string_view name = xml.substr(at, end - at);
        // Some services name the introspected node itself with its full path.
        if (!name.empty() && name.front() != '/') {
            names.emplace_back(name);
        }
    }
    return names;
}

int runList(const args_t& args) {
    bus_ptr bus = connect(args);
    if (!bus) {
        return kFailed;
    }
    message_ptr m =
        newCall(bus.get(), args.path, "org.freedesktop.DBus.Introspectable", "Introspect");
    message_ptr reply = m ? send(bus.get(), args.path, m.get()) : nullptr;
    if (!reply) {
        return kFailed;
    }
    const char* xml = nullptr;
    const int r = sd_bus_message_read(reply.get(), "s", &xml);
    if (r < 0) {
        complain("unexpected reply from " + args.path, r);
        return kFailed;
    }
    variant_list_t children;
    for (const auto& name : childNodes(xml)) {
        const auto label = orv_dbus_unescapeLabel(name);
        if (label) {
            children.emplace_back(args.path + "." + *label);
        }
    }
    const variant_t printed(std::move(children));
    printLine(variant_toJSON(&printed));
    return 0;
}

// --- serve and watch: the programs that stay on the bus ---------------------

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
    static std::unique_ptr<session_t> open(const args_t& args);
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

std::unique_ptr<session_t> session_t::open(const args_t& args) {
    std::string error;
    auto loop = orv_sd_loop_t::create(&error);
    if (!loop) {
        std::fprintf(stderr, "orv-cli: cannot create the event loop: %s\n", error.c_str());
        return nullptr;
    }
    bus_ptr bus = connect(args);
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
        complain("cannot attach the bus to the loop", r);
        return false;
    }
    return true;
}

int session_t::run() {
    const int r = loop_->run();
    if (r < 0) {
        complain("the event loop failed", r);
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

// --- serve ----------------------------------------------------------------

class server_t {
  public:
    server_t(session_t* session, const args_t& args) : session_(session), args_(args) {}
    server_t(const server_t&) = delete;
    server_t& operator=(const server_t&) = delete;
    // 0, or the exit code after a message on stderr.
    int start();

  private:
    static int onCall(sd_bus_message* m, void* userdata, sd_bus_error*);
    int answer(sd_bus_message* m);
    void buildVtable();

    session_t* session_;
    const args_t& args_;
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
    const auto name = busName(args_.path);
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
        complain("cannot serve " + args_.path, r);
        return kFailed;
    }
    r = sd_bus_request_name(bus, name_.c_str(), 0);
    if (r < 0) {
        complain("cannot own the name " + name_, r);
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
    printLine(variant_toJSON(&printed));
    return sd_bus_reply_method_return(m, "va{sv}", "b", 1, 0);
}

int runServe(const args_t& args) {
    auto session = session_t::open(args);
    if (!session) {
        return kFailed;
    }
    server_t server(session.get(), args);
    const int code = server.start();
    return code != 0 ? code : session->run();
}

// --- watch ----------------------------------------------------------------

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
            complain("ignored a malformed notification", r < 0 ? r : -EBADMSG);
            return 0;
        }
        variant_map_t line;
        line.push_back({"type", variant_t(type)});
        line.push_back({"path", variant_t(*path)});
        line.push_back({"parameters", variant_t(std::move(parameters))});
        const variant_t printed(std::move(line));
        printLine(variant_toJSON(&printed));
    } catch (...) {
        complain("cannot print a notification", -ENOMEM);
    }
    return 0;
}

int runWatch(const args_t& args) {
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
        complain("cannot watch " + args.path, r);
        return kFailed;
    }
    return session->run();
}

// --- the command table ------------------------------------------------------

struct command_t {
    const char* name;
    const char* description;
    void (*setup)(CLI::App* command, args_t* args);
};

void addPath(CLI::App* command, args_t* args) {
    command->add_option("PATH", args->path, "data-model path, e.g. Device.Light")->required();
}

// schedule add|show|next|svg: the text form and the pictures.
void addScheduleCommands(CLI::App* command, args_t* args) {
    cli_addScheduleCommands(command, &args->schedule, [args](cli_schedule_run_t run) {
        args->scheduleRun = run;
        args->run = [](const args_t& a) { return a.scheduleRun(a.bus, a.schedule); };
    });
}

const std::array<command_t, 6> kCommands{{
    {"call", "call a function with named arguments given as a JSON object",
     [](CLI::App* command, args_t* args) {
         addPath(command, args);
         command->add_option("FUNCTION", args->function, "function name")->required();
         command->add_option("JSON", args->json, "the arguments")->capture_default_str();
         command->callback([args] { args->run = runCall; });
     }},
    {"serve", "serve an object whose functions print their calls and answer true",
     [](CLI::App* command, args_t* args) {
         addPath(command, args);
         command->add_option("--function", args->functions, "a function to serve (repeatable)");
         command->callback([args] {
             if (args->functions.empty()) {
                 args->functions.emplace_back("setState");
             }
             args->run = runServe;
         });
     }},
    {"get", "print the parameters of an object",
     [](CLI::App* command, args_t* args) {
         addPath(command, args);
         command->callback([args] { args->run = runGet; });
     }},
    {"list", "print the child objects of an object",
     [](CLI::App* command, args_t* args) {
         addPath(command, args);
         command->callback([args] { args->run = runList; });
     }},
    {"watch", "print the notifications of an object and of the objects below it",
     [](CLI::App* command, args_t* args) {
         addPath(command, args);
         command->callback([args] { args->run = runWatch; });
     }},
    {"schedule", "schedules as text and pictures: add, show, next, svg", addScheduleCommands},
}};

// 0 to go on, or the exit code.
int parseOptions(int argc, char** argv, args_t* args) {
    CLI::App app{"orv-cli: the data model on D-Bus"};
    app.add_option("--bus", args->bus, "session, system or a D-Bus address")->capture_default_str();
    app.require_subcommand(1);
    for (const auto& command : kCommands) {
        command.setup(app.add_subcommand(command.name, command.description), args);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? -1 : kFailed;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        args_t args;
        const int code = parseOptions(argc, argv, &args);
        if (code != 0) {
            return code < 0 ? 0 : code;
        }
        return args.run(args);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "orv-cli: %s\n", e.what());
        return kFailed;
    }
}
