// The watch on the bus: the root lookup that finds "Time" and hears of
// clients that come back, and the subscription to "Time" that starts the
// processing at the first "Synchronized" and recomputes when the clock or
// its zone changes.
#pragma once

#include <cstdint>

#include "service.h"

// Sends the root lookup; false when it could not be sent.
bool timewatch_start(service_t& service);

// Reply handler of the root lookup; its user data is the service.
bool orv_plugin_object_loaded(request_t* request) noexcept;
// Opens a subscription to a remote object: a request that stays open and
// delivers its value changes and notifications to handler, with userdata.
bool orv_plugin_createSubscription(orv_context_t* context, peer_info_t* peer, const char* path,
                                   request_reply_handler_t handler, void* userdata,
                                   std::uint32_t* requestId) noexcept;
// Reply handler of the subscription to "Time"; its user data is the service.
bool orv_plugin_timeChanged(request_t* request) noexcept;
