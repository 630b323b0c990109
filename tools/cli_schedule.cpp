// orv-cli schedule add|show|next|svg.
#include "cli_schedule.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>
#include <variant>

#include "cli_schedule_bus.h"
#include "orv/variant.h"
#include "scheduler/draw.h"
#include "scheduler/text.h"

namespace {

using json = nlohmann::ordered_json;
constexpr int kFailed = 2;
constexpr std::time_t kWeek = 7 * 86400;

std::time_t nowOf(const schedule_args_t& args) {
    if (!args.now) {
        return std::time(nullptr);
    }
    std::optional<std::int64_t> parsed = orv_parseIsoTime(*args.now);
    if (!parsed) {
        throw cli_failure_t{kFailed, "--now takes an ISO 8601 time such as 2026-11-24T14:05:00Z"};
    }
    return static_cast<std::time_t>(*parsed);
}

// Seconds since Monday 00:00 of now's local week, as the engine counts them.
std::uint32_t weekOffset(std::time_t now) {
    std::tm local{};
    localtime_r(&now, &local);
    return static_cast<std::uint32_t>(((local.tm_wday + 6) % 7) * 86400 + local.tm_hour * 3600 +
                                      local.tm_min * 60 + local.tm_sec);
}

std::string localText(std::time_t t) {
    std::tm local{};
    localtime_r(&t, &local);
    char text[40];
    std::strftime(text, sizeof text,
                  local.tm_sec != 0 ? "%a %Y-%m-%d %H:%M:%S" : "%a %Y-%m-%d %H:%M", &local);
    return text;
}

scheduler::text_schedule_t textOf(const scheduler::schedule_t& schedule) {
    return {schedule.base, schedule.entries, schedule.default_state};
}

bool colourWanted(const std::string& mode) {
    if (mode == "always" || mode == "never") {
        return mode == "always";
    }
    const char* noColour = std::getenv("NO_COLOR");
    return isatty(STDOUT_FILENO) == 1 && (noColour == nullptr || noColour[0] == '\0');
}

// One schedule as a person reads it: its text, its state now and next, and
// its week grid, or for the other bases its next changes.
struct shown_t {
    scheduler::schedule_status_t status;
    cli_simulation_t simulation;
    std::optional<scheduler::week_grid_t> grid;
};

shown_t gather(sd_bus* bus, const std::string& type, scheduler::schedule_status_t status,
               std::time_t now, int count) {
    const scheduler::schedule_t& s = status.schedule;
    cli_simulation_t simulation = cli_simulate(bus, type, s.id, now, now + kWeek);
    if (simulation.changes.size() > static_cast<std::size_t>(count)) {
        simulation.changes.resize(static_cast<std::size_t>(count));
    }
    // A disabled schedule holds its default and an override its state: the
    // entries change nothing until that ends.
    if (!s.enabled || !s.override_state.empty()) {
        simulation.stateNow = s.enabled ? s.override_state : s.default_state;
        simulation.changes.clear();
    }
    auto grid = scheduler::week_grid(s.base, s.entries, s.default_state, weekOffset(now));
    return {std::move(status), std::move(simulation), std::move(grid)};
}

std::string describe(const shown_t& shown, bool colour) {
    const scheduler::schedule_t& s = shown.status.schedule;
    std::string out = s.id + ": " + scheduler::format_text(textOf(s)) + "\n";
    out += std::string("  ") + (s.enabled ? "enabled" : "disabled") +
           (s.override_state.empty() ? "" : ", overridden: " + s.override_state) + "; state now " +
           shown.simulation.stateNow;
    out += shown.simulation.changes.empty()
               ? ", no change ahead\n"
               : ", next " + shown.simulation.changes.front().second + " at " +
                     localText(shown.simulation.changes.front().first) + "\n";
    if (shown.grid) {
        return out + scheduler::draw_week_text(*shown.grid, colour);
    }
    for (const auto& [at, state] : shown.simulation.changes) {
        out += "  " + localText(at) + "  " + state + "\n";
    }
    return out;
}

json changesJson(const cli_simulation_t& simulation) {
    json list = json::array();
    for (const auto& [at, state] : simulation.changes) {
        list.push_back({{"time", orv_isoTime(at)}, {"local", localText(at)}, {"state", state}});
    }
    return list;
}

json describeJson(const shown_t& shown) {
    const scheduler::schedule_t& s = shown.status.schedule;
    json out = {{"ID", s.id},
                {"text", scheduler::format_text(textOf(s))},
                {"enable", s.enabled},
                {"override", s.override_state},
                {"state", shown.simulation.stateNow},
                {"changes", changesJson(shown.simulation)}};
    if (shown.grid) {
        json rows = json::array();
        std::istringstream lines(scheduler::draw_week_text(*shown.grid, false));
        for (std::string line; std::getline(lines, line);) {
            rows.push_back(line);
        }
        out["grid"] = std::move(rows);
    }
    return out;
}

// Runs a command; a failure becomes its line on stderr and exit code.
template <typename Body>
int guarded(Body&& body) {
    try {
        return body();
    } catch (const cli_failure_t& failure) {
        std::fprintf(stderr, "orv-cli: %s\n", failure.message.c_str());
        return failure.code;
    }
}

}  // namespace

int cli_scheduleAdd(const std::string& bus, const schedule_args_t& args) {
    return guarded([&] {
        orv_bus_ptr connection = cli_connect(bus);
        const std::vector<std::string> states = cli_typeStates(connection.get(), args.type);
        auto parsed = scheduler::parse_text(args.text, &states);
        if (auto* error = std::get_if<scheduler::text_error_t>(&parsed)) {
            // The text with a caret under the column that went wrong.
            std::fprintf(stderr, "orv-cli: %s\n  %s\n  %*s^\n", error->message.c_str(),
                         args.text.c_str(), static_cast<int>(error->column ? error->column - 1 : 0),
                         "");
            return kFailed;
        }
        const auto& text = std::get<scheduler::text_schedule_t>(parsed);
        if (text.default_state.empty()) {
            throw cli_failure_t{kFailed, "name the state between the spans: add \"; default " +
                                             states.back() + "\" to the text"};
        }
        scheduler::schedule_t schedule{
            args.id,     !args.disabled, text.base, text.default_state, args.override_state,
            text.entries};
        cli_addSchedule(connection.get(), args.type, schedule);
        const std::string canonical = scheduler::format_text(text);
        if (args.json) {
            std::printf("%s\n", json({{"ID", args.id}, {"text", canonical}}).dump().c_str());
        } else {
            std::printf("%s: %s\n", args.id.c_str(), canonical.c_str());
        }
        return 0;
    });
}

int cli_scheduleShow(const std::string& bus, const schedule_args_t& args) {
    return guarded([&] {
        orv_bus_ptr connection = cli_connect(bus);
        const std::time_t now = nowOf(args);
        json all = json::array();
        std::string text;
        for (auto& status : cli_schedules(connection.get(), args.type, args.id)) {
            const shown_t shown = gather(connection.get(), args.type, std::move(status), now, 8);
            all.push_back(describeJson(shown));
            text += (text.empty() ? "" : "\n") + describe(shown, colourWanted(args.colour));
        }
        std::fputs(args.json ? (all.dump() + "\n").c_str() : text.c_str(), stdout);
        return 0;
    });
}

int cli_scheduleNext(const std::string& bus, const schedule_args_t& args) {
    return guarded([&] {
        orv_bus_ptr connection = cli_connect(bus);
        const std::time_t now = nowOf(args);
        // A year ahead covers every base but a far "once".
        cli_simulation_t simulation =
            cli_simulate(connection.get(), args.type, args.id, now, now + 366 * 86400);
        if (simulation.changes.size() > static_cast<std::size_t>(args.count)) {
            simulation.changes.resize(static_cast<std::size_t>(args.count));
        }
        if (args.json) {
            std::printf("%s\n", changesJson(simulation).dump().c_str());
            return 0;
        }
        for (const auto& [at, state] : simulation.changes) {
            std::printf("%s  %s\n", localText(at).c_str(), state.c_str());
        }
        return 0;
    });
}

int cli_scheduleSvg(const std::string& bus, const schedule_args_t& args) {
    return guarded([&] {
        orv_bus_ptr connection = cli_connect(bus);
        const auto schedules = cli_schedules(connection.get(), args.type, args.id);
        const scheduler::schedule_t& s = schedules.front().schedule;
        auto grid =
            scheduler::week_grid(s.base, s.entries, s.default_state, weekOffset(nowOf(args)));
        if (!grid) {
            throw cli_failure_t{kFailed, "only Daily and Weekly schedules have a week picture"};
        }
        const std::string svg = scheduler::draw_week_svg(*grid, args.type + " " + s.id);
        if (args.output.empty()) {
            std::fputs(svg.c_str(), stdout);
        } else if (!(std::ofstream(args.output, std::ios::binary) << svg)) {
            throw cli_failure_t{kFailed, "cannot write " + args.output};
        }
        return 0;
    });
}

void cli_addScheduleCommands(CLI::App* command, schedule_args_t* s,
                             std::function<void(cli_schedule_run_t)> chosen) {
    command->require_subcommand(1);
    auto typeAndId = [s](CLI::App* sub, bool idRequired) {
        sub->add_option("TYPE", s->type, "the schedule type, e.g. Light")->required();
        sub->add_option("ID", s->id, "the schedule's ID")->required(idRequired);
        sub->add_option("--now", s->now, "the present moment, ISO 8601 (default: the clock)");
    };
    auto json = [s](CLI::App* sub) { sub->add_flag("--json", s->json, "answer in JSON"); };
    CLI::App* add = command->add_subcommand("add", "add or replace a schedule from its text form");
    typeAndId(add, true);
    add->add_option("TEXT", s->text, "e.g. 'Mon-Fri 07:00-08:30 on; default off'")->required();
    add->add_flag("--disabled", s->disabled, "add it disabled");
    add->add_option("--override", s->override_state, "a permanent override");
    json(add);
    add->callback([chosen] { chosen(cli_scheduleAdd); });
    CLI::App* show =
        command->add_subcommand("show", "print schedules as text, state and week grid");
    typeAndId(show, false);
    show->add_option("--colour", s->colour, "auto, always or never")->capture_default_str();
    json(show);
    show->callback([chosen] { chosen(cli_scheduleShow); });
    CLI::App* next = command->add_subcommand("next", "list a schedule's next changes");
    typeAndId(next, true);
    next->add_option("--count", s->count, "how many")->capture_default_str();
    json(next);
    next->callback([chosen] { chosen(cli_scheduleNext); });
    CLI::App* svg = command->add_subcommand("svg", "write the week picture of a schedule as SVG");
    typeAndId(svg, true);
    svg->add_option("-o,--output", s->output, "the file (default: standard output)");
    svg->callback([chosen] { chosen(cli_scheduleSvg); });
}
