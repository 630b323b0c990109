// orv-cli: the command-line client of the data model on D-Bus.
//
// It calls functions of objects, reads their parameters, lists their children
// and follows their notifications; `serve` stands in for a client object that
// receives calls, so that services can be exercised without the real one.
// Every failure to do what was asked ends with one line on stderr and exit 2.
#include <CLI/CLI.hpp>
#include <array>
#include <cstdio>
#include <exception>

#include "cli_object.h"
#include "cli_schedule.h"

namespace {

struct command_t {
    const char* name;
    const char* description;
    void (*setup)(CLI::App* command, cli_args_t* args);
};

void addPath(CLI::App* command, cli_args_t* args) {
    command->add_option("PATH", args->path, "data-model path, e.g. Device.Light")->required();
}

// schedule add|show|next|svg: the text form and the pictures.
void addScheduleCommands(CLI::App* command, cli_args_t* args) {
    cli_addScheduleCommands(command, &args->schedule, [args](cli_schedule_run_t run) {
        args->scheduleRun = run;
        args->run = [](const cli_args_t& a) { return a.scheduleRun(a.bus, a.schedule); };
    });
}

const std::array<command_t, 6> kCommands{{
    {"call", "call a function with named arguments given as a JSON object",
     [](CLI::App* command, cli_args_t* args) {
         addPath(command, args);
         command->add_option("FUNCTION", args->function, "function name")->required();
         command->add_option("JSON", args->json, "the arguments")->capture_default_str();
         command->callback([args] { args->run = cli_runCall; });
     }},
    {"serve", "serve an object whose functions print their calls and answer true",
     [](CLI::App* command, cli_args_t* args) {
         addPath(command, args);
         command->add_option("--function", args->functions, "a function to serve (repeatable)");
         command->callback([args] {
             if (args->functions.empty()) {
                 args->functions.emplace_back("setState");
             }
             args->run = cli_runServe;
         });
     }},
    {"get", "print the parameters of an object",
     [](CLI::App* command, cli_args_t* args) {
         addPath(command, args);
         command->callback([args] { args->run = cli_runGet; });
     }},
    {"list", "print the child objects of an object",
     [](CLI::App* command, cli_args_t* args) {
         addPath(command, args);
         command->callback([args] { args->run = cli_runList; });
     }},
    {"watch", "print the notifications of an object and of the objects below it",
     [](CLI::App* command, cli_args_t* args) {
         addPath(command, args);
         command->callback([args] { args->run = cli_runWatch; });
     }},
    {"schedule", "schedules as text and pictures: add, show, next, svg", addScheduleCommands},
}};

// 0 to go on, or the exit code.
int parseOptions(int argc, char** argv, cli_args_t* args) {
    CLI::App app{"orv-cli: the data model on D-Bus"};
    app.add_option("--bus", args->bus, "session, system or a D-Bus address")->capture_default_str();
    app.require_subcommand(1);
    for (const auto& command : kCommands) {
        command.setup(app.add_subcommand(command.name, command.description), args);
    }
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? -1 : kFailed;
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        cli_args_t args;
        const int code = parseOptions(argc, argv, &args);
        if (code != 0) {
            return code < 0 ? 0 : code;
        }
        return args.run(args);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "orv-cli: %s\n", e.what());
        return kFailed;
    }
}
