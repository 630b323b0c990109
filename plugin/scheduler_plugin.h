// The plug-in's runtime: start-up and clean-up, the watch on the bus object
// "Time", the event timer and the change notification.
#pragma once

#include <cstdint>
#include <ctime>

#include "orv/context.h"
#include "orv/request.h"
#include "orv/timer.h"

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
// Expiry handler of the save timer.
void orv_plugin_saveTimerHandler(orv_timer_t* timer, void* userdata) noexcept;
