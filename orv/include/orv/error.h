// The library's last error, as the plug-in reads it after a failed call.
#pragma once

#include <cstdint>

enum : std::uint32_t {
    orv_error_none = 0,
    orv_error_invalid_argument = 1,
    orv_error_not_found = 2,
    orv_error_duplicate = 3,
    orv_error_invalid_value = 4,
    orv_error_not_supported = 5,
    orv_error_no_connection = 6,
    orv_error_no_memory = 7,
    orv_error_not_an_instance = 8,
};

std::uint32_t orv_error();
void orv_setError(std::uint32_t code);
// A constant text for the code; "unknown error" for codes it does not know.
const char* error_string(std::uint32_t code);
