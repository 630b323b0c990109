// orv-cli call, get and list: one method call each, its answer printed as
// one line of JSON.
#include <systemd/sd-bus.h>

#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cli_object.h"
#include "orv/dbus_value.h"
#include "orv/protocol.h"
#include "orv/variant.h"
#include "orv/variant_map.h"

namespace {

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

int printCallReply(const std::string& what, sd_bus_message* reply) {
    variant_t result;
    variant_map_t out;
    int r = orv_dbus_readVariant(reply, &result);
    if (r >= 0) {
        r = orv_dbus_readMap(reply, &out);
    }
    if (r < 0) {
        cli_complain("unexpected reply from " + what, r);
        return kFailed;
    }
    // A refusal names its reason in the out-argument "error".
    const variant_t* error = variant_map_find(&out, "error");
    const std::optional<std::string> reason = error != nullptr ? variant_char(error) : std::nullopt;
    variant_map_t printed;
    printed.push_back({"return", std::move(result)});
    printed.push_back({"out", variant_t(std::move(out))});
    const variant_t line(std::move(printed));
    cli_printLine(variant_toJSON(&line));
    if (reason) {
        std::fprintf(stderr, "orv-cli: %s refused: %s\n", what.c_str(), reason->c_str());
        return kRefused;
    }
    return 0;
}

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

}  // namespace

int cli_runCall(const cli_args_t& args) {
    const auto arguments = parseArguments(args.json);
    if (!arguments) {
        return kFailed;
    }
    bus_ptr bus = cli_openBus(args);
    if (!bus) {
        return kFailed;
    }
    message_ptr m = cli_newCall(bus.get(), args.path, orv_dbus_interface, args.function.c_str());
    if (!m) {
        return kFailed;
    }
    const int r = orv_dbus_appendMap(m.get(), *arguments);
    if (r < 0) {
        cli_complain("cannot send the arguments", r);
        return kFailed;
    }
    message_ptr reply = cli_send(bus.get(), args.path, m.get());
    return reply ? printCallReply(args.path + "." + args.function, reply.get()) : kFailed;
}

int cli_runGet(const cli_args_t& args) {
    bus_ptr bus = cli_openBus(args);
    if (!bus) {
        return kFailed;
    }
    message_ptr m = cli_newCall(bus.get(), args.path, "org.freedesktop.DBus.Properties", "GetAll");
    if (!m) {
        return kFailed;
    }
    int r = sd_bus_message_append(m.get(), "s", orv_dbus_interface);
    if (r < 0) {
        cli_complain("cannot ask for the parameters", r);
        return kFailed;
    }
    message_ptr reply = cli_send(bus.get(), args.path, m.get());
    if (!reply) {
        return kFailed;
    }
    variant_map_t parameters;
    r = orv_dbus_readMap(reply.get(), &parameters);
    if (r < 0) {
        cli_complain("unexpected reply from " + args.path, r);
        return kFailed;
    }
    const variant_t printed(std::move(parameters));
    cli_printLine(variant_toJSON(&printed));
    return 0;
}

int cli_runList(const cli_args_t& args) {
    bus_ptr bus = cli_openBus(args);
    if (!bus) {
        return kFailed;
    }
    message_ptr m =
        cli_newCall(bus.get(), args.path, "org.freedesktop.DBus.Introspectable", "Introspect");
    message_ptr reply = m ? cli_send(bus.get(), args.path, m.get()) : nullptr;
    if (!reply) {
        return kFailed;
    }
    const char* xml = nullptr;
    const int r = sd_bus_message_read(reply.get(), "s", &xml);
    if (r < 0) {
        cli_complain("unexpected reply from " + args.path, r);
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
    cli_printLine(variant_toJSON(&printed));
    return 0;
}
