// The plug-in's state, owned in one place: created when the host loads the
// plug-in and destroyed when it cleans up.
#pragma once

#include <cstdint>
#include <ctime>
#include <exception>
#include <string>
#include <vector>

#include "agenda.h"
#include "orv/context.h"
#include "orv/object.h"
#include "orv/request.h"
#include "orv/timer.h"
#include "orv/trace.h"

struct service_t {
    service_t() = default;
    service_t(const service_t&) = delete;
    service_t& operator=(const service_t&) = delete;
    ~service_t();

    orv_context_t* context = nullptr;
    peer_info_t* busPeer = nullptr;
    // The root object "Scheduler".
    object_t* scheduler = nullptr;
    // Nothing is sent before the clock is synchronised; once it is, the
    // processing never stops.
    bool synchronized = false;
    // "Time" was found; its watch is set up once.
    bool timeSeen = false;
    // The Status "Time" last announced; a change to "Synchronized" starts
    // the processing or, once it runs, recomputes.
    std::string timeStatus;
    orv_timer_ptr eventTimer;
    // Coalesces the change notifications.
    orv_timer_ptr noticeTimer;
    // The types whose schedules changed since the last notifications, in the
    // order they first changed.
    std::vector<std::string> changedTypes;
    // The root lookup stays open: after "Time" it tells which clients come
    // back. Owned.
    request_t* lookup = nullptr;
    // The next change of every planned schedule.
    agenda_t<object_t*> agenda;
};

// The host's clock: the system clock in the daemon, a virtual one in tests.
// service_nowUs() reads it in microseconds since the epoch; service_now() is
// the second it falls in.
std::int64_t service_nowUs();
time_t service_now();
// The second a time in microseconds falls in, also before the epoch.
time_t service_secondOf(std::int64_t us);

// Nothing may leave a callback of the host: a failure is traced and the
// callback reports the given result.
template <typename Result, typename Body>
Result service_guarded(const char* where, Result failure, Body&& body) noexcept {
    try {
        return body();
    } catch (const std::exception& e) {
        tolvTrace(TRACE_LEVEL_WARNING, "%s failed: %s", where, e.what());
    } catch (...) {
        tolvTrace(TRACE_LEVEL_WARNING, "%s failed", where);
    }
    return failure;
}
