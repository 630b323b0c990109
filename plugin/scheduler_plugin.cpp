#include "scheduler_plugin.h"

#include <cstdlib>
#include <memory>

#include "change_notice.h"
#include "dispatcher.h"
#include "orv/trace.h"
#include "scheduler_plugin_common.h"
#include "schedules.h"
#include "time_watch.h"
#include "types.h"

namespace {

constexpr std::uint32_t kClientAttributeTimeout = 3;
constexpr std::uint32_t kClientTimeoutMs = 60000;

// The one owner of the plug-in's state: the host's entry points carry no
// user data.
std::unique_ptr<service_t> running;

void registerTraceZone() {
    if (const char* level = std::getenv("scheduler_plugin")) {
        tolvTraceAddZone(static_cast<int>(std::atol(level)), ME);
    }
}

orv_timer_ptr createTimer(orv_timer_handler_t handler, service_t* service) {
    orv_timer_ptr timer = orv_timer_create();
    if (!timer || !orv_timer_setHandler(timer.get(), handler) ||
        !orv_timer_setUserData(timer.get(), service)) {
        tolvTrace(TRACE_LEVEL_WARNING, "could not create timer");
        return nullptr;
    }
    return timer;
}

object_t* schedulerObject(orv_context_t* context) {
    bool match = false;
    object_t* scheduler = object_getObject(context->datamodel()->root(), "Scheduler", 0, &match);
    return match ? scheduler : nullptr;
}

std::unique_ptr<service_t> start(orv_context_t* context) {
    auto service = std::make_unique<service_t>();
    service->context = context;
    const orv_plugin_config_t* config = orv_pluginConfig(context);
    service->busPeer = config != nullptr ? config->busPeer : nullptr;
    service->scheduler = schedulerObject(context);
    if (service->scheduler == nullptr) {
        tolvTrace(TRACE_LEVEL_ERROR, "the definition has no object Scheduler");
        return nullptr;
    }
    orv_client_set_attribute(context, kClientAttributeTimeout, kClientTimeoutMs);
    service->eventTimer = createTimer(orv_plugin_eventTimerHandler, service.get());
    service->noticeTimer = createTimer(orv_plugin_saveTimerHandler, service.get());
    if (!service->eventTimer || !service->noticeTimer || !timewatch_start(*service)) {
        return nullptr;
    }
    return service;
}

bool initialize(orv_context_t* context) {
    registerTraceZone();
    running = start(context);
    if (running) {
        tolvTraceZ(TRACE_LEVEL_INFO, ME, "Initializing scheduler_plugin plugin");
    }
    return running != nullptr;
}

// Counts for the host's status line: how much the service holds and when
// it next acts.
std::string status(const service_t& service) {
    std::size_t schedules = 0;
    const std::vector<object_t*> types = types_all(service.scheduler);
    for (const object_t* type : types) {
        schedules += schedules_of(type).size();
    }
    const auto* head = service.agenda.head();
    return "types " + std::to_string(types.size()) + ", schedules " + std::to_string(schedules) +
           ", planned changes " + std::to_string(service.agenda.size()) + ", next change " +
           (head != nullptr ? orv_isoTime(head->change.time) : std::string("none")) +
           (service.synchronized ? "" : ", waiting for the clock");
}

void cleanup() {
    tolvTraceZ(TRACE_LEVEL_INFO, ME, "Cleaning up scheduler_plugin plugin");
    running.reset();
}

}  // namespace

service_t* scheduler_service() {
    return running.get();
}

bool orv_plugin_initialize(orv_context_t* context) noexcept {
    return service_guarded("orv_plugin_initialize", false, [&] { return initialize(context); });
}

bool orv_plugin_status(std::string* out) noexcept {
    return service_guarded("orv_plugin_status", false, [&] {
        if (!running || out == nullptr) {
            return false;
        }
        *out = status(*running);
        return true;
    });
}

void orv_plugin_cleanup() noexcept {
    service_guarded("orv_plugin_cleanup", 0, [] {
        cleanup();
        return 0;
    });
}
