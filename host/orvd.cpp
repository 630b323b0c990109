// orvd: the host daemon. It loads plug-ins with their data-model definitions,
// serves the model on D-Bus under org.orv.<root> for each root object, carries
// the plug-ins' requests to other services and runs the event loop. SIGTERM
// and SIGINT end it cleanly with exit 0; losing the bus ends it with exit 1.
// SIGHUP reopens the log and rereads the trace levels, SIGUSR1 logs a status
// line, and SIGUSR2 and SIGPIPE are ignored.
#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "orv/context.h"
#include "orv/dbus_export.h"
#include "orv/dbus_handle.h"
#include "orv/dbus_transport.h"
#include "orv/dbus_value.h"
#include "orv/function.h"
#include "orv/object.h"
#include "orv/plugin.h"
#include "orv/sd_loop.h"
#include "orv/service_runtime.h"
#include "orv/trace.h"

namespace {

constexpr int kFailed = 1;

struct options_t {
    std::vector<std::string> plugins;
    std::vector<std::string> definitions;
    std::string bus = "session";
    int traceLevel = 200;
    orv_service_options_t service;
};

void complain(const std::string& text) {
    std::fprintf(stderr, "orvd: %s\n", text.c_str());
}

// A loaded plug-in and the context it was initialised with.
struct hosted_t {
    std::unique_ptr<orv_plugin_t> plugin;
    std::unique_ptr<orv_context_t> context;
    bool initialized = false;
};

class host_t {
  public:
    host_t() = default;
    ~host_t() { shutdown(); }
    host_t(const host_t&) = delete;
    host_t& operator=(const host_t&) = delete;

    // Each step is false after a message on stderr.
    bool start(const options_t& options);
    int run();

  private:
    static int onBusMessage(sd_bus_message* m, void* userdata, sd_bus_error*) noexcept;
    bool loadDefinitions(const options_t& options, std::vector<std::size_t>* firsts);
    bool connect(const std::string& bus);
    bool loadPlugins(const options_t& options, const std::vector<std::size_t>& firsts);
    bool initializePlugins();
    bool ownNames();
    void shutdown();
    // The plug-ins' own status lines, for SIGUSR1.
    std::string status() const;

    std::unique_ptr<orv_sd_loop_t> loop_;
    std::unique_ptr<orv_service_runtime_t> runtime_;
    std::unique_ptr<datamodel_t> model_;
    orv_bus_ptr bus_;
    orv_slot_ptr filter_;
    std::unique_ptr<orv_dbus_transport_t> transport_;
    std::unique_ptr<orv_dbus_export_t> export_;
    std::vector<hosted_t> hosted_;
    std::vector<std::string> names_;
};

// Loads the definitions in order; firsts holds, per file, the index of its
// first definition so that each plug-in binds the functions of its own file.
bool host_t::loadDefinitions(const options_t& options, std::vector<std::size_t>* firsts) {
    model_ = std::make_unique<datamodel_t>();
    for (const std::string& file : options.definitions) {
        firsts->push_back(model_->definitions().size());
        if (auto error = model_->loadFile(file)) {
            complain("cannot load the definition " + file + ": " + *error);
            return false;
        }
    }
    return true;
}

bool host_t::connect(const std::string& which) {
    int r = 0;
    bus_ = orv_dbus_open(which, "orvd", &r);
    if (r < 0) {
        complain("cannot connect to the " + which + " bus: " + std::strerror(-r));
        return false;
    }
    sd_bus_slot* slot = nullptr;
    r = sd_bus_add_filter(bus_.get(), &slot, onBusMessage, this);
    filter_.reset(slot);
    if (r >= 0) {
        r = sd_bus_attach_event(bus_.get(), loop_->event(), 0);
    }
    if (r < 0) {
        complain(std::string("cannot attach the bus to the loop: ") + std::strerror(-r));
        return false;
    }
    std::string error;
    transport_ = orv_dbus_transport_t::create(bus_.get(), loop_.get(), &error);
    if (transport_) {
        export_ = orv_dbus_export_t::create(bus_.get(), model_.get(), &error);
    }
    if (!transport_ || !export_) {
        complain(error);
        return false;
    }
    return true;
}

bool host_t::loadPlugins(const options_t& options, const std::vector<std::size_t>& firsts) {
    for (std::size_t i = 0; i < options.plugins.size(); ++i) {
        std::string error;
        hosted_t hosted;
        hosted.plugin = orv_plugin_t::load(options.plugins[i], &error);
        if (!hosted.plugin) {
            complain("cannot load the plug-in " + options.plugins[i] + ": " + error);
            return false;
        }
        const std::size_t end =
            i + 1 < firsts.size() ? firsts[i + 1] : model_->definitions().size();
        for (std::size_t d = firsts[i]; d < end; ++d) {
            const orv_plugin_t* plugin = hosted.plugin.get();
            for (const std::string& name :
                 function_bindAll(model_->definitions()[d].get(),
                                  [plugin](const std::string& f) { return plugin->handler(f); })) {
                complain("warning: " + options.plugins[i] + " has no handler for " + name);
            }
        }
        hosted.context =
            std::make_unique<orv_context_t>(loop_.get(), model_.get(), transport_.get());
        hosted_.push_back(std::move(hosted));
    }
    return true;
}

bool host_t::initializePlugins() {
    for (hosted_t& hosted : hosted_) {
        hosted.initialized = hosted.plugin->initialize(hosted.context.get());
        if (!hosted.initialized) {
            complain("the plug-in " + hosted.plugin->path() + " failed to initialise");
            return false;
        }
    }
    return true;
}

// The names go last, so that a client that sees them finds a ready service.
bool host_t::ownNames() {
    for (const auto& definition : model_->definitions()) {
        for (const auto& object : definition->objects) {
            const std::string name = orv_dbus_busName(object->name);
            const int r = sd_bus_request_name(bus_.get(), name.c_str(), 0);
            if (r == -EEXIST || r == -EALREADY) {
                complain("cannot own the name " + name + ": another process owns it");
                return false;
            }
            if (r < 0) {
                complain("cannot own the name " + name + ": " + std::strerror(-r));
                return false;
            }
            names_.push_back(name);
        }
    }
    return true;
}

bool host_t::start(const options_t& options) {
    std::string error;
    loop_ = orv_sd_loop_t::create(&error);
    if (!loop_) {
        complain("cannot create the event loop: " + error);
        return false;
    }
    orv_loop_setDefault(loop_.get());
    runtime_ = orv_service_runtime_t::start(
        *loop_, options.service, [this] { loop_->exit(0); }, [this] { return status(); }, &error);
    if (!runtime_) {
        complain(error);
        return false;
    }
    std::vector<std::size_t> firsts;
    return loadDefinitions(options, &firsts) && connect(options.bus) &&
           loadPlugins(options, firsts) && initializePlugins() && ownNames();
}

int host_t::run() {
    const int r = loop_->run();
    if (r < 0) {
        complain(std::string("the event loop failed: ") + std::strerror(-r));
        return kFailed;
    }
    return r;
}

std::string host_t::status() const {
    std::string text;
    for (const hosted_t& hosted : hosted_) {
        const std::string own = hosted.initialized ? hosted.plugin->status() : std::string();
        if (!own.empty()) {
            text += (text.empty() ? "" : "; ") + own;
        }
    }
    return text;
}

// sd-bus reports the loss of the connection as a local signal.
int host_t::onBusMessage(sd_bus_message* m, void* userdata, sd_bus_error*) noexcept {
    if (sd_bus_message_is_signal(m, "org.freedesktop.DBus.Local", "Disconnected") > 0) {
        std::fputs("orvd: lost the connection to the bus\n", stderr);
        static_cast<host_t*>(userdata)->loop_->exit(kFailed);
    }
    return 0;
}

// The plug-ins clean up while the bus still carries what they send; their
// handlers stay loaded until the instances that use them are destroyed.
void host_t::shutdown() {
    for (const std::string& name : names_) {
        sd_bus_release_name(bus_.get(), name.c_str());
    }
    names_.clear();
    for (auto it = hosted_.rbegin(); it != hosted_.rend(); ++it) {
        if (it->initialized) {
            it->plugin->cleanup();
            it->initialized = false;
        }
    }
    for (hosted_t& hosted : hosted_) {
        hosted.context.reset();
    }
    export_.reset();
    if (model_) {
        model_->clear();
    }
    transport_.reset();
    hosted_.clear();
    filter_.reset();
    bus_.reset();
    orv_loop_setDefault(nullptr);
    runtime_.reset();
    loop_.reset();
}

// 0 to go on, or the exit code after CLI11 printed help or an error.
int parse(int argc, char** argv, options_t* options) {
    CLI::App app("The host daemon: serves plug-ins and their data model on D-Bus.", "orvd");
    app.add_option("--plugin", options->plugins, "a plug-in to load (repeatable)")->required();
    app.add_option("--definition", options->definitions,
                   "the data-model definition of the plug-in at the same position")
        ->required();
    app.add_option("--bus", options->bus, "session, system or a bus address")
        ->capture_default_str();
    app.add_option("--trace-level", options->traceLevel,
                   "level of the trace messages outside a zone")
        ->capture_default_str();
    orv_addServiceOptions(app, &options->service);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // Help ends with 0, a usage error with 2, like the other programs.
        return app.exit(e) == 0 ? -1 : 2;
    }
    if (options->plugins.size() != options->definitions.size()) {
        complain("give one --definition for each --plugin");
        return 2;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    options_t options;
    if (const int code = parse(argc, argv, &options)) {
        return code < 0 ? 0 : code;
    }
    tolvTraceSetLevel(options.traceLevel);
    // Without TZ, every mktime looks at /etc/localtime again. Pinning it
    // reads the zone once; the scheduler reads it again when the Time
    // service reports that the zone changed.
    if (std::getenv("TZ") == nullptr) {
        setenv("TZ", ":/etc/localtime", 1);
    }
    try {
        host_t host;
        return host.start(options) ? host.run() : kFailed;
    } catch (const std::exception& e) {
        complain(std::string("stopped: ") + e.what());
        return kFailed;
    }
}
