// The console's HTTP side: limits, the token check, the page's files, the
// API routes and the event streams, on cpp-httplib's threaded server.
#pragma once

#include <memory>
#include <string>

#include "web_bus.h"
#include "web_events.h"

namespace httplib {
class Server;
struct Response;
}  // namespace httplib

class web_server_t {
  public:
    static constexpr std::size_t kMaxBody = 64 * 1024;
    static constexpr int kThreads = 16;
    static constexpr int kTimeoutSeconds = 5;

    web_server_t(web_bus_t& bus, web_events_t& events, std::string token);
    ~web_server_t();
    web_server_t(const web_server_t&) = delete;
    web_server_t& operator=(const web_server_t&) = delete;

    // Binds host:port (port 0: any free one) and returns the port; throws
    // std::runtime_error when it cannot.
    int bind(const std::string& host, int port);
    // Serves until stop().
    void run();
    // From any thread, also from the one that waits for signals.
    void stop();

  private:
    void routes();
    void stream(httplib::Response& res);

    web_bus_t& bus_;
    web_events_t& events_;
    std::string token_;
    std::unique_ptr<httplib::Server> server_;
};
