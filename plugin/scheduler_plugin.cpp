#include "scheduler_plugin.h"

#include <cstdlib>
#include <cstring>
#include <exception>
#include <limits>
#include <string>

#include "orv/error.h"
#include "orv/loop.h"
#include "orv/string.h"
#include "orv/trace.h"
#include "orv/variant.h"
#include "orv/variant_list.h"
#include "scheduler_entry.h"
#include "scheduler_peeklist.h"
#include "scheduler_plugin_common.h"
#include "scheduler_reassert.h"
#include "scheduler_schedule.h"
#include "scheduler_simulation.h"
#include "scheduler_time.h"
#include "scheduler_type.h"

namespace {

constexpr std::uint32_t kClientAttributeTimeout = 3;
constexpr std::uint32_t kClientTimeoutMs = 60000;
constexpr std::uint32_t kLookupFlags = request_wait;
constexpr std::uint32_t kSaveDelayMs = 5000;
// The notifications of "Time" that say the clock or its zone changed.
constexpr std::uint32_t kTimeSet = 926;
constexpr std::uint32_t kTimeZoneChanged = 927;
constexpr std::uint32_t kTimeChanged = 928;
// The notification that tells a type's owner its schedules changed.
constexpr std::uint32_t kSchedulesChanged = 920;
constexpr std::uint32_t kSubscriptionFlags =
    request_getObject_parameters | request_notify_subscribe | request_notify_values_changed |
    request_notify_object_added | request_notify_object_deleted | request_notify_custom;

orv_context_t* pluginContext = nullptr;
peer_info_t* busPeer = nullptr;
bool ntpSynchronized = false;
string_list_t saveList;
orv_timer_ptr eventTimer;
orv_timer_ptr saveTimer;
// The root lookup stays open: after "Time" it tells which clients come back.
request_t* lookupRequest = nullptr;
bool timeSeen = false;

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
    lookupRequest = orv_sendRequest(pluginContext, busPeer, std::move(request));
    if (lookupRequest == nullptr) {
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
    timeSeen = false;
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
    if (lookupRequest != nullptr) {
        request_destroy(lookupRequest);
        lookupRequest = nullptr;
    }
    peeklist_removeComleteList();
    string_list_cleanup(&saveList);
    ntpSynchronized = false;
    pluginContext = nullptr;
    busPeer = nullptr;
}

// Starts the processing: the first run of the event timer rebuilds the
// agenda for the current time and arms the timer.
// Runs the event timer with the recalculation flag set: the agenda is
// rebuilt for the current time before anything is applied.
void recalculateNow() {
    if (!orv_timer_setUserData(eventTimer.get(), recalculateFlag(true))) {
        tolvTrace(100, "could not set user data");
    }
    orv_plugin_eventTimerHandler(eventTimer.get(), nullptr);
}

void startProcessing() {
    ntpSynchronized = true;
    recalculateNow();
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

// A value change of "Time": the first "Synchronized" starts the processing,
// which then never stops.
void timeStatusChanged(const notification_t* notification) {
    std::optional<std::string> parameter =
        notification_parameter_value(notification_getParameter(notification, "parameter"));
    if (ntpSynchronized || parameter != "Status") {
        return;
    }
    std::optional<std::string> value =
        notification_parameter_value(notification_getParameter(notification, "newvalue"));
    if (value == "Synchronized") {
        startProcessing();
    }
}

void timeNotified(const notification_t* notification) {
    const char* path = notification_objectPath(notification);
    if (path == nullptr || std::strcmp(path, "Time") != 0) {
        return;
    }
    switch (notification_type(notification)) {
        case notification_value_changed:
            timeStatusChanged(notification);
            break;
        case kTimeZoneChanged:
            time_reloadZone();
            [[fallthrough]];
        case kTimeSet:
        case kTimeChanged:
            // The clock moved: every planned change is computed anew.
            if (ntpSynchronized) {
                recalculateNow();
            }
            break;
        default:
            break;
    }
}

void timeChanged(request_t* request) {
    tolvTraceIn(ME);
    const reply_t* reply = request_reply(request);
    for (const reply_item_t* item = reply_firstItem(reply); item != nullptr;
         item = reply_nextItem(reply, item)) {
        if (reply_item_type(item) == reply_type_notification) {
            timeNotified(reply_item_notification(item));
        } else if (reply_item_type(item) == reply_type_error) {
            tolvTrace(100, "Error received : 0x%8.8X %s %s", reply_item_error(item),
                      reply_item_errorDescription(item), reply_item_errorInfo(item));
        }
    }
    tolvTraceOut(ME);
}

// A root object on the bus: "Time" starts the watch of the clock, once; any
// other is a client service that (re)appeared and is told its states.
void rootAppeared(const std::string& name) {
    if (name == "Time") {
        if (!timeSeen) {
            timeSeen = true;
            timeFound();
        }
        return;
    }
    bool match = false;
    object_t* types =
        object_getObject(pluginContext->datamodel()->root(), "Scheduler.Types", 0, &match);
    if (ntpSynchronized && match) {
        reassert_root(types, name, time_getCurrentLocalTime());
    }
}

bool objectLoaded(request_t* request) {
    const reply_t* reply = request_reply(request);
    for (const reply_item_t* item = reply_firstItem(reply); item != nullptr;
         item = reply_nextItem(reply, item)) {
        if (reply_item_type(item) == reply_type_error) {
            tolvTrace(200, "unable to wait for object: %s (%s)", reply_item_errorDescription(item),
                      reply_item_errorInfo(item));
        } else if (reply_item_type(item) == reply_type_object) {
            std::optional<std::string> name = object_name(reply_item_object(item), 1);
            if (!name) {
                tolvTrace(200, "unable to fetch object name: %s", error_string(orv_error()));
            } else {
                rootAppeared(*name);
            }
        }
    }
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

// --- Dispatch of due changes ---------------------------------------------

// Plans the change that follows an applied one: searched from now + 1, so
// that the applied change is never found due again in the same second.
void planFollowingChange(object_t* object, time_t now) {
    peeklist_entry_ptr next =
        adjust_for_temporary_override(object, peeklist_createNextEntry(object, now + 1));
    if (!next) {
        tolvTraceZ(300, ME, "No next event found");
        return;
    }
    const time_t nextTime = next->time;
    object_t* nextObject = next->object;
    if (!peeklist_addEntry(std::move(next))) {
        tolvTrace(100, "Error calculating the next event time");
    } else {
        if (!scheduleentry_setNextStateChange(nextObject, nextTime)) {
            tolvTrace(100, "Could not set nextstatechange");
        }
        object_commit(nextObject);
    }
    tolvTraceZ(400, ME, "Now = %ld next =  %ld", static_cast<long>(now),
               static_cast<long>(nextTime));
}

void applyState(const peeklist_entry_t& entry, bool simulate) {
    if (simulate) {
        registerEvent("setStateRPC", entry);
        tolvTraceZ(400, ME, "registerEvent");
        return;
    }
    object_parameterSetBoolValue(entry.object, "TemporaryOverride", false);
    object_commit(entry.object);
    if (!orv_plugin_setStateRPC(entry.object, entry.state)) {
        tolvTrace(100, "Could not call the setState routine");
    }
}

void applyDueEntry(const peeklist_entry_t& entry, time_t now, bool simulate) {
    std::optional<std::string> current =
        variant_char(object_parameterValue(entry.object, "CurrentState"));
    if (!current) {
        tolvTrace(100, "Could not get the current state");
        return;
    }
    tolvTraceZ(400, ME, "Schedule event(%d), changing to %s", entry.isEvent, entry.state.c_str());
    tolvTraceZ(400, ME, "Schedule event(%d), currentState %s nextState %s", entry.isEvent,
               current->c_str(), entry.state.c_str());
    if (*current != entry.state) {
        applyState(entry, simulate);
    }
    planFollowingChange(entry.object, now);
}

// --- Change notifications -------------------------------------------------

// One notification per recorded type, in the order the types were first
// recorded. A failure ends the run; the names not sent yet wait for the next
// change.
void sendChangeNotifications() {
    tolvTraceIn(ME);
    tolvTraceZ(400, ME, "Send custom notification was triggered, sending event");
    std::unique_ptr<notification_t> notification = notification_create(kSchedulesChanged);
    if (!notification) {
        tolvTrace(100, "Failed to create notification");
        tolvTraceOut(ME);
        return;
    }
    while (std::optional<std::string> type = string_list_takeFirst(&saveList)) {
        std::string path = "Scheduler.Types." + *type;
        tolvTraceZ(400, ME, "Sending notification from %s", path.c_str());
        if (!notification_setObjectPath(notification.get(), path)) {
            tolvTrace(100, "Failed to set object path in notification");
            return;
        }
        if (!orv_sendNotification(pluginContext, nullptr, nullptr, notification.get())) {
            tolvTrace(100, "Failed to send notification");
            return;
        }
    }
    tolvTraceOut(ME);
}

std::uint32_t timeoutAfter(time_t now) {
    // Every due entry has been taken, so the head lies ahead: the time-out is
    // between 1000 and the clamp, or -1 (the longest) for an empty agenda.
    return static_cast<std::uint32_t>(peeklist_getNextTimeOut(now));
}

// --- Calling the client -----------------------------------------------------

std::unique_ptr<request_t> buildSetStateRequest(const char* path, const std::string& id,
                                                const std::string& state) {
    std::unique_ptr<request_t> request = request_create_executeFunction(path, "setState", 0);
    if (!request) {
        tolvTrace(100, "Failed to create request");
        return nullptr;
    }
    variant_t value;
    const std::pair<const char*, const std::string*> arguments[] = {{"ID", &id}, {"state", &state}};
    for (const auto& [name, text] : arguments) {
        if (!variant_setChar(&value, *text)) {
            tolvTrace(100, "Failed to set value");
            return nullptr;
        }
        if (!request_addParameter(request.get(), name, &value)) {
            tolvTrace(100, "Failed to add parameter");
            return nullptr;
        }
    }
    return request;
}

// The agenda counts whole seconds from the start of the second `now`, but
// the timer counts from the moment it is armed: the part of that second
// already gone is taken off, rounded up, so that the timer fires at the due
// second itself and never before it. The longest time-out stays as it is.
std::uint32_t alignToSecond(std::uint32_t timeout, time_t now) {
    if (timeout == std::numeric_limits<std::uint32_t>::max()) {
        return timeout;
    }
    const std::int64_t spentUs = orv_time_now_us() - static_cast<std::int64_t>(now) * 1000000;
    if (spentUs <= 0) {
        return timeout;
    }
    const std::int64_t remainingUs = static_cast<std::int64_t>(timeout) * 1000 - spentUs;
    return remainingUs <= 0 ? 0 : static_cast<std::uint32_t>((remainingUs + 999) / 1000);
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
    timeout = alignToSecond(timeout, now);
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

bool orv_plugin_timeChanged(request_t* request) noexcept {
    return guarded("orv_plugin_timeChanged", true, [&] {
        timeChanged(request);
        return true;
    });
}

void orv_plugin_eventTimerHandler(orv_timer_t* timer, void* /*userdata*/) noexcept {
    guarded("orv_plugin_eventTimerHandler", 0, [&] {
        eventTimerHandler(timer);
        return 0;
    });
}

void orv_plugin_eventTimerHandler_sim(time_t now, int recalculate, std::uint32_t* timeout,
                                      bool simulate) {
    tolvTraceIn(ME);
    if (recalculate == 1) {
        tolvTraceZ(400, ME, "recalculate peeklist");
        if (!peeklist_recalculate(now)) {
            tolvTrace(100, "Peeklist Recalculation failed");
        }
    }
    while (peeklist_entry_ptr entry = peeklist_takeFirstTimedOutEntry(now)) {
        applyDueEntry(*entry, now, simulate);
    }
    *timeout = timeoutAfter(now);
    tolvTraceZ(400, ME, "Timeout is set to %u", *timeout);
    tolvTraceOut(ME);
}

bool orv_plugin_setStateRPC(object_t* instance, const std::string& state) {
    object_t* schedules = object_parent(instance);
    if (schedules == nullptr) {
        tolvTrace(100, "Could not get schedule template");
        return false;
    }
    object_t* type = object_parent(schedules);
    if (type == nullptr) {
        tolvTrace(100, "Could not get schedulertype instance");
        return false;
    }
    const char* path = variant_da_char(object_parameterValue(type, "Path"));
    if (path == nullptr) {
        tolvTrace(100, "Could not get remote object path");
        return false;
    }
    std::optional<std::string> id = variant_char(object_parameterValue(instance, "ID"));
    if (!id) {
        tolvTrace(100, "Could not get ID");
        return false;
    }
    tolvTraceZ(300, ME, "setState called for [%s] with ID:[%s] and value:[%s]", path, id->c_str(),
               state.c_str());
    bool sent = setState(type, *id, state);
    if (!object_parameterSetCharValue(instance, "CurrentState", sent ? state : "Unsynchronized")) {
        tolvTrace(100, "Could not set CurrentState");
        return false;
    }
    object_commit(instance);
    return true;
}

bool setState(object_t* typeInstance, const std::string& id, const std::string& state) {
    const char* path = variant_da_char(object_parameterValue(typeInstance, "Path"));
    if (busPeer == nullptr || path == nullptr) {
        tolvTrace(100, "Invalid parameters specified");
        return false;
    }
    if (!ntpSynchronized) {
        tolvTrace(200, "NTP was not synced, not calling setstate for %s [%s]", id.c_str(),
                  state.c_str());
        return false;
    }
    orv_context_t* context = orv_fromConnection(peer_connection(busPeer));
    if (context == nullptr) {
        tolvTrace(100, "Invalid destination specified");
        return false;
    }
    std::unique_ptr<request_t> request = buildSetStateRequest(path, id, state);
    if (!request) {
        tolvTrace(100, "Failed to build request");
        return false;
    }
    request_t* sent = orv_sendRequest(context, busPeer, std::move(request));
    if (sent == nullptr) {
        tolvTrace(100, "Failed to send request");
        return false;
    }
    // The client's answer is not awaited.
    request_destroy(sent);
    return true;
}

void scheduleModified(const std::string& type) {
    tolvTraceZ(400, ME, "schedule was modified, type %s will be updated", type.c_str());
    if (!string_list_contains(&saveList, type) && !string_list_append(&saveList, type)) {
        tolvTrace(100, "could not append save string");
    }
    if (!orv_timer_start(saveTimer.get(), kSaveDelayMs)) {
        tolvTrace(100, "could not start save timer");
    }
    for (const std::string& name : saveList) {
        tolvTraceZ(400, ME, "saveobject contains: %s", name.c_str());
    }
}

void orv_plugin_saveTimerHandler(orv_timer_t* /*timer*/, void* /*userdata*/) noexcept {
    guarded("orv_plugin_saveTimerHandler", 0, [] {
        sendChangeNotifications();
        return 0;
    });
}

// --- Type operations ----------------------------------------------------------

namespace {

void addRegisteredSchedules(object_t* typeInstance, const std::string& type,
                            const variant_list_t& schedules) {
    for (const variant_t& element : schedules) {
        std::unique_ptr<schedule_t> schedule = variant2schedule_t(&element);
        if (!schedule || !scheduleentry_addInstance(typeInstance, schedule.get(), true)) {
            tolvTrace(100, "Failed to add instance for type %s", type.c_str());
        }
    }
}

object_t* typesObject(object_t* object) {
    bool match = false;
    object_t* types = object_getObject(object, "Types", 0, &match);
    return match ? types : nullptr;
}

}  // namespace

bool registerScheduleType(object_t* object, const std::optional<std::string>& type,
                          const std::optional<std::string>& path,
                          std::optional<variant_list_t> states,
                          const std::optional<variant_list_t>& schedules) {
    tolvTraceIn(ME);
    if (!type || !path || !states) {
        tolvTrace(100, "invalid parameter values");
        tolvTraceOut(ME);
        return false;
    }
    // A type registered again keeps its schedules; its owner restarted, so
    // each of them tells the client its present state once. Schedules that
    // come with the call tell it when they are added.
    object_t* existing = schedulertype_getSpecificScheduler(object, *type);
    std::vector<object_t*> kept =
        existing ? reassert_schedulesOf(existing) : std::vector<object_t*>{};
    object_t* typeInstance = schedulertype_addInstance(object, *type, *path, std::move(*states));
    if (typeInstance == nullptr) {
        tolvTrace(100, "Could not add types instance");
        tolvTraceOut(ME);
        return false;
    }
    if (ntpSynchronized) {
        reassert_schedules(kept, time_getCurrentLocalTime());
    }
    if (schedules) {
        addRegisteredSchedules(typeInstance, *type, *schedules);
    }
    tolvTraceOut(ME);
    return true;
}

bool unregisterScheduleType(object_t* object, const std::optional<std::string>& type) {
    tolvTraceIn(ME);
    if (!type) {
        tolvTrace(100, "invalid parameter values");
        tolvTraceOut(ME);
        return false;
    }
    tolvTraceZ(400, ME, "Removing all schedules of type %s", type->c_str());
    object_t* typeInstance = schedulertype_getSpecificScheduler(object, *type);
    if (typeInstance == nullptr) {
        tolvTrace(100, "could not find schedulertype instance");
        tolvTraceOut(ME);
        return false;
    }
    // Deleting the type takes its schedules with it; their destroy handlers
    // drop their planned changes.
    object_delete(typeInstance);
    object_commit(typeInstance);
    tolvTraceOut(ME);
    return true;
}

bool getScheduleTypes(object_t* object, variant_list_t* list) {
    tolvTraceIn(ME);
    if (list == nullptr) {
        tolvTrace(100, "Not a valid parameter value");
        tolvTraceOut(ME);
        return false;
    }
    object_t* types = typesObject(object);
    if (types == nullptr) {
        tolvTrace(100, "Could not find Types object");
        tolvTraceOut(ME);
        return false;
    }
    for (object_t* instance = object_firstInstance(types); instance != nullptr;
         instance = object_nextInstance(instance)) {
        variant_list_addChar(list,
                             variant_char(object_parameterValue(instance, "Type")).value_or(""));
    }
    tolvTraceOut(ME);
    return true;
}

// --- Schedule operations ------------------------------------------------------

bool addSchedule(object_t* object, const std::optional<std::string>& type,
                 const schedule_t* schedule) {
    tolvTraceIn(ME);
    if (!type || schedule == nullptr || !schedule->schedule) {
        tolvTrace(100, "invalid parameter values ; type=%p info=%p info_schedule=%p",
                  type ? static_cast<const void*>(type->c_str()) : nullptr,
                  static_cast<const void*>(schedule),
                  schedule ? static_cast<const void*>(schedule->schedule.get()) : nullptr);
        tolvTraceOut(ME);
        return false;
    }
    // A schedule of the same ID is replaced: it goes first.
    variant_list_t ids;
    variant_list_addChar(&ids, schedule->ID.value_or(""));
    removeSchedules(object, type, ids);
    object_t* typeInstance = schedulertype_getSpecificScheduler(object, *type);
    if (typeInstance == nullptr) {
        tolvTrace(100, "Type %s not found, not adding a schedule instance", type->c_str());
        tolvTraceOut(ME);
        return false;
    }
    if (!scheduleentry_addInstance(typeInstance, schedule, false)) {
        tolvTrace(100, "Failed to add instance for type %s", type->c_str());
        tolvTraceOut(ME);
        return false;
    }
    scheduleModified(*type);
    tolvTraceOut(ME);
    return true;
}

namespace {

bool removeAllSchedules(object_t* object, const std::string& type) {
    tolvTraceZ(400, ME, "Removing all schedules of type %s", type.c_str());
    object_t* typeInstance = schedulertype_getSpecificScheduler(object, type);
    if (typeInstance == nullptr) {
        tolvTrace(100, "could not find schedulertype instance");
        return false;
    }
    schedulertype_removeAllScheduleInstances(typeInstance);
    return true;
}

void removeListedSchedules(object_t* object, const std::string& type, const variant_list_t& ids) {
    tolvTraceZ(400, ME, "Removing specific schedule(s) of type %s", type.c_str());
    for (const variant_t& element : ids) {
        std::string id = variant_char(&element).value_or("");
        object_t* instance = scheduleentry_getSpecificSchedule(object, type, id);
        if (instance != nullptr) {
            scheduleentry_removeInstance(instance);
        } else {
            tolvTraceZ(400, ME, "Cannot find type %s ID %s", type.c_str(), id.c_str());
        }
    }
}

}  // namespace

bool removeSchedules(object_t* object, const std::optional<std::string>& type,
                     const std::optional<variant_list_t>& ids) {
    tolvTraceIn(ME);
    if (!type) {
        tolvTrace(100, "invalid parameter values");
        tolvTraceOut(ME);
        return false;
    }
    if (!ids) {
        if (!removeAllSchedules(object, *type)) {
            tolvTraceOut(ME);
            return false;
        }
    } else {
        removeListedSchedules(object, *type, *ids);
    }
    if (!orv_timer_start(saveTimer.get(), kSaveDelayMs)) {
        tolvTrace(100, "could not start save timer");
    }
    scheduleModified(*type);
    tolvTraceOut(ME);
    return true;
}

bool getSchedules(object_t* object, const std::optional<std::string>& type, variant_list_t* list,
                  bool complete) {
    tolvTraceIn(ME);
    if (!type || list == nullptr) {
        tolvTrace(100, "invalid parameter values");
        tolvTraceOut(ME);
        return false;
    }
    if (!schedulertype_getAllScheduleData(object, *type, list, complete)) {
        tolvTrace(100, "Error getting the schedules");
        tolvTraceOut(ME);
        return false;
    }
    tolvTraceOut(ME);
    return true;
}

bool getSchedule(object_t* object, const std::optional<std::string>& type,
                 const std::optional<std::string>& id, std::unique_ptr<schedule_t>* record) {
    tolvTraceIn(ME);
    record->reset();
    if (!type || !id) {
        tolvTrace(100, "invalid parameter values");
        tolvTraceOut(ME);
        return false;
    }
    object_t* instance = scheduleentry_getSpecificSchedule(object, *type, *id);
    if (instance == nullptr) {
        tolvTrace(100, "Type %s not found, not adding a schedule instance", type->c_str());
        tolvTraceOut(ME);
        return false;
    }
    auto filled = std::make_unique<schedule_t>();
    if (!scheduleentry_getScheduleT(instance, true, filled.get())) {
        tolvTrace(100, "Error getting the schedule");
        tolvTraceOut(ME);
        return false;
    }
    *record = std::move(filled);
    tolvTraceOut(ME);
    return true;
}

// --- Enable and overrides -----------------------------------------------------

namespace {

object_t* findSchedule(object_t* object, const std::string& type, const std::string& id) {
    object_t* instance = scheduleentry_getSpecificSchedule(object, type, id);
    if (instance == nullptr) {
        tolvTrace(100, "Type %s not found, not adding a schedule instance", type.c_str());
    }
    return instance;
}

// Switching an active schedule off first brings its client to the default.
void resetToDefault(object_t* instance) {
    std::string defaultState =
        variant_char(object_parameterValue(instance, "Default")).value_or("");
    if (!orv_plugin_setStateRPC(instance, defaultState)) {
        tolvTrace(200, "Could not reset the entry to the default value");
    }
}

bool isValidOverride(object_t* object, const std::string& type, const std::string& state) {
    object_t* typeInstance = schedulertype_getSpecificScheduler(object, type);
    if (typeInstance == nullptr) {
        tolvTrace(100, "Type %s not found, not adding a schedule instance", type.c_str());
        return false;
    }
    const auto* properties = object_getUserData<schedulertype_properties_t>(typeInstance);
    if (properties == nullptr) {
        tolvTrace(100, "Could not get schedulertype properties");
        return false;
    }
    if (!schedule_validateState(&properties->states, state)) {
        tolvTrace(100, "Invalid override value(%s)", state.c_str());
        return false;
    }
    return true;
}

// Enabling and overriding end a temporary override.
bool clearTemporaryOverride(object_t* instance, const std::string& type, const std::string& id) {
    if (!object_parameterSetBoolValue(instance, "TemporaryOverride", false)) {
        tolvTrace(100, "Failed to set \"TemporaryOverride\" parameter for type %s with ID %s",
                  type.c_str(), id.c_str());
        return false;
    }
    return true;
}

// A failed commit does not undo the change: it is still announced.
void commitAndAnnounce(object_t* instance, const std::string& type) {
    if (!object_commit(instance)) {
        tolvTrace(100, "Could not commit object");
    }
    scheduleModified(type);
}

bool enable(object_t* object, const std::string& type, const std::string& id, bool on) {
    object_t* instance = findSchedule(object, type, id);
    if (instance == nullptr) {
        return false;
    }
    if (!on && variant_bool(object_parameterValue(instance, "Enable"))) {
        resetToDefault(instance);
    }
    if (!object_parameterSetBoolValue(instance, "Enable", on)) {
        tolvTrace(100, "Failed to set enable parameter for type %s with ID %s", type.c_str(),
                  id.c_str());
        return false;
    }
    std::optional<std::string> override = variant_char(object_parameterValue(instance, "Override"));
    if (!override) {
        tolvTrace(100, "Failed to get the override value for type %s with ID %s", type.c_str(),
                  id.c_str());
        return false;
    }
    if (!clearTemporaryOverride(instance, type, id)) {
        return false;
    }
    if (!scheduleentry_updateState(instance, *override, false, on)) {
        tolvTrace(100, "Failed to update the schedule state %s with ID %s", type.c_str(),
                  id.c_str());
        return false;
    }
    commitAndAnnounce(instance, type);
    return true;
}

bool override(object_t* object, const std::string& type, const std::string& id,
              const std::string& state) {
    if (!state.empty() && !isValidOverride(object, type, state)) {
        return false;
    }
    object_t* instance = findSchedule(object, type, id);
    if (instance == nullptr) {
        return false;
    }
    if (!object_parameterSetCharValue(instance, "Override", state)) {
        tolvTrace(100, "Failed to add set override parameter for type %s with ID %s", type.c_str(),
                  id.c_str());
        return false;
    }
    if (!clearTemporaryOverride(instance, type, id)) {
        return false;
    }
    bool enabled = variant_bool(object_parameterValue(instance, "Enable"));
    if (!scheduleentry_updateState(instance, state, false, enabled)) {
        tolvTrace(100, "Failed to update the schedule state %s with ID %s", type.c_str(),
                  id.c_str());
    }
    commitAndAnnounce(instance, type);
    return true;
}

// A temporary state is neither validated nor announced; it lasts until the
// schedule itself next changes the state.
bool overrideTemporarily(object_t* object, const std::string& type, const std::string& id,
                         const std::string& state) {
    object_t* instance = findSchedule(object, type, id);
    if (instance == nullptr) {
        return false;
    }
    if (auto* properties = object_getUserData<scheduleentry_properties_t>(instance)) {
        properties->temporaryState = state;
    }
    if (!object_parameterSetBoolValue(instance, "TemporaryOverride", true)) {
        tolvTrace(100, "Failed to add set \"TemporaryOverride'' parameter for type %s with ID %s",
                  type.c_str(), id.c_str());
        return false;
    }
    if (!object_parameterSetCharValue(instance, "CurrentState", state)) {
        tolvTrace(100, "Failed to add set \"CurrentSate\" parameter for type %s with ID %s",
                  type.c_str(), id.c_str());
        return false;
    }
    if (!object_commit(instance)) {
        tolvTrace(100, "Could not commit object");
        return false;
    }
    if (!scheduleentry_updateState(instance, state, true, true)) {
        tolvTrace(100, "Failed to update the schedule state %s with ID %s", type.c_str(),
                  id.c_str());
        return false;
    }
    return true;
}

// Runs an operation between the enter and leave markers of the caller.
template <typename Body>
bool traced(const char* function, int line, Body&& body) {
    tolvTrace_marker(true, ME, function, __FILE__, line);
    bool result = body();
    tolvTrace_marker(false, ME, function, __FILE__, line);
    return result;
}

}  // namespace

bool enableSchedule(object_t* object, const std::optional<std::string>& type,
                    const std::optional<std::string>& id, bool enabled) {
    return traced(__func__, __LINE__, [&] {
        if (!type || !id) {
            tolvTrace(100, "invalid parameter values");
            return false;
        }
        return enable(object, *type, *id, enabled);
    });
}

bool overrideSchedule(object_t* object, const std::optional<std::string>& type,
                      const std::optional<std::string>& id,
                      const std::optional<std::string>& state) {
    return traced(__func__, __LINE__, [&] {
        if (!type || !id || !state) {
            tolvTrace(100, "invalid parameter values");
            return false;
        }
        return override(object, *type, *id, *state);
    });
}

bool overrideState(object_t* object, const std::optional<std::string>& type,
                   const std::optional<std::string>& id, const std::optional<std::string>& state) {
    return traced(__func__, __LINE__, [&] {
        if (!type || !id || !state) {
            tolvTrace(100, "invalid parameter values");
            return false;
        }
        return overrideTemporarily(object, *type, *id, *state);
    });
}

// --- Simulations ----------------------------------------------------------------

std::optional<variant_list_t> simulateSchedule(object_t* object,
                                               const std::optional<std::string>& type,
                                               const std::optional<std::string>& id, time_t start,
                                               time_t stop) {
    tolvTraceIn(ME);
    if (!type || !id) {
        tolvTraceOut(ME);
        return std::nullopt;
    }
    // An unknown schedule is simulated all the same: the lines say so.
    object_t* instance = scheduleentry_getSpecificSchedule(object, *type, *id);
    variant_list_t lines = scheduleentry_simulate(instance, *type, start, stop);
    tolvTrace(200, "returning %d elements", static_cast<int>(lines.size()));
    tolvTraceOut(ME);
    return lines;
}

variant_list_t simulateSchedules(object_t* /*object*/, time_t start, time_t stop) {
    tolvTraceIn(ME);
    variant_list_t lines = scheduleentry_simulate_all(start, stop);
    tolvTrace(200, "returning %d elements", static_cast<int>(lines.size()));
    tolvTraceOut(ME);
    return lines;
}
