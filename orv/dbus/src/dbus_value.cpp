// The D-Bus binding of liborv: path escaping and the conversion of variants
// to and from D-Bus values.
#include "orv/dbus_value.h"

#include <cerrno>
#include <cstdint>
#include <utility>

#include <systemd/sd-bus.h>

#include "orv/protocol.h"
#include "orv/variant_map.h"

namespace {

// Every container (array, struct, variant, dict entry) costs one level. A
// list costs two per level and a map three, which still leaves room for far
// deeper data than the plug-in ever exchanges.
constexpr int kMaxDepth = 64;

constexpr char kHexDigits[] = "0123456789abcdef";

bool tooDeep(int depth) {
    return depth >= kMaxDepth;
}

// sd-bus returns 0 when a container or the message has nothing left, which
// for a value that must be there is a malformed message.
int required(int r) {
    return r == 0 ? -EBADMSG : r;
}

// Runs fn and turns an exception (only allocation can throw) into fallback.
template <typename T, typename Fn>
T guarded(T fallback, Fn&& fn) noexcept {
    try {
        return fn();
    } catch (...) {
        return fallback;
    }
}

// Runs a value conversion: 0 on success (sd-bus returns assorted positive
// counts that mean nothing to callers), a negative errno on failure.
template <typename Fn>
int convert(Fn&& fn) noexcept {
    const int r = guarded(-ENOMEM, std::forward<Fn>(fn));
    return r < 0 ? r : 0;
}

// ---------------------------------------------------------------------------
// Paths

bool isPlain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

// Only lower-case digits, so that every label has a single spelling.
int hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    return -1;
}

std::string escapeLabel(std::string_view label) {
    if (label.empty()) {
        return "_";
    }
    std::string out;
    out.reserve(label.size());
    for (char c : label) {
        if (isPlain(c)) {
            out += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        out += '_';
        out += kHexDigits[byte >> 4];
        out += kHexDigits[byte & 0xf];
    }
    return out;
}

// The byte an escape "_xx" at the start of text stands for. A letter or a
// digit is never escaped, so an escape of one is refused.
std::optional<char> escapedByte(std::string_view text) {
    if (text.size() < 3 || text[0] != '_') {
        return std::nullopt;
    }
    const int high = hexValue(text[1]);
    const int low = hexValue(text[2]);
    if (high < 0 || low < 0) {
        return std::nullopt;
    }
    const char byte = static_cast<char>(high * 16 + low);
    if (isPlain(byte)) {
        return std::nullopt;
    }
    return byte;
}

std::optional<std::string> unescapeLabel(std::string_view label) {
    if (label == "_") {
        return std::string();
    }
    if (label.empty()) {
        return std::nullopt;
    }
    std::string out;
    while (!label.empty()) {
        if (isPlain(label[0])) {
            out += label[0];
            label.remove_prefix(1);
            continue;
        }
        const auto byte = escapedByte(label);
        if (!byte) {
            return std::nullopt;
        }
        out += *byte;
        label.remove_prefix(3);
    }
    return out;
}

std::string objectPath(std::string_view path) {
    if (path.empty()) {
        return "/";
    }
    std::string out;
    for (;;) {
        const std::size_t dot = path.find('.');
        out += '/';
        out += escapeLabel(path.substr(0, dot));
        if (dot == std::string_view::npos) {
            return out;
        }
        path.remove_prefix(dot + 1);
    }
}

std::optional<std::string> dataModelPath(std::string_view path) {
    if (path == "/") {
        return std::string();
    }
    // "/_" would be the root again, which already has "/".
    if (path.size() < 2 || path[0] != '/' || path == "/_") {
        return std::nullopt;
    }
    path.remove_prefix(1);
    std::string out;
    for (;;) {
        const std::size_t slash = path.find('/');
        const auto label = unescapeLabel(path.substr(0, slash));
        // A dot inside an element would read back as two elements.
        if (!label || label->find('.') != std::string::npos) {
            return std::nullopt;
        }
        out += *label;
        if (slash == std::string_view::npos) {
            return out;
        }
        out += '.';
        path.remove_prefix(slash + 1);
    }
}

// ---------------------------------------------------------------------------
// Outgoing values

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

// ---------------------------------------------------------------------------
// Incoming values

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

std::string orv_dbus_escapeLabel(std::string_view label) noexcept {
    return guarded(std::string(), [&] { return escapeLabel(label); });
}

std::optional<std::string> orv_dbus_unescapeLabel(std::string_view label) noexcept {
    return guarded(std::optional<std::string>(), [&] { return unescapeLabel(label); });
}

std::string orv_dbus_objectPath(std::string_view path) noexcept {
    return guarded(std::string(), [&] { return objectPath(path); });
}

std::optional<std::string> orv_dbus_dataModelPath(std::string_view objectPath) noexcept {
    return guarded(std::optional<std::string>(), [&] { return dataModelPath(objectPath); });
}

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

const char* orv_dbus_signature(variant_type_t type) noexcept {
    return signatureOf(type);
}

std::string orv_dbus_busName(std::string_view path) noexcept {
    const std::string_view root = path.substr(0, path.find('.'));
    return root.empty() ? std::string() : guarded(std::string(), [&] {
        return std::string(orv_dbus_name_prefix) + std::string(root);
    });
}

std::optional<std::string> orv_dbus_rootOfBusName(std::string_view name) noexcept {
    if (name.size() <= orv_dbus_name_prefix.size() ||
        name.substr(0, orv_dbus_name_prefix.size()) != orv_dbus_name_prefix) {
        return std::nullopt;
    }
    return guarded(std::optional<std::string>(), [&] {
        return std::optional<std::string>(name.substr(orv_dbus_name_prefix.size()));
    });
}
