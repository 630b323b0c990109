// What the commands of orv-cli on objects share.
#include "cli_object.h"

#include <systemd/sd-bus.h>

#include <cstdio>

#include "orv/dbus_value.h"

namespace {

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
        cli_complain(path + " failed", r);
    }
    return kFailed;
}

}  // namespace

void cli_complain(std::string_view what, int r) {
    tool_complain("orv-cli", what, r);
}

void cli_printLine(const std::string& line) {
    std::fputs(line.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

bus_ptr cli_openBus(const cli_args_t& args) {
    int r = 0;
    bus_ptr bus = tool_openBus(args.bus, "orv-cli", &r);
    if (r < 0) {
        cli_complain("cannot connect to the " + args.bus + " bus", r);
        return nullptr;
    }
    return bus;
}

std::optional<std::string> cli_busName(const std::string& path) {
    std::string name = orv_dbus_busName(path);
    if (name.empty()) {
        std::fprintf(stderr, "orv-cli: the path \"%s\" has no root object\n", path.c_str());
        return std::nullopt;
    }
    return name;
}

message_ptr cli_newCall(sd_bus* bus, const std::string& path, const char* interface,
                        const char* member) {
    const auto name = cli_busName(path);
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
        cli_complain("cannot call " + std::string(member) + " on " + path, r);
        return nullptr;
    }
    return m;
}

message_ptr cli_send(sd_bus* bus, const std::string& path, sd_bus_message* m) {
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
