// Variants read from D-Bus messages.
#include <systemd/sd-bus.h>

#include <cstdint>
#include <string>
#include <utility>

#include "dbus_value_internal.h"
#include "orv/dbus_value.h"
#include "orv/variant_map.h"

using dbus_detail::convert;
using dbus_detail::required;
using dbus_detail::tooDeep;

namespace {

int readValue(sd_bus_message* m, variant_t* out, int depth);

// Reads a basic value as the wire type and stores it as the nearest variant.
template <typename Wire, typename Held>
int readAs(sd_bus_message* m, char type, variant_t* out) {
    Wire value{};
    const int r = required(sd_bus_message_read_basic(m, type, &value));
    if (r > 0) {
        *out = variant_t(static_cast<Held>(value));
    }
    return r;
}

int readBasic(sd_bus_message* m, char type, variant_t* out) {
    switch (type) {
        case 'y':
            return readAs<std::uint8_t, std::uint32_t>(m, type, out);
        case 'q':
            return readAs<std::uint16_t, std::uint32_t>(m, type, out);
        case 'u':
            return readAs<std::uint32_t, std::uint32_t>(m, type, out);
        case 'n':
            return readAs<std::int16_t, std::int32_t>(m, type, out);
        case 'i':
        case 'h':
            return readAs<std::int32_t, std::int32_t>(m, type, out);
        case 'b':
            return readAs<int, bool>(m, type, out);
        case 'x':
            return readAs<std::int64_t, std::int64_t>(m, type, out);
        case 't':
            return readAs<std::uint64_t, std::uint64_t>(m, type, out);
        case 'd':
            return readAs<double, double>(m, type, out);
        case 's':
        case 'o':
        case 'g':
            return readAs<const char*, const char*>(m, type, out);
        default:
            return -EBADMSG;
    }
}

// The elements of an array or a struct, up to the end of the container.
int readElements(sd_bus_message* m, variant_t* out, int depth) {
    variant_list_t list;
    int r = 0;
    while ((r = sd_bus_message_at_end(m, 0)) == 0) {
        variant_t element;
        r = readValue(m, &element, depth);
        if (r < 0) {
            return r;
        }
        list.push_back(std::move(element));
    }
    if (r > 0) {
        *out = variant_t(std::move(list));
    }
    return r;
}

void addEntry(variant_map_t* map, std::string key, variant_t value) {
    variant_t* present = variant_map_find(map, key);
    if (present != nullptr) {
        *present = std::move(value);
        return;
    }
    map->push_back(variant_map_entry_t{std::move(key), std::move(value)});
}

// Enters the next container, which must be of the given type, runs read(contents,
// depth) inside it one level deeper and leaves it. Without contents it takes
// the signature the message gives.
template <typename Read>
int inContainer(sd_bus_message* m, char type, const char* contents, int depth, Read&& read) {
    if (tooDeep(depth)) {
        return -ELOOP;
    }
    char peeked = 0;
    int r = required(sd_bus_message_peek_type(m, &peeked, contents ? nullptr : &contents));
    if (r < 0) {
        return r;
    }
    if (peeked != type) {
        return -ENXIO;
    }
    r = required(sd_bus_message_enter_container(m, type, contents));
    if (r >= 0) {
        r = read(contents, depth + 1);
    }
    return r < 0 ? r : sd_bus_message_exit_container(m);
}

// A dict entry: a basic key, taken in its text form, and any value.
int readEntry(sd_bus_message* m, variant_map_t* map, int depth) {
    variant_t key;
    variant_t value;
    int r = readValue(m, &key, depth);
    if (r >= 0) {
        r = readValue(m, &value, depth);
    }
    if (r < 0) {
        return r;
    }
    auto text = variant_toChar(&key);
    if (!text) {
        return -EBADMSG;
    }
    addEntry(map, std::move(*text), std::move(value));
    return r;
}

int readEntries(sd_bus_message* m, variant_t* out, int depth) {
    variant_map_t map;
    const auto entry = [&](const char*, int inner) { return readEntry(m, &map, inner); };
    int r = 0;
    while ((r = sd_bus_message_at_end(m, 0)) == 0) {
        r = inContainer(m, 'e', nullptr, depth, entry);
        if (r < 0) {
            return r;
        }
    }
    if (r > 0) {
        *out = variant_t(std::move(map));
    }
    return r;
}

// The value a container holds: a variant's content, a map for an array of
// dict entries, a list for any other array and for a struct.
int readContainer(sd_bus_message* m, char type, const char* contents, variant_t* out, int depth) {
    return inContainer(m, type, contents, depth, [&](const char* inside, int inner) {
        if (type == 'v') {
            return readValue(m, out, inner);
        }
        if (type == 'a' && inside[0] == '{') {
            return readEntries(m, out, inner);
        }
        return readElements(m, out, inner);
    });
}

int readValue(sd_bus_message* m, variant_t* out, int depth) {
    char type = 0;
    const char* contents = nullptr;
    const int r = required(sd_bus_message_peek_type(m, &type, &contents));
    if (r < 0) {
        return r;
    }
    if (type == 'a' || type == 'r' || type == 'v') {
        return readContainer(m, type, contents, out, depth);
    }
    return readBasic(m, type, out);
}

// Reads into a fresh variant and hands it over only once the whole value was
// read: a variant of type (any type for 0).
int readTop(sd_bus_message* m, char type, variant_t* out) {
    variant_t value;
    const int r = type == 0 ? readValue(m, &value, 0) : readContainer(m, type, nullptr, &value, 0);
    if (r >= 0) {
        *out = std::move(value);
    }
    return r;
}

int readMap(sd_bus_message* m, variant_map_t* out) {
    variant_t value;
    const int r = readContainer(m, 'a', "{sv}", &value, 0);
    if (r >= 0) {
        *out = std::move(*value.map());
    }
    return r;
}

}  // namespace

int orv_dbus_readVariant(sd_bus_message* m, variant_t* out) noexcept {
    if (m == nullptr || out == nullptr) {
        return -EINVAL;
    }
    variant_cleanup(out);
    return convert([&] { return readTop(m, 'v', out); });
}

int orv_dbus_readValue(sd_bus_message* m, variant_t* out) noexcept {
    if (m == nullptr || out == nullptr) {
        return -EINVAL;
    }
    variant_cleanup(out);
    return convert([&] { return readTop(m, 0, out); });
}

int orv_dbus_readMap(sd_bus_message* m, variant_map_t* out) noexcept {
    if (m == nullptr || out == nullptr) {
        return -EINVAL;
    }
    out->clear();
    return convert([&] { return readMap(m, out); });
}
