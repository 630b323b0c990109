// The D-Bus binding of liborv: data-model paths as object paths and variants
// as D-Bus values.
//
// A data-model path "A.B.C" is the object path "/A/B/C"; each element is
// escaped on its own (every byte outside [A-Za-z0-9] becomes "_" and two
// lower-case hex digits, an empty element becomes "_"). The root path "" is
// "/".
//
// Outgoing values: text "s", bool "b", 8- to 32-bit unsigned "u", 8- to
// 32-bit signed "i", uint64 "t", int64 "x", double "d", list "av", map
// "a{sv}", and a date-time as "s" in ISO 8601 UTC. The empty variant has no
// D-Bus form and is refused.
//
// Incoming values: the same, plus "y" and "q" as uint32, "n" and "h" as int32,
// "o" and "g" as text, any array as a list (an array of dict entries as a map
// keyed by the text form of its keys; a repeated key keeps its last value),
// structs as lists, and nested variants unwrapped.
//
// The value functions return 0 on success and a negative errno on failure; a
// failed read leaves *out empty. Values nested deeper than 64 containers
// (arrays, structs, variants, dict entries) are refused with -ELOOP in both
// directions, so a hostile message cannot exhaust the stack.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "orv/variant.h"

struct sd_bus_message;

// One path element. Escaping cannot fail on valid input; it returns "" only
// when memory runs out. Unescaping accepts only what escaping produces
// (lower-case hex, no escaped letters or digits) and gives nullopt otherwise.
std::string orv_dbus_escapeLabel(std::string_view label) noexcept;
std::optional<std::string> orv_dbus_unescapeLabel(std::string_view label) noexcept;

// "Scheduler.Types.Light" -> "/Scheduler/Types/Light"; "" when memory runs out.
std::string orv_dbus_objectPath(std::string_view path) noexcept;
// The reverse; nullopt for an invalid object path or one that no data-model
// path maps to.
std::optional<std::string> orv_dbus_dataModelPath(std::string_view objectPath) noexcept;

// The D-Bus signature of a value of that type ("s" for a date-time), or null
// for the empty type.
const char* orv_dbus_signature(variant_type_t type) noexcept;

// The bus name of the process that serves the path's root object:
// "Device.Light" -> "org.orv.Device"; "" when the path has no root.
std::string orv_dbus_busName(std::string_view path) noexcept;
// The reverse: the root object a bus name stands for ("org.orv.Time" ->
// "Time"), nullopt for a name outside org.orv.
std::optional<std::string> orv_dbus_rootOfBusName(std::string_view name) noexcept;

// Append one "v" holding value, or one "a{sv}" holding map.
int orv_dbus_appendVariant(sd_bus_message* m, const variant_t& value) noexcept;
int orv_dbus_appendMap(sd_bus_message* m, const variant_map_t& map) noexcept;

// Read one "v", the next complete value of any type, or one "a{sv}". A value
// of another type than the one asked for gives -ENXIO, a missing one -EBADMSG.
int orv_dbus_readVariant(sd_bus_message* m, variant_t* out) noexcept;
int orv_dbus_readValue(sd_bus_message* m, variant_t* out) noexcept;
int orv_dbus_readMap(sd_bus_message* m, variant_map_t* out) noexcept;
