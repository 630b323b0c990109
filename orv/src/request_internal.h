// Library-internal access to the private fields of requests (context.cpp and
// the transports). Not installed; plug-ins never see it.
#pragma once

#include "orv/request.h"

struct request_access {
    static orv_context_t* context(const request_t& request) { return request.context_; }
    static void setContext(request_t& request, orv_context_t* context) {
        request.context_ = context;
    }
    static bool destroyed(const request_t& request) { return request.destroyed_; }
    static void setDestroyed(request_t& request, bool destroyed) { request.destroyed_ = destroyed; }
    static reply_t& reply(request_t& request) { return request.reply_; }
    static request_reply_handler_t replyHandler(const request_t& request) {
        return request.replyHandler_;
    }
    static request_cancel_handler_t cancelHandler(const request_t& request) {
        return request.cancelHandler_;
    }
    static void setDepth(request_t& request, std::int32_t depth) { request.depth_ = depth; }
    static void setFunction(request_t& request, std::string_view function) {
        request.function_ = std::string(function);
    }
    static variant_map_t& parameters(request_t& request) { return request.parameters_; }
    static void setReplyHandler(request_t& request, request_reply_handler_t handler) {
        request.replyHandler_ = handler;
    }
    static void setCancelHandler(request_t& request, request_cancel_handler_t handler) {
        request.cancelHandler_ = handler;
    }
    static void setUserData(request_t& request, void* userdata) { request.userData_ = userdata; }
    static void* userData(const request_t& request) { return request.userData_; }
};
