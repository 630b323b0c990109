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

int parse(int argc, char** argv, options_t* options) {
    CLI::App app("orv-load: measures orvd's scheduler on D-Bus as its client sees it.", "orv-load");
    app.add_option("--bus", options->bus, "the address of the bus orvd is on")->required();
    app.add_option("--mode", options->mode, "lateness, burst or overhead")
        ->required()
        ->check(CLI::IsMember({"lateness", "burst", "overhead"}));
    app.add_option("--count", options->count, "schedules of lateness and burst")
        ->capture_default_str()
        ->check(CLI::Range(1, 100000));
    app.add_option("--window", options->window, "seconds the lateness changes spread over")
        ->capture_default_str()
        ->check(CLI::Range(1, 3600));
    app.add_option("--lead", options->lead, "seconds from the start to the first change")
        ->capture_default_str()
        ->check(CLI::Range(1, 600));
    app.add_option("--population", options->population, "schedules present during overhead")
        ->capture_default_str();
    app.add_option("--rounds", options->rounds, "measured rounds of overhead")
        ->capture_default_str()
        ->check(CLI::Range(1, 1000000));
    app.add_option("--warmup", options->warmup, "rounds of overhead not measured")
        ->capture_default_str();
    app.add_option("--summary", options->summary, "a file to append the figures to");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? -1 : 2;
    }
    return 0;
}

// The load the options ask for; false when it could not be measured.
bool measure(load::load_t& load, const options_t& options, load::summary_t* summary) {
    if (options.mode == "lateness") {
        return load::lateness(load, options, summary);
    }
    if (options.mode == "burst") {
        return load::burst(load, options, summary);
    }
    return load::overhead(load, options, summary);
}

}  // namespace

int main(int argc, char** argv) {
    options_t options;
    if (const int code = parse(argc, argv, &options)) {
        return code < 0 ? 0 : code;
    }
    try {
        load::load_t load;
        if (!load.open(options.bus) || !load::registerType(load)) {
            return 1;
        }
        load::summary_t summary(options.summary);
        const bool measured = measure(load, options, &summary);
        load::unregisterType(load);
        load.close();
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
