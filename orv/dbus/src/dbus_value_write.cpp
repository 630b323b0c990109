// Variants written into D-Bus messages.
#include <systemd/sd-bus.h>

#include <cstdint>
#include <optional>
#include <string>

#include "dbus_value_internal.h"
#include "orv/dbus_value.h"

using dbus_detail::convert;
using dbus_detail::tooDeep;

namespace {

int appendVariant(sd_bus_message* m, const variant_t& value, int depth);

const char* signatureOf(variant_type_t type) {
    switch (type) {
        case variant_type_string:
        case variant_type_date_time:
            return "s";
        case variant_type_bool:
            return "b";
        case variant_type_int8:
        case variant_type_int16:
        case variant_type_int32:
            return "i";
        case variant_type_uint8:
        case variant_type_uint16:
        case variant_type_uint32:
            return "u";
        case variant_type_int64:
            return "x";
        case variant_type_uint64:
            return "t";
        case variant_type_double:
            return "d";
        case variant_type_array:
            return "av";
        case variant_type_map:
            return "a{sv}";
        case variant_type_unknown:
            break;
    }
    return nullptr;
}

// D-Bus strings end at the first NUL, so a text holding one would arrive cut.
int appendText(sd_bus_message* m, const std::string& text) {
    if (text.find('\0') != std::string::npos) {
        return -EINVAL;
    }
    return sd_bus_message_append_basic(m, 's', text.c_str());
}

template <typename T>
int appendNumber(sd_bus_message* m, char type, std::optional<T> value) {
    if (!value) {
        return -EINVAL;
    }
    const T number = *value;
    return sd_bus_message_append_basic(m, type, &number);
}

int appendBool(sd_bus_message* m, std::optional<bool> value) {
    return appendNumber(m, 'b', value ? std::optional<int>(*value ? 1 : 0) : std::nullopt);
}

int appendDateTime(sd_bus_message* m, std::optional<std::int64_t> seconds) {
    if (!seconds) {
        return -EINVAL;
    }
    return appendText(m, orv_isoTime(*seconds));
}

int appendScalar(sd_bus_message* m, const variant_t& value, char type) {
    switch (type) {
        case 'b':
            return appendBool(m, variant_toBool(&value));
        case 'i':
            return appendNumber(m, type, variant_toInt32(&value));
        case 'u':
            return appendNumber(m, type, variant_toUInt32(&value));
        case 'x':
            return appendNumber(m, type, variant_toInt64(&value));
        case 't':
            return appendNumber(m, type, variant_toUInt64(&value));
        case 'd':
            return appendNumber(m, type, variant_toDouble(&value));
        default:
            break;
    }
    if (value.type() == variant_type_date_time) {
        return appendDateTime(m, variant_toDateTime(&value));
    }
    const std::string* text = value.text();
    return text != nullptr ? appendText(m, *text) : -EINVAL;
}

int appendList(sd_bus_message* m, const variant_list_t* list, int depth) {
    if (tooDeep(depth)) {
        return -ELOOP;
    }
    int r = sd_bus_message_open_container(m, 'a', "v");
    for (std::size_t i = 0; list != nullptr && r >= 0 && i < list->size(); ++i) {
        r = appendVariant(m, (*list)[i], depth + 1);
    }
    return r < 0 ? r : sd_bus_message_close_container(m);
}

int appendEntry(sd_bus_message* m, const variant_map_entry_t& entry, int depth) {
    if (tooDeep(depth)) {
        return -ELOOP;
    }
    int r = sd_bus_message_open_container(m, 'e', "sv");
    if (r >= 0) {
        r = appendText(m, entry.key);
    }
    if (r >= 0) {
        r = appendVariant(m, entry.value, depth + 1);
    }
    return r < 0 ? r : sd_bus_message_close_container(m);
}

int appendEntries(sd_bus_message* m, const variant_map_t* map, int depth) {
    if (tooDeep(depth)) {
        return -ELOOP;
    }
    int r = sd_bus_message_open_container(m, 'a', "{sv}");
    for (std::size_t i = 0; map != nullptr && r >= 0 && i < map->size(); ++i) {
        r = appendEntry(m, (*map)[i], depth + 1);
    }
    return r < 0 ? r : sd_bus_message_close_container(m);
}

int appendVariant(sd_bus_message* m, const variant_t& value, int depth) {
    const char* signature = signatureOf(value.type());
    if (signature == nullptr) {
        return -EINVAL;
    }
    if (tooDeep(depth)) {
        return -ELOOP;
    }
    int r = sd_bus_message_open_container(m, 'v', signature);
    if (r < 0) {
        return r;
    }
    if (value.type() == variant_type_array) {
        r = appendList(m, value.list(), depth + 1);
    } else if (value.type() == variant_type_map) {
        r = appendEntries(m, value.map(), depth + 1);
    } else {
        r = appendScalar(m, value, signature[0]);
    }
    return r < 0 ? r : sd_bus_message_close_container(m);
}

}  // namespace

int orv_dbus_appendVariant(sd_bus_message* m, const variant_t& value) noexcept {
    if (m == nullptr) {
        return -EINVAL;
    }
    return convert([&] { return appendVariant(m, value, 0); });
}

int orv_dbus_appendMap(sd_bus_message* m, const variant_map_t& map) noexcept {
    if (m == nullptr) {
        return -EINVAL;
    }
    return convert([&] { return appendEntries(m, &map, 0); });
}

const char* orv_dbus_signature(variant_type_t type) noexcept {
    return signatureOf(type);
}
