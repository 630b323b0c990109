// Loading a plug-in: the shared object, its entry points and the handlers of
// its bus functions.
#pragma once

#include <memory>
#include <string>

#include "orv/definition.h"

class orv_context_t;

// The entry points every plug-in exports with C linkage.
using orv_plugin_initialize_t = bool (*)(orv_context_t* context);
using orv_plugin_cleanup_t = void (*)();
// Optional: one line about the plug-in's state for the host's status line,
// written into *out; false when the plug-in has nothing to say.
using orv_plugin_status_t = bool (*)(std::string* out);

// Owns a dlopen handle. Unloading does not call the clean-up entry point:
// the host decides when that happens.
class orv_plugin_t {
  public:
    // Loads the shared object and finds its entry points; null and *error on
    // failure.
    static std::unique_ptr<orv_plugin_t> load(const std::string& path, std::string* error);
    ~orv_plugin_t();
    orv_plugin_t(const orv_plugin_t&) = delete;
    orv_plugin_t& operator=(const orv_plugin_t&) = delete;

    bool initialize(orv_context_t* context) const;
    void cleanup() const;
    // The plug-in's status line, or empty when it exports none.
    std::string status() const;
    // The handler "__" + name, or null.
    function_handler_t handler(const std::string& name) const;
    const std::string& path() const { return path_; }

  private:
    orv_plugin_t(void* handle, std::string path, orv_plugin_initialize_t initialize,
                 orv_plugin_cleanup_t cleanup);
    void* handle_;
    std::string path_;
    orv_plugin_initialize_t initialize_;
    orv_plugin_cleanup_t cleanup_;
    orv_plugin_status_t status_;
};
