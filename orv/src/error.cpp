// The library's last error: one process-wide value (the library is
// single-threaded).
#include "orv/error.h"

namespace {

std::uint32_t g_lastError = orv_error_none;

}  // namespace

std::uint32_t orv_error() {
    return g_lastError;
}

void orv_setError(std::uint32_t code) {
    g_lastError = code;
}

const char* error_string(std::uint32_t code) {
    switch (code) {
        case orv_error_none:
            return "no error";
        case orv_error_invalid_argument:
            return "invalid argument";
        case orv_error_not_found:
            return "not found";
        case orv_error_duplicate:
            return "duplicate";
        case orv_error_invalid_value:
            return "invalid value";
        case orv_error_not_supported:
            return "not supported";
        case orv_error_no_connection:
            return "no connection";
        case orv_error_no_memory:
            return "out of memory";
        case orv_error_not_an_instance:
            return "not an instance";
        default:
            return "unknown error";
    }
}
