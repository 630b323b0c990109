#include "change_notice.h"

#include <algorithm>
#include <memory>

#include "orv/notification.h"
#include "orv/protocol.h"
#include "scheduler_plugin_common.h"

namespace {

constexpr std::uint32_t kNoticeDelayMs = 5000;

// One notification per recorded type, in the order the types were first
// recorded. A failure ends the run; the names not sent yet wait for the next
// change.
void sendChangeNotifications(service_t& service) {
    std::unique_ptr<notification_t> notification =
        notification_create(notification_schedules_changed);
    if (!notification) {
        tolvTrace(TRACE_LEVEL_WARNING, "Failed to create notification");
        return;
    }
    std::size_t sent = 0;
    for (const std::string& type : service.changedTypes) {
        const std::string path = "Scheduler.Types." + type;
        if (!notification_setObjectPath(notification.get(), path) ||
            !orv_sendNotification(service.context, nullptr, nullptr, notification.get())) {
            tolvTrace(TRACE_LEVEL_WARNING, "Failed to send the notification of %s", path.c_str());
            break;
        }
        ++sent;
    }
    service.changedTypes.erase(service.changedTypes.begin(),
                               service.changedTypes.begin() + static_cast<std::ptrdiff_t>(sent));
}

}  // namespace

void scheduleModified(service_t& service, const std::string& type) {
    std::vector<std::string>& types = service.changedTypes;
    if (std::find(types.begin(), types.end(), type) == types.end()) {
        types.push_back(type);
    }
    if (!orv_timer_start(service.noticeTimer.get(), kNoticeDelayMs)) {
        tolvTrace(TRACE_LEVEL_WARNING, "could not start the notice timer");
    }
}

void orv_plugin_saveTimerHandler(orv_timer_t* /*timer*/, void* userdata) noexcept {
    service_guarded("orv_plugin_saveTimerHandler", 0, [&] {
        sendChangeNotifications(*static_cast<service_t*>(userdata));
        return 0;
    });
}
