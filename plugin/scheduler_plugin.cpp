#include "scheduler_plugin.h"

#include <cstdlib>
#include <cstring>
#include <exception>
#include <limits>
#include <string>

#include "orv/error.h"
#include "orv/string.h"
#include "orv/trace.h"
#include "orv/variant.h"
#include "scheduler_peeklist.h"
#include "scheduler_plugin_common.h"
#include "scheduler_time.h"

namespace {

constexpr std::uint32_t kClientAttributeTimeout = 3;
constexpr std::uint32_t kClientTimeoutMs = 60000;
constexpr std::uint32_t kLookupFlags = request_wait;
constexpr std::uint32_t kSubscriptionFlags =
    request_getObject_parameters | request_notify_subscribe | request_notify_values_changed |
    request_notify_object_added | request_notify_object_deleted | request_notify_custom;

orv_context_t* pluginContext = nullptr;
peer_info_t* busPeer = nullptr;
bool ntpSynchronized = false;
string_list_t saveList;
orv_timer_ptr eventTimer;
orv_timer_ptr saveTimer;

void* recalculateFlag(bool on) {
    return reinterpret_cast<void*>(static_cast<std::uintptr_t>(on ? 1 : 0));
}

bool isRecalculateFlag(void* userdata) {
    return reinterpret_cast<std::uintptr_t>(userdata) == 1;
}

// Nothing may leave a callback of the host: a failure is traced and the
// callback reports the given result.
template <typename Result, typename Body>
Result guarded(const char* where, Result failure, Body&& body) noexcept {
    try {
        return body();
    } catch (const std::exception& e) {
        tolvTrace(100, "%s failed: %s", where, e.what());
    } catch (...) {
        tolvTrace(100, "%s failed", where);
    }
    return failure;
}

void registerTraceZone() {
    if (const char* level = std::getenv("scheduler_plugin")) {
        tolvTraceAddZone(static_cast<int>(std::atol(level)), ME);
    }
}

orv_timer_ptr createTimer(orv_timer_handler_t handler) {
    orv_timer_ptr timer = orv_timer_create();
    if (!timer) {
        tolvTrace(100, "could not create timer");
        return nullptr;
    }
    if (!orv_timer_setHandler(timer.get(), handler)) {
        tolvTrace(100, "could not attach handler to timer timer");
        return nullptr;
    }
    return timer;
}

// The destruction order of a failed start-up: the save timer first.
void destroyTimers() {
    saveTimer.reset();
    eventTimer.reset();
}

bool sendLookup() {
    std::unique_ptr<request_t> request = request_create_getObject("", 1, kLookupFlags);
    if (!request) {
        tolvTrace(0, "unable to wait for objects");
        return false;
    }
    request_setReplyHandler(request.get(), orv_plugin_object_loaded);
    if (orv_sendRequest(pluginContext, busPeer, std::move(request)) == nullptr) {
        tolvTrace(0, "unable to wait for objects");
        return false;
    }
    return true;
}

bool initialize(orv_context_t* context) {
    registerTraceZone();
    pluginContext = context;
    const orv_plugin_config_t* config = orv_pluginConfig(context);
    busPeer = config != nullptr ? config->busPeer : nullptr;
    ntpSynchronized = false;
    orv_client_set_attribute(pluginContext, kClientAttributeTimeout, kClientTimeoutMs);
    eventTimer = createTimer(orv_plugin_eventTimerHandler);
    if (!eventTimer) {
        return false;
    }
    saveTimer = createTimer(orv_plugin_saveTimerHandler);
    if (!saveTimer) {
        destroyTimers();
        return false;
    }
    string_list_cleanup(&saveList);
    if (!sendLookup()) {
        destroyTimers();
        return false;
    }
    tolvTraceZ(400, ME, "Initializing scheduler_plugin plugin");
    return true;
}

void cleanup() {
    tolvTraceZ(400, ME, "Cleaning up scheduler_plugin plugin");
    destroyTimers();
    peeklist_removeComleteList();
    string_list_cleanup(&saveList);
    ntpSynchronized = false;
    pluginContext = nullptr;
    busPeer = nullptr;
}

// Walks one delivery of the lookup; true when it holds the object "Time".
bool deliveryHoldsTime(const reply_t* reply) {
    for (const reply_item_t* item = reply_firstItem(reply); item != nullptr;
         item = reply_nextItem(reply, item)) {
        if (reply_item_type(item) == reply_type_error) {
            tolvTrace(200, "unable to wait for object: %s (%s)", reply_item_errorDescription(item),
                      reply_item_errorInfo(item));
            continue;
        }
        if (reply_item_type(item) != reply_type_object) {
            continue;
        }
        std::optional<std::string> name = object_name(reply_item_object(item), 1);
        if (!name) {
            tolvTrace(200, "unable to fetch object name: %s", error_string(orv_error()));
            continue;
        }
        if (*name == "Time") {
            return true;
        }
    }
    return false;
}

// Starts the processing: the first run of the event timer rebuilds the
// agenda for the current time and arms the timer.
void startProcessing() {
    ntpSynchronized = true;
    if (!orv_timer_setUserData(eventTimer.get(), recalculateFlag(true))) {
        tolvTrace(100, "could not set user data");
    }
    orv_plugin_eventTimerHandler(eventTimer.get(), nullptr);
}

void timeFound() {
    tolvTrace(400, "Time object is there");
    std::uint32_t requestId = 0;
    if (!orv_plugin_createSubscription(pluginContext, busPeer, "Time", orv_plugin_timeChanged,
                                       &requestId)) {
        tolvTrace(100, "Subscription failed");
    }
    const char* status = variant_da_char(orv_client_get(busPeer, "Time", "Status"));
    if (status != nullptr && std::strcmp(status, "Synchronized") == 0) {
        startProcessing();
    }
}

bool objectLoaded(request_t* request) {
    const reply_t* reply = request_reply(request);
    if (reply == nullptr || !deliveryHoldsTime(reply)) {
        return true;
    }
    timeFound();
    request_destroy(request);
    return true;
}

void subscriptionCancelled(request_t* request) noexcept {
    request_destroy(request);
}

bool createSubscription(orv_context_t* context, peer_info_t* peer, const char* path,
                        request_reply_handler_t handler, std::uint32_t* requestId) {
    *requestId = 0;
    std::unique_ptr<request_t> created = request_create_getObject(path, 1, kSubscriptionFlags);
    if (!created) {
        tolvTrace(100, "Failed to create request");
        return false;
    }
    request_t* request = orv_sendRequest(context, peer, std::move(created));
    if (request == nullptr) {
        tolvTrace(100, "Failed to send request");
        return false;
    }
    request_setReplyHandler(request, handler);
    request_setCancelHandler(request, subscriptionCancelled);
    *requestId = request_id(request);
    return true;
}

void eventTimerHandler(orv_timer_t* timer) {
    time_t now = time_getCurrentLocalTime();
    if (!ntpSynchronized) {
        return;
    }
    int recalculate = timer != nullptr && isRecalculateFlag(orv_timer_getUserData(timer)) ? 1 : 0;
    if (!orv_timer_setUserData(eventTimer.get(), recalculateFlag(false))) {
        tolvTrace(100, "could not set user data");
    }
    std::uint32_t timeout = 0;
    orv_plugin_eventTimerHandler_sim(now, recalculate, &timeout, false);
    tolvTraceZ(400, ME, "Starting peeklist timer with timeout %u", timeout);
    orv_timer_stop(eventTimer.get());
    if (!orv_timer_start(eventTimer.get(), timeout)) {
        tolvTrace(100, "could not start event timer");
    }
}

}  // namespace

bool orv_plugin_initialize(orv_context_t* context) noexcept {
    return guarded("orv_plugin_initialize", false, [&] {
        if (initialize(context)) {
            return true;
        }
        pluginContext = nullptr;
        busPeer = nullptr;
        return false;
    });
}

void orv_plugin_cleanup() noexcept {
    guarded("orv_plugin_cleanup", 0, [] {
        cleanup();
        return 0;
    });
}

bool orv_plugin_object_loaded(request_t* request) noexcept {
    return guarded("orv_plugin_object_loaded", true, [&] { return objectLoaded(request); });
}

bool orv_plugin_createSubscription(orv_context_t* context, peer_info_t* peer, const char* path,
                                   request_reply_handler_t handler,
                                   std::uint32_t* requestId) noexcept {
    return guarded("orv_plugin_createSubscription", false,
                   [&] { return createSubscription(context, peer, path, handler, requestId); });
}

bool orv_plugin_timeChanged(request_t* /*request*/) noexcept {
    return true;
}

void orv_plugin_eventTimerHandler(orv_timer_t* timer, void* /*userdata*/) noexcept {
    guarded("orv_plugin_eventTimerHandler", 0, [&] {
        eventTimerHandler(timer);
        return 0;
    });
}

// The agenda and the dispatch of due changes are not built yet: with nothing
// planned, the timer is armed with the longest time-out.
void orv_plugin_eventTimerHandler_sim(time_t /*now*/, int /*recalculate*/, std::uint32_t* timeout,
                                      bool /*simulate*/) {
    *timeout = std::numeric_limits<std::uint32_t>::max();
}

void orv_plugin_saveTimerHandler(orv_timer_t* /*timer*/, void* /*userdata*/) noexcept {}
