// The owner of one schedule type: a service that receives the type's states
// and keeps its schedules across restarts of either side.
//
// The scheduler keeps no store. Its owners do, and this class does that job:
// - at start it loads the store file and registers the type with the stored
//   schedules, waiting for the scheduler's bus name when it is not there yet;
// - when the scheduler announces that the type's schedules changed, it reads
//   them back and writes the store atomically, keeping the previous one as a
//   backup ("<store>.bak");
// - when the scheduler comes back (its name gets a new owner), it registers
//   the type again with the stored schedules;
// - when the owner itself restarts while the scheduler still holds the type,
//   the scheduler's schedules are the newer ones: they are read back and
//   saved, never overwritten with the store;
// - a store that cannot be read is moved aside ("<store>.corrupt-<time>") and
//   the backup, or nothing, is used instead; a stored schedule that cannot
//   stand, or that the scheduler refuses, is kept in the store as rejected.
//
// It serves the type's client object on the bus (the root's name
// "org.orv.<Root>" is taken once the type is registered, so that the
// scheduler tells the client its present states once) and calls back for
// every setState whose state is one of the type's states.
//
// Everything runs on one sd-event loop: the caller's, or the client's own,
// which run() drives. Callbacks come from that loop. The schedule calls are
// synchronous bus calls; they may be made from the callbacks. No member is
// thread-safe.
#pragma once

#include <ctime>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "scheduler/schedule.h"

struct sd_bus;
struct sd_event;

namespace scheduler {

class client_t;

struct type_info_t {
    // The type's name, e.g. "Light".
    std::string name;
    // The data-model path of the client object, e.g. "Device.Light"; it is
    // served as the object path "/Device/Light" under "org.orv.Device".
    std::string path;
    // The states the type allows, e.g. {"on", "off"}.
    std::vector<std::string> states;
};

struct options_t {
    type_info_t type;
    // The store file. Its folder must exist and be writable: the temporary
    // file, the backup and files moved aside go next to it.
    std::filesystem::path store;
    // Each setState from the scheduler: the schedule's ID and its new state.
    std::function<void(const std::string& id, const std::string& state)> on_state;
    // Each time the type is registered (at start and after the scheduler
    // came back) and its schedules are saved; the place to add schedules
    // that an owner always wants. Optional.
    std::function<void(client_t& client)> on_registered;
    // One line per event worth a log entry (start, registration, each save
    // problem, each refused schedule). Optional; the default writes
    // "scheduler-client: <line>" to stderr.
    std::function<void(std::string_view line)> log;
    // The caller's loop, or null: the client then makes its own, run by run().
    sd_event* event = nullptr;
};

class SCHEDULER_CLIENT_API client_t {
  public:
    // On a bus connection of the caller's (a reference is taken). Throws
    // std::system_error when the bus cannot be used or the client object
    // cannot be served, std::invalid_argument for a type with no name, no
    // path or no states.
    client_t(sd_bus* bus, options_t options);
    // On a bus it opens: "session", "system" or a D-Bus address.
    client_t(const std::string& bus_address, options_t options);
    ~client_t();
    client_t(const client_t&) = delete;
    client_t& operator=(const client_t&) = delete;

    // The schedule calls. Each answers true, or false with the reason in
    // *error when one is given. A schedule is checked here first, so that
    // one that cannot stand never reaches the bus.
    bool add(const schedule_t& schedule, std::string* error = nullptr);  // adds or replaces
    bool remove(const std::string& id, std::string* error = nullptr);
    bool enable(const std::string& id, bool enabled, std::string* error = nullptr);
    // A permanent override; an empty state clears it.
    bool override_schedule(const std::string& id, const std::string& state,
                           std::string* error = nullptr);
    // A temporary state that lasts until the schedule's next change.
    bool override_state(const std::string& id, const std::string& state,
                        std::string* error = nullptr);
    std::optional<schedule_status_t> get(const std::string& id, std::string* error = nullptr);
    std::optional<std::vector<schedule_status_t>> list(std::string* error = nullptr);
    // The scheduler's simulation of one schedule between two times: one line
    // per change.
    std::optional<std::vector<std::string>> simulate(const std::string& id, std::time_t start,
                                                     std::time_t stop,
                                                     std::string* error = nullptr);

    // Reads the schedules back and saves them now, without waiting for the
    // scheduler's change notice: an owner that stops calls it last, so that
    // a change made just before is not lost. run() does it by itself.
    bool save(std::string* error = nullptr);

    // True while the scheduler holds the type as registered by this client.
    bool registered() const;
    // The loop the client runs on.
    sd_event* event() const;
    // Runs the client's own loop until stop(), SIGTERM or SIGINT, then
    // saves; the exit code is 0 then. With the caller's loop, the caller runs it instead and
    // this returns -EBUSY at once.
    int run();
    void stop();

    // Opaque: the client's inside.
    struct impl_t;

  private:
    std::unique_ptr<impl_t> impl_;
};

}  // namespace scheduler
