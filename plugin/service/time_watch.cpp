#include "time_watch.h"

#include <cstring>
#include <memory>
#include <optional>
#include <string>

#include "dispatcher.h"
#include "orv/error.h"
#include "orv/notification.h"
#include "orv/protocol.h"
#include "scheduler_plugin_common.h"
#include "schedules.h"
#include "time_base.h"
#include "types.h"

namespace {

constexpr std::uint32_t kSubscriptionFlags =
    request_getObject_parameters | request_notify_subscribe | request_notify_values_changed |
    request_notify_object_added | request_notify_object_deleted | request_notify_custom;

service_t& serviceOf(const request_t* request) {
    return *static_cast<service_t*>(request_userData(request));
}

void startProcessing(service_t& service) {
    service.synchronized = true;
    dispatch_run(service, true);
}

void timeFound(service_t& service) {
    tolvTrace(TRACE_LEVEL_INFO, "Time object is there");
    std::uint32_t requestId = 0;
    if (!orv_plugin_createSubscription(service.context, service.busPeer, "Time",
                                       orv_plugin_timeChanged, &service, &requestId)) {
        tolvTrace(TRACE_LEVEL_WARNING, "Subscription failed");
    }
    const char* status = variant_da_char(orv_client_get(service.busPeer, "Time", "Status"));
    service.timeStatus = status != nullptr ? status : "";
    if (service.timeStatus == "Synchronized") {
        startProcessing(service);
    }
}

// The types whose client object lies below the root name.
std::vector<object_t*> typesServedBy(const service_t& service, const std::string& name) {
    std::vector<object_t*> served;
    for (const std::string& type : types_names(service.scheduler)) {
        object_t* typeInstance = types_find(service.scheduler, type);
        const type_record_t* record = typeInstance ? types_record(typeInstance) : nullptr;
        if (record != nullptr && record->path.substr(0, record->path.find('.')) == name) {
            served.push_back(typeInstance);
        }
    }
    return served;
}

// A client service left the bus: what its schedules show is no longer known.
void rootGone(const service_t& service, const std::string& name) {
    for (object_t* typeInstance : typesServedBy(service, name)) {
        dispatch_unreachable(schedules_of(typeInstance));
    }
}

// A root object on the bus: "Time" starts the watch of the clock, once; any
// other is a client service that (re)appeared and is told its states.
void rootAppeared(service_t& service, const std::string& name) {
    if (name == "Time") {
        if (!service.timeSeen) {
            service.timeSeen = true;
            timeFound(service);
        } else {
            // A Time service that restarted: its first "Synchronized" counts.
            service.timeStatus.clear();
        }
        return;
    }
    if (!service.synchronized) {
        return;
    }
    for (object_t* typeInstance : typesServedBy(service, name)) {
        tolvTraceZ(TRACE_LEVEL_APP_INFO, ME, "The client of type %s is back: telling it its states",
                   types_record(typeInstance)->name.c_str());
        dispatch_reassert(service, schedules_of(typeInstance), service_now());
    }
}

// A value change of "Time": the first "Synchronized" starts the processing,
// which then never stops. "Synchronized" again, after another status or
// from a Time service that restarted, recomputes: the clock may have moved
// meanwhile.
void timeStatusChanged(service_t& service, const notification_t* notification) {
    std::optional<std::string> parameter =
        notification_parameter_value(notification_getParameter(notification, "parameter"));
    std::optional<std::string> value =
        notification_parameter_value(notification_getParameter(notification, "newvalue"));
    if (parameter != "Status" || !value || *value == service.timeStatus) {
        return;
    }
    service.timeStatus = *value;
    if (*value == "Synchronized") {
        startProcessing(service);
    }
}

void timeNotified(service_t& service, const notification_t* notification) {
    const char* path = notification_objectPath(notification);
    if (path == nullptr || std::strcmp(path, "Time") != 0) {
        return;
    }
    switch (notification_type(notification)) {
        case notification_value_changed:
            timeStatusChanged(service, notification);
            break;
        case notification_time_zone_changed:
            time_reloadZone();
            [[fallthrough]];
        case notification_time_set:
        case notification_time_changed:
            // The clock moved: every planned change is computed anew.
            if (service.synchronized) {
                dispatch_run(service, true);
            }
            break;
        default:
            break;
    }
}

void objectLoaded(request_t* request) {
    const reply_t* reply = request_reply(request);
    for (const reply_item_t* item = reply_firstItem(reply); item != nullptr;
         item = reply_nextItem(reply, item)) {
        if (reply_item_type(item) == reply_type_error) {
            tolvTrace(TRACE_LEVEL_NOTICE, "unable to wait for object: %s (%s)",
                      reply_item_errorDescription(item), reply_item_errorInfo(item));
        } else if (reply_item_type(item) == reply_type_object_gone) {
            if (std::optional<std::string> name = object_name(reply_item_object(item), 1)) {
                rootGone(serviceOf(request), *name);
            }
        } else if (reply_item_type(item) == reply_type_object) {
            std::optional<std::string> name = object_name(reply_item_object(item), 1);
            if (!name) {
                tolvTrace(TRACE_LEVEL_NOTICE, "unable to fetch object name: %s",
                          error_string(orv_error()));
            } else {
                rootAppeared(serviceOf(request), *name);
            }
        }
    }
}

void timeChanged(request_t* request) {
    const reply_t* reply = request_reply(request);
    for (const reply_item_t* item = reply_firstItem(reply); item != nullptr;
         item = reply_nextItem(reply, item)) {
        if (reply_item_type(item) == reply_type_notification) {
            timeNotified(serviceOf(request), reply_item_notification(item));
        } else if (reply_item_type(item) == reply_type_error) {
            tolvTrace(TRACE_LEVEL_WARNING, "Error received : 0x%8.8X %s %s", reply_item_error(item),
                      reply_item_errorDescription(item), reply_item_errorInfo(item));
        }
    }
}

void subscriptionCancelled(request_t* request) noexcept {
    request_destroy(request);
}

}  // namespace

bool timewatch_start(service_t& service) {
    std::unique_ptr<request_t> request = request_create_getObject("", 1, request_wait);
    if (request) {
        request_setReplyHandler(request.get(), orv_plugin_object_loaded);
        request_setUserData(request.get(), &service);
        service.lookup = orv_sendRequest(service.context, service.busPeer, std::move(request));
    }
    if (service.lookup == nullptr) {
        tolvTrace(TRACE_LEVEL_ERROR, "unable to wait for objects");
        return false;
    }
    return true;
}

bool orv_plugin_object_loaded(request_t* request) noexcept {
    return service_guarded("orv_plugin_object_loaded", true, [&] {
        objectLoaded(request);
        return true;
    });
}

bool orv_plugin_createSubscription(orv_context_t* context, peer_info_t* peer, const char* path,
                                   request_reply_handler_t handler, void* userdata,
                                   std::uint32_t* requestId) noexcept {
    return service_guarded("orv_plugin_createSubscription", false, [&] {
        *requestId = 0;
        std::unique_ptr<request_t> created = request_create_getObject(path, 1, kSubscriptionFlags);
        request_t* request = created ? orv_sendRequest(context, peer, std::move(created)) : nullptr;
        if (request == nullptr) {
            tolvTrace(TRACE_LEVEL_WARNING, "Failed to subscribe to %s", path);
            return false;
        }
        request_setReplyHandler(request, handler);
        request_setCancelHandler(request, subscriptionCancelled);
        request_setUserData(request, userdata);
        *requestId = request_id(request);
        return true;
    });
}

bool orv_plugin_timeChanged(request_t* request) noexcept {
    return service_guarded("orv_plugin_timeChanged", true, [&] {
        timeChanged(request);
        return true;
    });
}
