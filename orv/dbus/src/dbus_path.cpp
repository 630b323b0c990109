// Data-model paths as D-Bus object paths, and the bus names of root
// objects.
#include <optional>
#include <string>
#include <string_view>

#include "dbus_value_internal.h"
#include "orv/dbus_value.h"
#include "orv/protocol.h"

using dbus_detail::guarded;

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

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
