// A light that follows its schedules: it owns the type "Light", keeps the
// schedules in a store file, and prints every state the scheduler sets.
#include <scheduler/client.h>

#include <cstdio>
#include <string>

int main(int argc, char** argv) {
    scheduler::options_t options;
    options.type = {"Light", "Device.Light", {"on", "off"}};
    options.store = argc > 2 ? argv[2] : "light.json";
    options.on_state = [](const std::string& id, const std::string& state) {
        std::printf("%s: %s\n", id.c_str(), state.c_str());
        std::fflush(stdout);
    };
    // Once registered: the evening light, 18:00 to 23:00 every day, unless
    // the store brought it back already.
    options.on_registered = [](scheduler::client_t& client) {
        scheduler::schedule_t evening;
        evening.id = "evening";
        evening.default_state = "off";
        evening.entries = {{"on", 18 * 3600, 23 * 3600}};
        std::string error;
        if (!client.get("evening") && !client.add(evening, &error)) {
            std::fprintf(stderr, "cannot add the evening: %s\n", error.c_str());
        }
    };
    // "system", "session" or a D-Bus address.
    scheduler::client_t client(argc > 1 ? argv[1] : "system", options);
    return client.run();
}
