// Guards the bus functions of Scheduler against any sequence of calls with
// any named arguments, as a client on the bus could send them. Each input
// runs the real plug-in in a fresh virtual host: a program of calls (with
// arguments built from the usual vocabulary mixed with arbitrary values, or
// raw JSON text), clock moves that let timers fire and changes go out, and
// moves of the Time service and the client objects.
//
// After each step nothing may have reached a client before the clock was
// synchronised; after the program the service must still answer and its
// schedule lists must match its data model.
//
// An input that starts with the line "script" is a readable program, one
// action a line (see runScript); the seeds are written that way. Any other
// input is a byte program drawn through FuzzedDataProvider.
#include <dlfcn.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "bus_inputs.h"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // Each host loads and unloads the plug-in. Unloading would unmap the
    // coverage counters that libFuzzer reads after every input, so one
    // reference is held for the whole run. The plug-in's state lives on
    // between hosts only as far as its clean-up leaves it.
    if (dlopen(SCHEDULER_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE) == nullptr) {
        std::fprintf(stderr, "cannot load the plug-in: %s\n", dlerror());
        std::abort();
    }
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    constexpr std::string_view kScript = "script\n";
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    if (text.substr(0, kScript.size()) == kScript) {
        fuzz::runScript(text.substr(kScript.size()));
    } else {
        fuzz::runProgram(data, size);
    }
    return 0;
}
