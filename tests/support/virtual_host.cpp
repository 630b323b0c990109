#include "virtual_host.h"

#include <cstdlib>
#include <stdexcept>

#include "orv/function.h"
#include "orv/request.h"
#include "orv/trace.h"
#include "orv/variant_map.h"

namespace {

constexpr std::int64_t kMicro = 1000000;

void setZoneVariable(const std::optional<std::string>& value) {
    if (value) {
        setenv("scheduler_plugin", value->c_str(), 1);
    } else {
        unsetenv("scheduler_plugin");
    }
}

argument_value_list_t argumentsFromJson(std::string_view json) {
    std::optional<variant_t> parsed = variant_fromJSON(json);
    if (!parsed || parsed->map() == nullptr) {
        throw std::invalid_argument("arguments must be a JSON object: " + std::string(json));
    }
    argument_value_list_t arguments;
    for (variant_map_entry_t& entry : *parsed->map()) {
        arguments.values().push_back({entry.key, std::move(entry.value)});
    }
    return arguments;
}

}  // namespace

virtual_host_t::virtual_host_t() : virtual_host_t(options_t{}) {}

virtual_host_t::virtual_host_t(options_t options) : options_(std::move(options)) {
    tolvTraceReset();
    tolvTraceSetLevel(options_.traceLevel);
    tolvTraceSetSink([this](int, std::string_view line) { traces_.emplace_back(line); });
    setZoneVariable(options_.traceZone);

    loop_ = std::make_unique<orv_virtual_loop_t>(options_.start * kMicro);
    orv_loop_setDefault(loop_.get());
    model_ = std::make_unique<datamodel_t>();
    if (std::optional<std::string> error = model_->loadFile(options_.definition)) {
        throw std::runtime_error("definition: " + *error);
    }
    bus_ = std::make_unique<orv_inproc_bus_t>(loop_.get());
    if (options_.timeStatus) {
        publishTime(*options_.timeStatus);
    }
    context_ = std::make_unique<orv_context_t>(loop_.get(), model_.get(), bus_.get());

    std::string error;
    plugin_ = orv_plugin_t::load(options_.plugin, &error);
    if (!plugin_) {
        throw std::runtime_error("plug-in: " + error);
    }
    for (const auto& definition : model_->definitions()) {
        function_bindAll(definition.get(),
                         [this](const std::string& name) { return plugin_->handler(name); });
    }
    initialized_ = plugin_->initialize(context_.get());
    loop_->runPending();
}

virtual_host_t::~virtual_host_t() {
    shutdown();
}

void virtual_host_t::shutdown() {
    if (!plugin_) {
        return;
    }
    if (initialized_) {
        plugin_->cleanup();
    }
    // The plug-in's handlers must still be loaded while requests are
    // cancelled and instances destroyed.
    context_.reset();
    model_->clear();
    plugin_.reset();
    orv_loop_setDefault(nullptr);
    tolvTraceSetSink({});
    unsetenv("scheduler_plugin");
}

virtual_host_t::call_result_t virtual_host_t::call(std::string_view function,
                                                   std::string_view jsonArguments) {
    argument_value_list_t arguments = argumentsFromJson(jsonArguments);
    std::unique_ptr<request_t> request = request_create_executeFunction("Scheduler", function, 0);
    call_result_t result;
    bool match = false;
    object_t* scheduler = object_getObject(model_->root(), "Scheduler", 0, &match);
    result.handled =
        object_callFunction(scheduler, function, &arguments, &result.retval, request.get());
    for (argument_value_t& argument : arguments.values()) {
        result.arguments.push_back({argument.name, std::move(argument.value)});
    }
    loop_->runPending();
    return result;
}

std::int64_t virtual_host_t::now() const {
    return loop_->now_us() / kMicro;
}

void virtual_host_t::advance(std::int64_t seconds) {
    loop_->advance(seconds * kMicro);
}

void virtual_host_t::advanceMs(std::int64_t milliseconds) {
    loop_->advance(milliseconds * 1000);
}

void virtual_host_t::advanceTo(std::int64_t time) {
    loop_->advanceTo(time * kMicro);
}

void virtual_host_t::setClock(std::int64_t time) {
    loop_->setWallClock(time * kMicro);
}

void virtual_host_t::runPending() {
    loop_->runPending();
}

void virtual_host_t::publishTime(std::string_view status) {
    variant_map_t parameters;
    variant_map_addChar(&parameters, "Status", status);
    bus_->publish("Time", std::move(parameters));
    if (loop_) {
        loop_->runPending();
    }
}

void virtual_host_t::setTimeStatus(std::string_view status) {
    bus_->setParameter("Time", "Status", variant_t(status));
    loop_->runPending();
}

void virtual_host_t::emitTime(std::vector<std::uint32_t> notificationTypes) {
    std::vector<notification_t> notifications;
    for (std::uint32_t type : notificationTypes) {
        notifications.emplace_back(type);
    }
    bus_->emit("Time", std::move(notifications));
    loop_->runPending();
}

void virtual_host_t::addClient(std::string_view path) {
    bus_->publish(path);
    loop_->runPending();
}

void virtual_host_t::removeClient(std::string_view path) {
    bus_->unpublish(path);
    loop_->runPending();
}

std::vector<virtual_host_t::set_state_t> virtual_host_t::setStateCalls() const {
    std::vector<set_state_t> calls;
    for (const orv_inproc_bus_t::call_t& call : bus_->calls()) {
        if (call.function != "setState") {
            continue;
        }
        calls.push_back({call.time_us / kMicro, call.time_us, call.path,
                         variant_char(variant_map_find(&call.arguments, "ID")).value_or(""),
                         variant_char(variant_map_find(&call.arguments, "state")).value_or("")});
    }
    return calls;
}

object_t* virtual_host_t::object(std::string_view path) {
    bool match = false;
    object_t* found = object_getObject(model_->root(), path, 0, &match);
    return match ? found : nullptr;
}

const variant_t* virtual_host_t::parameter(std::string_view path, std::string_view name) {
    return object_parameterValue(object(path), name);
}

bool virtual_host_t::traced(std::string_view text) const {
    return countTraced(text) > 0;
}

std::size_t virtual_host_t::countTraced(std::string_view text) const {
    std::size_t count = 0;
    for (const std::string& line : traces_) {
        if (line.find(text) != std::string::npos) {
            ++count;
        }
    }
    return count;
}
