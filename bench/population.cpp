#include "population.h"

#include <algorithm>
#include <array>
#include <numeric>
#include <utility>

namespace bench {

namespace {

// Schedules per registration while a population is built: small enough that
// the transient argument lists do not show in the resident memory.
constexpr std::size_t kChunk = 1000;

population_t current;

variant_t entry(std::int64_t begin, std::int64_t end, const char* state) {
    variant_map_t map;
    map.push_back({"state", variant_t(state)});
    map.push_back({"begin", variant_t(static_cast<std::uint32_t>(begin))});
    map.push_back({"end", variant_t(static_cast<std::uint32_t>(end))});
    return variant_t(std::move(map));
}

variant_list_t states() {
    variant_list_t list;
    for (const char* state : {"on", "off", "eco"}) {
        list.emplace_back(state);
    }
    return list;
}

// registerScheduleType for "Bench" on the client, with those schedules or
// with no "schedules" argument at all.
scheduler_call_t registerCall(std::optional<variant_list_t> schedules) {
    if (!schedules) {
        return scheduler_call_t(
            "registerScheduleType",
            {text("type", kType), text("path", "Bench.Client"), {"states", variant_t(states())}});
    }
    return scheduler_call_t("registerScheduleType",
                            {text("type", kType),
                             text("path", "Bench.Client"),
                             {"states", variant_t(states())},
                             {"schedules", variant_t(std::move(*schedules))}});
}

}  // namespace

std::string idOf(std::size_t i) {
    return "s" + std::to_string(i);
}

layout_t::layout_t(std::size_t count) : count_(count), stride_(7919) {
    while (std::gcd(stride_, count_) != 1) {
        ++stride_;
    }
}

variant_t layout_t::schedule(std::size_t i) const {
    const std::size_t first = (i * stride_) % count_;
    std::array<std::int64_t, kChanges> at{};
    for (std::size_t k = 0; k < at.size(); ++k) {
        at[k] = slotOffset(first + k * count_);
    }
    variant_list_t entries;
    entries.push_back(entry(at[0], at[1], "on"));
    entries.push_back(entry(at[1], at[2], "eco"));
    entries.push_back(entry(at[3], at[4], "on"));
    entries.push_back(entry(at[4], at[5], "eco"));
    variant_map_t info;
    info.push_back({"ID", variant_t(idOf(i))});
    info.push_back({"enable", variant_t(true)});
    info.push_back({"base", variant_t("Weekly")});
    info.push_back({"def", variant_t("off")});
    info.push_back({"override", variant_t("")});
    info.push_back({"schedule", variant_t(std::move(entries))});
    return variant_t(std::move(info));
}

scheduler_call_t addCall(const layout_t& layout, std::size_t i) {
    return scheduler_call_t("addSchedule", {text("type", kType), {"info", layout.schedule(i)}});
}

scheduler_call_t removeCall(std::size_t i) {
    variant_list_t ids;
    ids.emplace_back(idOf(i));
    return scheduler_call_t("removeSchedules",
                            {text("type", kType), {"ID", variant_t(std::move(ids))}});
}

void dropPopulation() {
    current.host.reset();
    current.layout.reset();
    current.scheduler = nullptr;
}

std::optional<std::string> startHost() {
    virtual_host_t::options_t options;
    options.start = kMonday + 1;
    // Tracing would dominate every figure: the plug-in's zone stays
    // unregistered and only errors pass.
    options.traceZone = std::nullopt;
    options.traceLevel = 0;
    current.host = std::make_unique<virtual_host_t>(options);
    if (!current.host->initialized()) {
        return "the plug-in did not initialise";
    }
    current.host->addClient("Bench.Client");
    current.scheduler = current.host->object("Scheduler");
    return std::nullopt;
}

std::optional<std::string> registerEmptyType() {
    if (!registerCall(std::nullopt).run(*current.host, current.scheduler)) {
        return "registerScheduleType failed";
    }
    return std::nullopt;
}

std::optional<std::string> addPopulation(std::size_t count) {
    layout_t layout(count);
    for (std::size_t first = 0; first < count; first += kChunk) {
        variant_list_t schedules;
        for (std::size_t i = first; i < std::min(count, first + kChunk); ++i) {
            schedules.push_back(layout.schedule(i));
        }
        if (!registerCall(std::move(schedules)).run(*current.host, current.scheduler)) {
            return "registerScheduleType failed";
        }
        current.host->bus().clearRecords();
    }
    object_t* schedules = current.host->object(kSchedules);
    const std::size_t made = schedules != nullptr ? object_instanceCount(schedules) : 0;
    if (made != count) {
        return "the population holds " + std::to_string(made) + " schedules, not " +
               std::to_string(count);
    }
    current.layout = layout;
    current.host->clearTraces();
    return std::nullopt;
}

population_t* population(benchmark::State& state, std::size_t count) {
    if (current.layout && current.layout->count() == count) {
        return &current;
    }
    dropPopulation();
    std::optional<std::string> error = startHost();
    if (!error) {
        error = addPopulation(count);
    }
    if (error) {
        dropPopulation();
        state.SkipWithError(error->c_str());
        return nullptr;
    }
    return &current;
}

}  // namespace bench
