// The plug-in's runtime: start-up and clean-up, the watch on the bus object
// "Time", the event timer and the change notification.
#pragma once

#include <cstdint>
#include <ctime>

#include <memory>
#include <optional>
#include <string>

#include "orv/context.h"
#include "orv/object.h"
#include "orv/request.h"
#include "orv/timer.h"
#include "scheduler_plugin_common.h"

#define ORV_PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))

ORV_PLUGIN_EXPORT bool orv_plugin_initialize(orv_context_t* context) noexcept;
ORV_PLUGIN_EXPORT void orv_plugin_cleanup() noexcept;

// Reply handler of the start-up lookup: finds "Time" among the bus objects.
bool orv_plugin_object_loaded(request_t* request) noexcept;

// Opens a subscription to a remote object: a request that stays open and
// delivers its value changes and notifications to handler.
bool orv_plugin_createSubscription(orv_context_t* context, peer_info_t* peer, const char* path,
                                   request_reply_handler_t handler,
                                   std::uint32_t* requestId) noexcept;
// Reply handler of the subscription to "Time".
bool orv_plugin_timeChanged(request_t* request) noexcept;

// Expiry handler of the event timer; also run directly (timer null) after the
// agenda changed. The user data of the event timer is the recalculation flag.
void orv_plugin_eventTimerHandler(orv_timer_t* timer, void* userdata) noexcept;
// Applies every change due at now and stores the milliseconds until the next.
void orv_plugin_eventTimerHandler_sim(time_t now, int recalculate, std::uint32_t* timeout,
                                      bool simulate);
// Pushes one state of a schedule instance to its client and records it in
// CurrentState ("Unsynchronized" when the call could not be sent).
bool orv_plugin_setStateRPC(object_t* instance, const std::string& state);
// Sends "setState" with "ID" and "state" to the client object of a type.
// False when it was not sent, also while the clock is not synchronised.
bool setState(object_t* typeInstance, const std::string& id, const std::string& state);
// Records that the schedules of a type changed; the change notification
// follows when the save timer expires.
void scheduleModified(const std::string& type);
// Expiry handler of the save timer.
void orv_plugin_saveTimerHandler(orv_timer_t* timer, void* userdata) noexcept;

// The operations behind the bus functions. The first argument is always the
// Scheduler object; a missing argument arrives as nullopt and is refused by
// the operation that needs it.
bool registerScheduleType(object_t* object, const std::optional<std::string>& type,
                          const std::optional<std::string>& path,
                          std::optional<variant_list_t> states,
                          const std::optional<variant_list_t>& schedules);
bool unregisterScheduleType(object_t* object, const std::optional<std::string>& type);
bool getScheduleTypes(object_t* object, variant_list_t* list);
bool addSchedule(object_t* object, const std::optional<std::string>& type,
                 const schedule_t* schedule);
bool removeSchedules(object_t* object, const std::optional<std::string>& type,
                     const std::optional<variant_list_t>& ids);
bool getSchedules(object_t* object, const std::optional<std::string>& type, variant_list_t* list,
                  bool complete);
bool getSchedule(object_t* object, const std::optional<std::string>& type,
                 const std::optional<std::string>& id, std::unique_ptr<schedule_t>* record);
bool enableSchedule(object_t* object, const std::optional<std::string>& type,
                    const std::optional<std::string>& id, bool enabled);
// An empty override clears it.
bool overrideSchedule(object_t* object, const std::optional<std::string>& type,
                      const std::optional<std::string>& id,
                      const std::optional<std::string>& state);
bool overrideState(object_t* object, const std::optional<std::string>& type,
                   const std::optional<std::string>& id, const std::optional<std::string>& state);
// The lines of a simulated run; nullopt without a type or an ID.
std::optional<variant_list_t> simulateSchedule(object_t* object,
                                               const std::optional<std::string>& type,
                                               const std::optional<std::string>& id, time_t start,
                                               time_t stop);
variant_list_t simulateSchedules(object_t* object, time_t start, time_t stop);
