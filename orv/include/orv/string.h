// Growable texts and string lists. Texts are std::string; these add the
// printf-style building the trace and the simulation lines need, and the
// small queue of names the change notification keeps.
#pragma once

#include <cstdarg>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

// Appends printf-formatted text. Returns false on a formatting error.
bool string_appendFormat(std::string* string, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
bool string_appendFormatV(std::string* string, const char* format, va_list args)
    __attribute__((format(printf, 2, 0)));
// A new text made from a printf format.
std::string string_format(const char* format, ...) __attribute__((format(printf, 1, 2)));
void string_prependChar(std::string* string, std::string_view text);

// A list of texts in insertion order.
using string_list_t = std::deque<std::string>;

bool string_list_contains(const string_list_t* list, std::string_view text);
bool string_list_append(string_list_t* list, std::string_view text);
// Removes and returns the first text; nullopt for an empty list.
std::optional<std::string> string_list_takeFirst(string_list_t* list);
void string_list_cleanup(string_list_t* list);
