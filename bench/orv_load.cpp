// orv-load: drives a running orvd with the scheduler plug-in over D-Bus and
// measures what a client of it sees.
//
// The tool is the client itself: it owns org.orv.Bench and serves
// /Bench/Client (the data-model path Bench.Client) with a setState method
// that notes the wall-clock time at which each call arrives. It registers
// the type "Bench" for that client, and takes the type away again at the end.
//
//  lateness  --count schedules of base Once switch "on" at whole seconds
//            spread over --window seconds; each arrival is compared with its
//            due second. Meanwhile a second connection sends the client a
//            call at half past each second, woken by a timer as orvd is:
//            those arrivals give the bus's own delay to compare with.
//  burst     --count schedules switch "on" in the same second; the figure is
//            the time from that second to the last arrival.
//  overhead  with --population Daily schedules present, --rounds addSchedule
//            round trips (each followed by a removeSchedules of the same ID)
//            alternate with bare org.freedesktop.DBus.Peer.Ping round trips to
//            the same daemon.
//  idle      orvd's resident memory (--pid) once it settled, with nothing
//            registered and with the type registered; with --idle-seconds,
//            its wake-ups over that time while --population schedules are
//            all due a day later.
//  startup   starts orvd --starts times with the command after "--", when
//            none runs: the time until org.orv.Scheduler has an owner.
//  owner     starts --owner (orv-owner) with a store of --population Daily
//            schedules of the type "Owned": the time until the scheduler
//            has told it the state of every one.
//
// "--summary FILE" appends one line per figure to FILE: figure, value, target
// and verdict, separated by tabs. The exit code is 0 when the figures could
// be measured, whether or not they meet their targets.
#include <CLI/CLI.hpp>
#include <exception>
#include <string>

#include "load_client.h"
#include "load_modes.h"
#include "load_report.h"

namespace {

using load::options_t;

// A number option with its default shown and its range checked.
template <typename Number>
void ranged(CLI::App& app, const char* name, Number& value, const char* help, double low,
            double high) {
    app.add_option(name, value, help)->capture_default_str()->check(CLI::Range(low, high));
}

// The options of the loads that drive the scheduler as its client.
void clientOptions(CLI::App& app, options_t* options) {
    ranged(app, "--count", options->count, "schedules of lateness and burst", 1, 100000);
    ranged(app, "--window", options->window, "seconds the lateness changes spread over", 1, 3600);
    ranged(app, "--lead", options->lead, "seconds from the start to the first change", 1, 600);
    ranged(app, "--population", options->population,
           "schedules present during overhead and idle, stored for owner", 0, 1000000);
    ranged(app, "--rounds", options->rounds, "measured rounds of overhead", 1, 1000000);
    ranged(app, "--warmup", options->warmup, "rounds of overhead not measured", 0, 1000000);
}

// The options of the loads that look at orvd's process or start programs.
void processOptions(CLI::App& app, options_t* options) {
    app.add_option("--pid", options->pid, "orvd's process, which idle reads");
    ranged(app, "--idle-seconds", options->idleSeconds, "seconds idle watches wake-ups (0: not)", 0,
           3600);
    ranged(app, "--starts", options->starts, "starts of orvd for startup", 1, 1000);
    app.add_option("--owner", options->owner, "the orv-owner program, for owner")
        ->capture_default_str();
    app.add_option("command", options->command, "after --: the command that starts orvd");
}

int parse(int argc, char** argv, options_t* options) {
    CLI::App app("orv-load: measures orvd's scheduler on D-Bus as its client sees it.", "orv-load");
    app.add_option("--bus", options->bus, "the address of the bus orvd is on")->required();
    app.add_option("--mode", options->mode, "lateness, burst, overhead, idle, startup or owner")
        ->required()
        ->check(CLI::IsMember({"lateness", "burst", "overhead", "idle", "startup", "owner"}));
    app.add_option("--summary", options->summary, "a file to append the figures to");
    clientOptions(app, options);
    processOptions(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? -1 : 2;
    }
    return 0;
}

// A load that drives the scheduler as the client Bench.Client of the type
// registered for it; false when it could not be measured.
bool measureAsClient(const options_t& options, load::summary_t* summary) {
    load::load_t load;
    if (!load.open(options.bus)) {
        return false;
    }
    if (options.mode == "idle") {
        const bool measured = load::idle(load, options, summary);
        load::unregisterType(load);
        return measured;
    }
    if (!load::registerType(load)) {
        return false;
    }
    bool measured = false;
    if (options.mode == "lateness") {
        measured = load::lateness(load, options, summary);
    } else if (options.mode == "burst") {
        measured = load::burst(load, options, summary);
    } else {
        measured = load::overhead(load, options, summary);
    }
    load::unregisterType(load);
    return measured;
}

// The load the options ask for; false when it could not be measured.
bool measure(const options_t& options, load::summary_t* summary) {
    if (options.mode == "startup") {
        return load::startup(options, summary);
    }
    if (options.mode == "owner") {
        return load::owner(options, summary);
    }
    return measureAsClient(options, summary);
}

}  // namespace

int main(int argc, char** argv) {
    options_t options;
    if (const int code = parse(argc, argv, &options)) {
        return code < 0 ? 0 : code;
    }
    try {
        load::summary_t summary(options.summary);
        const bool measured = measure(options, &summary);
        if (!summary.write()) {
            load::complain("cannot write " + options.summary);
            return 1;
        }
        return measured ? 0 : 1;
    } catch (const std::exception& e) {
        load::complain(std::string("stopped: ") + e.what());
        return 1;
    }
}
