// orv-web: the scheduler's web console. It serves a page in which people see
// and edit their schedules as a week grid or as text, and a JSON API over
// the scheduler's bus functions with live updates as Server-Sent Events.
// Every API request needs the bearer token of the token file. SIGTERM and
// SIGINT end it with exit 0; SIGHUP, SIGUSR1, SIGUSR2 and SIGPIPE do not end
// it.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <optional>
#include <string>
#include <thread>

#include "web_bus.h"
#include "web_events.h"
#include "web_server.h"
#include "web_token.h"

namespace {

constexpr int kFailed = 1;

struct options_t {
    std::string bus = "system";
    std::string listen = "127.0.0.1:8080";
    std::string tokenFile = "/var/lib/orv-web/token";
};

struct endpoint_t {
    std::string host;
    int port = 0;
};

// "127.0.0.1:8080" or "[::1]:8080".
std::optional<endpoint_t> parseListen(const std::string& text) {
    const std::size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        return std::nullopt;
    }
    endpoint_t endpoint{text.substr(0, colon)};
    if (endpoint.host.front() == '[' && endpoint.host.back() == ']') {
        endpoint.host = endpoint.host.substr(1, endpoint.host.size() - 2);
    }
    try {
        std::size_t used = 0;
        endpoint.port = std::stoi(text.substr(colon + 1), &used);
        if (used != text.size() - colon - 1 || endpoint.port < 0 || endpoint.port > 65535) {
            return std::nullopt;
        }
    } catch (const std::exception&) {
        return std::nullopt;
    }
    return endpoint;
}

// Every signal that would end or disturb the process is taken by one thread
// with sigwait; the server's threads, made after this, inherit the mask.
sigset_t blockSignals() {
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t set;
    sigemptyset(&set);
    for (int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGUSR2}) {
        sigaddset(&set, signal);
    }
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return set;
}

void waitForStop(sigset_t set, web_server_t* server) {
    for (;;) {
        int signal = 0;
        if (sigwait(&set, &signal) == 0 && (signal == SIGTERM || signal == SIGINT)) {
            server->stop();
            return;
        }
    }
}

int serve(const options_t& options, const endpoint_t& endpoint, sigset_t signals) {
    const std::string token = web_loadToken(options.tokenFile);
    web_bus_t bus(options.bus);
    web_events_t events(options.bus);
    web_server_t server(bus, events, token);
    const int port = server.bind(endpoint.host, endpoint.port);
    std::printf("listening on http://%s:%d/\n", endpoint.host.c_str(), port);
    std::fflush(stdout);
    std::thread stopper(waitForStop, signals, &server);
    server.run();
    stopper.join();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    options_t options;
    CLI::App app{"orv-web: the scheduler's web console and its HTTP/JSON API"};
    app.add_option("--bus", options.bus, "session, system, or a bus address")
        ->capture_default_str();
    app.add_option("--listen", options.listen, "HOST:PORT to listen on (port 0: any free one)")
        ->capture_default_str();
    app.add_option("--token-file", options.tokenFile,
                   "the bearer token's file; made with a random token if missing")
        ->capture_default_str();
    CLI11_PARSE(app, argc, argv);

    const std::optional<endpoint_t> endpoint = parseListen(options.listen);
    if (!endpoint) {
        std::fprintf(stderr, "orv-web: --listen must be HOST:PORT, not \"%s\"\n",
                     options.listen.c_str());
        return kFailed;
    }
    const sigset_t signals = blockSignals();
    try {
        return serve(options, *endpoint, signals);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "orv-web: %s\n", e.what());
        return kFailed;
    }
}
