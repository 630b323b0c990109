// The change notification: a type's owner hears once, a few seconds after
// the last change of a burst, that its schedules changed, so that it saves
// them once instead of once per call.
#pragma once

#include <string>

#include "service.h"

// Records that the schedules of a type changed and restarts the delay.
void scheduleModified(service_t& service, const std::string& type);
// Expiry handler of the notice timer; its user data is the service.
void orv_plugin_saveTimerHandler(orv_timer_t* timer, void* userdata) noexcept;
