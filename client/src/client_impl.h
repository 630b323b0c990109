// The inside of client_t: the bus and loop it runs on, its store, and the
// life cycle of its registration.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <memory>
#include <string>
#include <vector>

#include "orv/dbus_handle.h"
#include "scheduler/client.h"
#include "scheduler_call.h"
#include "store.h"

namespace scheduler {

struct event_unref {
    void operator()(sd_event* event) const { sd_event_unref(event); }
};
using event_ptr = std::unique_ptr<sd_event, event_unref>;

// A bus the client opened is flushed and closed with it; the caller's bus is
// only released.
struct bus_release {
    bool opened = false;
    void operator()(sd_bus* bus) const {
        if (opened) {
            sd_bus_flush_close_unref(bus);
        } else {
            sd_bus_unref(bus);
        }
    }
};
using bus_ptr = std::unique_ptr<sd_bus, bus_release>;

struct client_t::impl_t {
    impl_t(bus_ptr bus, options_t options);
    ~impl_t();

    // --- start-up (client.cpp)
    void attach();
    void serveClientObject();
    void watchScheduler();

    // --- the life cycle (client_lifecycle.cpp)
    // Registers the type with the scheduler whose unique name is owner.
    void startSession(const std::string& owner);
    void schedulerLeft();
    // Reads the type's schedules back and saves them. The schedules sent
    // with a registration, when given, are checked against the read-back.
    bool readBackAndSave(const std::vector<schedule_t>* sent);
    void takeName();
    void retryLater();

    // --- bus callbacks (client.cpp)
    static int onSetState(sd_bus_message* m, void* userdata, sd_bus_error* error);
    int setState(sd_bus_message* m, sd_bus_error* error);
    static int onOwnerChanged(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onNotification(sd_bus_message* m, void* userdata, sd_bus_error* error);
    static int onStart(sd_event_source* source, void* userdata);
    static int onRetry(sd_event_source* source, std::uint64_t usec, void* userdata);
    static int onStopSignal(sd_event_source* source, const struct signalfd_siginfo* info,
                            void* userdata);

    void log(const std::string& line) const;
    bool allowedState(const std::string& state) const;
    call_result_t call(const std::string& function, json arguments) const;

    client_t* client_ = nullptr;
    options_t options_;
    event_ptr event_;
    bool ownLoop_ = false;
    // The bus is closed before the loop it is attached to goes.
    bus_ptr bus_;
    bool attachedBus_ = false;
    store_t store_;
    store_content_t stored_;
    std::string objectPath_;
    std::string clientName_;
    std::string schedulerOwner_;
    bool registered_ = false;
    bool nameTaken_ = false;
    std::vector<orv_slot_ptr> slots_;
    orv_source_ptr startSource_;
    orv_source_ptr retrySource_;
    std::vector<orv_source_ptr> signalSources_;
};

}  // namespace scheduler
