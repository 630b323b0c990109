// Growable texts and string lists.
#include "orv/string.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "orv/error.h"

bool string_appendFormatV(std::string* string, const char* format, va_list args) {
    if (string == nullptr || format == nullptr) {
        orv_setError(orv_error_invalid_argument);
        return false;
    }
    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (length < 0) {
        orv_setError(orv_error_invalid_value);
        return false;
    }
    // Format into a buffer of its own: an argument may point into string.
    std::string formatted(static_cast<std::size_t>(length) + 1, '\0');
    const int written = std::vsnprintf(formatted.data(), formatted.size(), format, args);
    if (written != length) {
        orv_setError(orv_error_invalid_value);
        return false;
    }
    formatted.resize(static_cast<std::size_t>(length));
    string->append(formatted);
    return true;
}

bool string_appendFormat(std::string* string, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const bool ok = string_appendFormatV(string, format, args);
    va_end(args);
    return ok;
}

std::string string_format(const char* format, ...) {
    std::string result;
    va_list args;
    va_start(args, format);
    if (!string_appendFormatV(&result, format, args)) {
        result.clear();
    }
    va_end(args);
    return result;
}

void string_prependChar(std::string* string, std::string_view text) {
    if (string == nullptr) {
        return;
    }
    std::string copy(text);  // text may point into string
    string->insert(0, copy);
}

bool string_list_contains(const string_list_t* list, std::string_view text) {
    if (list == nullptr) {
        return false;
    }
    return std::find(list->begin(), list->end(), text) != list->end();
}

bool string_list_append(string_list_t* list, std::string_view text) {
    if (list == nullptr) {
        orv_setError(orv_error_invalid_argument);
        return false;
    }
    list->emplace_back(text);
    return true;
}

std::optional<std::string> string_list_takeFirst(string_list_t* list) {
    if (list == nullptr || list->empty()) {
        return std::nullopt;
    }
    std::string first = std::move(list->front());
    list->pop_front();
    return first;
}

void string_list_cleanup(string_list_t* list) {
    if (list != nullptr) {
        list->clear();
    }
}
