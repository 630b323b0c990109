// orv-time: the gateway's Time service on D-Bus.
//
// It publishes whether the system clock is synchronised (property Status on
// /Time) and announces when the clock is set or the local time zone changes,
// so that time-based services know when to recompute their plans.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "orv/sd_loop.h"
#include "orv/service_runtime.h"
#include "time_service.h"
#include "tool_bus.h"

namespace {

struct options_t {
    std::string bus = "session";
    std::string status = "auto";
    orv_service_options_t service;
};

// 0 to go on, or the exit code.
int parseOptions(int argc, char** argv, options_t* options) {
    CLI::App app{"orv-time: the Time service on D-Bus"};
    app.add_option("--bus", options->bus, "session, system or a D-Bus address")
        ->capture_default_str();
    app.add_option("--status", options->status, "auto, or a forced status")
        ->check(CLI::IsMember({"auto", kSynchronized, kUnsynchronized}))
        ->capture_default_str();
    orv_addServiceOptions(app, &options->service);
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
        time_complain("cannot connect to the " + options.bus + " bus", r);
        return 1;
    }
    std::optional<std::string> forced;
    if (options.status != "auto") {
        forced = options.status;
    }
    time_service_t service(loop.get(), std::move(bus), forced);
    const int code = service.start(options.service);
    if (code != 0) {
        return code;
    }
    r = loop->run();
    if (r < 0) {
        time_complain("the event loop failed", r);
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
