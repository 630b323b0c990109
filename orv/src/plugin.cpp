#include "orv/plugin.h"

#include <dlfcn.h>

#include <utility>

namespace {

std::string dlerrorText() {
    const char* text = dlerror();
    return text != nullptr ? text : "unknown dynamic loader error";
}

template <typename Function>
Function symbol(void* handle, const char* name) {
    // POSIX guarantees that a data pointer from dlsym converts to a function
    // pointer.
    return reinterpret_cast<Function>(dlsym(handle, name));
}

}  // namespace

std::unique_ptr<orv_plugin_t> orv_plugin_t::load(const std::string& path, std::string* error) {
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        *error = dlerrorText();
        return nullptr;
    }
    auto initialize = symbol<orv_plugin_initialize_t>(handle, "orv_plugin_initialize");
    auto cleanup = symbol<orv_plugin_cleanup_t>(handle, "orv_plugin_cleanup");
    if (initialize == nullptr || cleanup == nullptr) {
        *error = path + ": missing orv_plugin_initialize or orv_plugin_cleanup";
        dlclose(handle);
        return nullptr;
    }
    return std::unique_ptr<orv_plugin_t>(new orv_plugin_t(handle, path, initialize, cleanup));
}

orv_plugin_t::orv_plugin_t(void* handle, std::string path, orv_plugin_initialize_t initialize,
                           orv_plugin_cleanup_t cleanup)
    : handle_(handle),
      path_(std::move(path)),
      initialize_(initialize),
      cleanup_(cleanup),
      status_(symbol<orv_plugin_status_t>(handle, "orv_plugin_status")) {}

orv_plugin_t::~orv_plugin_t() {
    dlclose(handle_);
}

bool orv_plugin_t::initialize(orv_context_t* context) const {
    return initialize_(context);
}

void orv_plugin_t::cleanup() const {
    cleanup_();
}

std::string orv_plugin_t::status() const {
    std::string text;
    if (status_ == nullptr || !status_(&text)) {
        text.clear();
    }
    return text;
}

function_handler_t orv_plugin_t::handler(const std::string& name) const {
    return symbol<function_handler_t>(handle_, ("__" + name).c_str());
}
