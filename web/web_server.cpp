#include "web_server.h"

#include <httplib.h>

#include <condition_variable>
#include <ctime>
#include <deque>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "web_api.h"
#include "web_assets.h"
#include "web_route.h"
#include "web_token.h"

namespace {

using scheduler::json;

// An event stream sends a comment this often, so that proxies and the page
// see that it is alive.
constexpr auto kKeepAlive = std::chrono::seconds(15);

void answerError(httplib::Response& res, int status, const std::string& reason,
                 std::size_t column = 0) {
    json body = {{"error", reason}};
    if (column > 0) {
        body["column"] = column;
    }
    res.status = status;
    res.set_content(body.dump(-1, ' ', false, json::error_handler_t::replace), "application/json");
}

// What httplib answers on its own (a body too large, a request it cannot
// read) gets a JSON body like every other error.
std::string reasonOf(int status) {
    switch (status) {
        case 400:
            return "the request cannot be read";
        case 401:
            return "a valid token is needed";
        case 404:
            return "no such page or resource";
        case 413:
            return "the body is larger than 64 KiB";
        default:
            return "the request failed";
    }
}

// cpp-httplib's own pool queues every accepted connection without bound.
// This one makes the accepting thread wait while kThreads connections are
// served and as many wait, so that further clients wait in the kernel's
// small backlog instead of costing the console a descriptor and memory each.
class bounded_pool_t final : public httplib::TaskQueue {
  public:
    explicit bounded_pool_t(std::size_t threads) : waitingMax_(threads) {
        for (std::size_t i = 0; i < threads; ++i) {
            workers_.emplace_back([this] { work(); });
        }
    }

    void enqueue(std::function<void()> fn) override {
        std::unique_lock lock(mutex_);
        roomy_.wait(lock, [this] { return jobs_.size() < waitingMax_ || stopping_; });
        jobs_.push_back(std::move(fn));
        ready_.notify_one();
    }

    void shutdown() override {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        ready_.notify_all();
        roomy_.notify_all();
        for (std::thread& worker : workers_) {
            worker.join();
        }
    }

  private:
    void work() {
        for (;;) {
            std::function<void()> job;
            {
                std::unique_lock lock(mutex_);
                ready_.wait(lock, [this] { return !jobs_.empty() || stopping_; });
                if (jobs_.empty()) {
                    return;
                }
                job = std::move(jobs_.front());
                jobs_.pop_front();
                roomy_.notify_one();
            }
            job();
        }
    }

    const std::size_t waitingMax_;
    std::mutex mutex_;
    std::condition_variable ready_;
    std::condition_variable roomy_;
    std::deque<std::function<void()>> jobs_;
    bool stopping_ = false;
    std::vector<std::thread> workers_;
};

httplib::Headers securityHeaders() {
    return {{"Content-Security-Policy", "default-src 'self'; frame-ancestors 'none'"},
            {"X-Content-Type-Options", "nosniff"},
            {"X-Frame-Options", "DENY"},
            {"Referrer-Policy", "no-referrer"},
            {"Cache-Control", "no-store"}};
}

}  // namespace

web_server_t::web_server_t(web_bus_t& bus, web_events_t& events, std::string token)
    : bus_(bus),
      events_(events),
      token_(std::move(token)),
      server_(std::make_unique<httplib::Server>()) {
    server_->new_task_queue = [] { return new bounded_pool_t(kThreads); };
    server_->set_payload_max_length(kMaxBody);
    server_->set_read_timeout(kTimeoutSeconds);
    server_->set_write_timeout(kTimeoutSeconds);
    server_->set_keep_alive_timeout(kTimeoutSeconds);
    server_->set_keep_alive_max_count(100);
    server_->set_default_headers(securityHeaders());
    server_->set_pre_routing_handler([this](const httplib::Request& req, httplib::Response& res) {
        if (web_isApi(req.target) &&
            !web_tokenMatches(req.get_header_value("Authorization"), token_)) {
            res.set_header("WWW-Authenticate", "Bearer");
            answerError(res, 401, reasonOf(401));
            return httplib::Server::HandlerResponse::Handled;
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    server_->set_error_handler([](const httplib::Request&, httplib::Response& res) {
        if (res.body.empty()) {
            answerError(res, res.status, reasonOf(res.status));
        }
    });
    server_->set_exception_handler(
        [](const httplib::Request&, httplib::Response& res, std::exception_ptr) {
            answerError(res, 500, "the console failed on this request");
        });
    routes();
}

web_server_t::~web_server_t() = default;

void web_server_t::routes() {
    auto handle = [this](const httplib::Request& req, httplib::Response& res) {
        web_routed_t routed = web_route(req.method, req.target);
        if (!routed.route) {
            answerError(res, routed.refusal.status, routed.refusal.reason);
            return;
        }
        const web_route_t& route = *routed.route;
        if (route.kind == web_route_kind_t::asset) {
            const web_asset_t* asset = web_findAsset(route.asset);
            res.set_content(std::string(asset->data), std::string(asset->contentType).c_str());
            return;
        }
        if (route.kind == web_route_kind_t::events) {
            stream(res);
            return;
        }
        try {
            web_answer_t answer = web_serve(bus_, req.method, route, req.body, std::time(nullptr));
            res.status = answer.status;
            res.set_content(std::move(answer.body), answer.contentType.c_str());
        } catch (const web_refusal_t& refusal) {
            answerError(res, refusal.status, refusal.reason, refusal.column);
        }
    };
    // Every path comes to the one router, also one whose decoded form holds a
    // line break (which "." would not match).
    const std::string any = R"([\s\S]*)";
    server_->Get(any, handle);
    server_->Put(any, handle);
    server_->Post(any, handle);
    server_->Delete(any, handle);
}

// An event stream holds one of the pool's threads while it is open, which
// is why their number is bounded below the pool's.
void web_server_t::stream(httplib::Response& res) {
    auto stream = events_.open();
    if (!stream) {
        answerError(res, 503, "too many event streams are open");
        return;
    }
    res.set_chunked_content_provider(
        "text/event-stream",
        [this, stream](std::size_t, httplib::DataSink& sink) {
            std::optional<std::string> text = events_.next(*stream, kKeepAlive);
            if (!text) {
                sink.done();
                return true;
            }
            const std::string out = text->empty() ? ": keep-alive\n\n" : *text;
            return sink.write(out.data(), out.size());
        },
        [this, stream](bool) { events_.close(stream); });
}

int web_server_t::bind(const std::string& host, int port) {
    const int bound = port == 0                           ? server_->bind_to_any_port(host)
                      : server_->bind_to_port(host, port) ? port
                                                          : -1;
    if (bound <= 0) {
        throw std::runtime_error("cannot listen on " + host + ":" + std::to_string(port));
    }
    return bound;
}

void web_server_t::run() {
    server_->listen_after_bind();
}

void web_server_t::stop() {
    events_.shutdown();
    server_->stop();
}
