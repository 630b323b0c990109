// The virtual host: loads the built plug-in and the real definition exactly
// as the daemon does, on a virtual clock and an in-process bus.
//
// Tests call bus functions by name with JSON arguments, move the clock, run
// the bus object "Time" and client objects, and read the data model, the
// trace lines and the notifications sent.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "orv/context.h"
#include "orv/inproc.h"
#include "orv/object.h"
#include "orv/plugin.h"
#include "orv/variant.h"
#include "orv/virtual_loop.h"

class virtual_host_t {
  public:
    struct options_t {
        // Wall clock at start, seconds since the epoch.
        std::int64_t start = 1700000000;
        // The value of the environment variable "scheduler_plugin"; nullopt
        // leaves it unset.
        std::optional<std::string> traceZone = "500";
        // The level of traces without a zone.
        int traceLevel = 500;
        // Status of the bus object "Time"; nullopt publishes no "Time".
        std::optional<std::string> timeStatus = "Synchronized";
        std::string plugin = SCHEDULER_PLUGIN_PATH;
        std::string definition = SCHEDULER_DEFINITION_PATH;
    };

    struct call_result_t {
        bool handled = false;
        variant_t retval;
        // The arguments after the call: out-arguments first.
        variant_map_t arguments;
    };

    struct set_state_t {
        std::int64_t time;     // seconds
        std::int64_t time_us;  // the same moment in microseconds
        std::string path;
        std::string id;
        std::string state;
    };

    virtual_host_t();
    explicit virtual_host_t(options_t options);
    ~virtual_host_t();
    virtual_host_t(const virtual_host_t&) = delete;
    virtual_host_t& operator=(const virtual_host_t&) = delete;

    bool initialized() const { return initialized_; }

    // Calls a function of "Scheduler" with a JSON object of named arguments.
    call_result_t call(std::string_view function, std::string_view jsonArguments = "{}");

    // The clock, in seconds.
    std::int64_t now() const;
    void advance(std::int64_t seconds);
    void advanceMs(std::int64_t milliseconds);
    void advanceTo(std::int64_t time);
    // Sets the wall clock as when the system clock is set.
    void setClock(std::int64_t time);
    void runPending();

    // The bus object "Time".
    void publishTime(std::string_view status);
    void setTimeStatus(std::string_view status);
    void emitTime(std::vector<std::uint32_t> notificationTypes);

    // Client objects that receive "setState".
    void addClient(std::string_view path);
    void removeClient(std::string_view path);
    std::vector<set_state_t> setStateCalls() const;

    // The data model.
    object_t* object(std::string_view path);
    const variant_t* parameter(std::string_view path, std::string_view name);

    // Trace lines, oldest first.
    const std::vector<std::string>& traces() const { return traces_; }
    bool traced(std::string_view text) const;
    std::size_t countTraced(std::string_view text) const;
    void clearTraces() { traces_.clear(); }

    orv_virtual_loop_t& loop() { return *loop_; }
    orv_inproc_bus_t& bus() { return *bus_; }
    orv_context_t& context() { return *context_; }
    datamodel_t& model() { return *model_; }

    // Unloads the plug-in now (clean-up, context, data model, library).
    void shutdown();

  private:
    options_t options_;
    std::vector<std::string> traces_;
    std::unique_ptr<orv_virtual_loop_t> loop_;
    std::unique_ptr<datamodel_t> model_;
    std::unique_ptr<orv_inproc_bus_t> bus_;
    std::unique_ptr<orv_context_t> context_;
    std::unique_ptr<orv_plugin_t> plugin_;
    bool initialized_ = false;
};
