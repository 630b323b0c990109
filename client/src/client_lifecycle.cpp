// client_t's life cycle: registering the type, reading its schedules back
// and saving them, and following the scheduler across its restarts.
#include <set>

#include "client_impl.h"
#include "orv/dbus_handle.h"

namespace scheduler {

namespace {

constexpr std::uint64_t kRetryUs = 1'000'000;

json statesJson(const std::vector<std::string>& states) {
    json list = json::array();
    for (const std::string& state : states) {
        list.push_back(state);
    }
    return list;
}

bool holdsType(const call_result_t& types, const std::string& name) {
    auto list = types.out.find("types");
    if (list == types.out.end() || !list->is_array()) {
        return false;
    }
    return std::find(list->begin(), list->end(), json(name)) != list->end();
}

// The schedules of a read-back, or nullopt when any of them has not the
// form of a schedule: a read-back that cannot be trusted is never saved.
std::optional<std::vector<schedule_t>> readBack(const call_result_t& result, std::string* problem) {
    auto list = result.out.find("scheduleInfo");
    if (list == result.out.end() || !list->is_array()) {
        *problem = "the read-back holds no list of schedules";
        return std::nullopt;
    }
    std::vector<schedule_t> schedules;
    for (std::size_t i = 0; i < list->size(); ++i) {
        json_problem_t wrong;
        auto read = schedule_from_json((*list)[i], "/" + std::to_string(i), &wrong);
        if (!read) {
            *problem = "the read-back's schedule " + wrong.text();
            return std::nullopt;
        }
        schedules.push_back(std::move(read->schedule));
    }
    return schedules;
}

}  // namespace

// When the scheduler holds the type already, this owner restarted: the
// scheduler's schedules are newer than the store (a change may not have
// been saved yet), so the type is registered again without schedules, which
// keeps them, and they are read back and saved. Otherwise the scheduler is
// new and gets the stored schedules.
void client_t::impl_t::startSession(const std::string& owner) {
    schedulerOwner_ = owner;
    registered_ = false;
    retrySource_.reset();
    const call_result_t types = call("getScheduleTypes", json::object());
    if (!types.ok) {
        log("cannot ask the scheduler for its types: " + types.error);
        return retryLater();
    }
    const bool held = holdsType(types, options_.type.name);
    json arguments = {{"path", options_.type.path}, {"states", statesJson(options_.type.states)}};
    if (!held) {
        json schedules = json::array();
        for (const schedule_t& schedule : stored_.schedules) {
            schedules.push_back(schedule_to_json(schedule));
        }
        arguments["schedules"] = std::move(schedules);
    }
    const call_result_t registration = call("registerScheduleType", std::move(arguments));
    if (!registration.ok) {
        log("cannot register the type " + options_.type.name + ": " + registration.error);
        return retryLater();
    }
    registered_ = true;
    log("registered the type " + options_.type.name + " with " +
        (held ? std::string("the scheduler's own schedules")
              : std::to_string(stored_.schedules.size()) + " stored schedule" +
                    (stored_.schedules.size() == 1 ? "" : "s")));
    readBackAndSave(held ? nullptr : &stored_.schedules);
    takeName();
    if (options_.on_registered) {
        options_.on_registered(*client_);
    }
}

void client_t::impl_t::schedulerLeft() {
    schedulerOwner_.clear();
    registered_ = false;
    retrySource_.reset();
    log("the scheduler left the bus; waiting for it to come back");
}

bool client_t::impl_t::readBackAndSave(const std::vector<schedule_t>* sent) {
    const call_result_t result = call("getCompleteSchedules", json::object());
    std::string problem = result.error;
    std::optional<std::vector<schedule_t>> schedules =
        result.ok ? readBack(result, &problem) : std::nullopt;
    if (!schedules) {
        log("not saving: cannot read the schedules back: " + problem);
        return false;
    }
    store_content_t content;
    std::set<std::string> ids;
    for (const schedule_t& schedule : *schedules) {
        ids.insert(schedule.id);
    }
    // A rejected schedule stays until the scheduler holds one of its ID.
    for (const rejected_t& kept : stored_.rejected) {
        auto id = kept.schedule.is_object() ? kept.schedule.find("ID") : kept.schedule.end();
        if (id == kept.schedule.end() || !id->is_string() || !ids.count(id->get<std::string>())) {
            content.rejected.push_back(kept);
        }
    }
    for (const schedule_t& schedule : sent != nullptr ? *sent : std::vector<schedule_t>{}) {
        if (!ids.count(schedule.id)) {
            log("the scheduler refused the stored schedule \"" + schedule.id +
                "\"; it is kept in the store as rejected");
            content.rejected.push_back(
                {schedule_to_json(schedule), "refused by the scheduler at registration"});
        }
    }
    content.schedules = std::move(*schedules);
    if (!store_.save(content)) {
        return false;
    }
    stored_ = std::move(content);
    return true;
}

// Taken once the type is registered, so that the scheduler, which tells a
// client its present states when the client's name appears, tells them once.
void client_t::impl_t::takeName() {
    if (nameTaken_) {
        return;
    }
    const int r = sd_bus_request_name(bus_.get(), clientName_.c_str(), 0);
    if (r < 0 && r != -EALREADY) {
        log("cannot own " + clientName_ + ": " + std::strerror(-r) +
            "; the scheduler cannot reach this client");
        return;
    }
    nameTaken_ = true;
}

void client_t::impl_t::retryLater() {
    sd_event_source* source = nullptr;
    if (sd_event_add_time_relative(event_.get(), &source, CLOCK_MONOTONIC, kRetryUs, 0, onRetry,
                                   this) >= 0) {
        retrySource_.reset(source);
    }
}

int client_t::impl_t::onRetry(sd_event_source*, std::uint64_t, void* userdata) {
    auto* self = static_cast<impl_t*>(userdata);
    try {
        if (!self->schedulerOwner_.empty() && !self->registered_) {
            self->startSession(self->schedulerOwner_);
        }
    } catch (const std::exception& e) {
        self->log(std::string("registering again failed: ") + e.what());
    }
    return 0;
}

}  // namespace scheduler
