#include "tool_bus.h"

#include <cstdio>
#include <cstring>

void tool_complain(std::string_view program, std::string_view what, int r) {
    std::fprintf(stderr, "%.*s: %.*s: %s\n", static_cast<int>(program.size()), program.data(),
                 static_cast<int>(what.size()), what.data(), std::strerror(-r));
}
