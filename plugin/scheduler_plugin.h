// The plug-in's entry points: the host loads the plug-in, calls
// orv_plugin_initialize with its context, binds the "__<function>" handlers
// of the definition, and calls orv_plugin_cleanup before it unloads it.
#pragma once

#include "orv/context.h"
#include "service.h"

#define ORV_PLUGIN_EXPORT extern "C" __attribute__((visibility("default")))

ORV_PLUGIN_EXPORT bool orv_plugin_initialize(orv_context_t* context) noexcept;
ORV_PLUGIN_EXPORT void orv_plugin_cleanup() noexcept;
ORV_PLUGIN_EXPORT bool orv_plugin_status(std::string* out) noexcept;

// The service of the loaded plug-in; null before initialisation and after
// clean-up.
service_t* scheduler_service();
