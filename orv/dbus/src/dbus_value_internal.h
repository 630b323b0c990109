// Library-internal parts of the D-Bus binding, shared by its files: the
// depth limit and the error conventions of the value functions.
#pragma once

#include <cerrno>
#include <utility>

namespace dbus_detail {

// Every container (array, struct, variant, dict entry) costs one level. A
// list costs two per level and a map three, which still leaves room for far
// deeper data than the plug-in ever exchanges.
constexpr int kMaxDepth = 64;

inline bool tooDeep(int depth) {
    return depth >= kMaxDepth;
}

// sd-bus returns 0 when a container or the message has nothing left, which
// for a value that must be there is a malformed message.
inline int required(int r) {
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

}  // namespace dbus_detail
