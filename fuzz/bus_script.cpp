#include "bus_inputs.h"

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "bus_session.h"

namespace fuzz {

namespace {

std::optional<std::int64_t> number(std::string_view text) {
    std::int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

// Splits off the first word of text.
std::string_view firstWord(std::string_view* text) {
    const std::size_t space = text->find(' ');
    std::string_view word = text->substr(0, space);
    text->remove_prefix(space == std::string_view::npos ? text->size() : space + 1);
    return word;
}

// The first 64 lines of the script.
std::vector<std::string_view> splitLines(std::string_view script) {
    std::vector<std::string_view> lines;
    while (!script.empty() && lines.size() < 64) {
        const std::size_t newline = script.find('\n');
        lines.push_back(script.substr(0, newline));
        script.remove_prefix(newline == std::string_view::npos ? script.size() : newline + 1);
    }
    return lines;
}

setup_t setupOf(const std::vector<std::string_view>& lines) {
    setup_t setup;
    for (std::string_view line : lines) {
        const std::string_view word = firstWord(&line);
        if (word == "start") {
            setup.start = std::clamp<std::int64_t>(number(line).value_or(setup.start), 0,
                                                   std::int64_t{4} << 32);
        } else if (word == "zone") {
            for (const char* zone : kZones) {
                setup.zone = line == zone ? zone : setup.zone;
            }
        } else if (word == "time") {
            setup.timeStatus = line == "none" ? std::nullopt : std::optional<std::string>(line);
        } else if (word == "trace") {
            setup.verbose = true;
        }
    }
    return setup;
}

// One line's action; setup lines and unknown ones do nothing here.
void runLine(session_t& session, std::string_view line) {
    const std::string_view word = firstWord(&line);
    if (word == "client") {
        // Clients live under "Device", away from the objects the virtual
        // host itself provides.
        const std::string_view how = firstWord(&line);
        if (line.substr(0, 7) == "Device.") {
            session.client(line, how == "add");
        }
    } else if (word == "call") {
        const std::string function(firstWord(&line));
        session.call(function, line);
    } else if (word == "advance") {
        session.advanceMs(number(line).value_or(0));
    } else if (word == "status") {
        session.timeStatus(line);
    } else if (word == "notify") {
        std::vector<std::uint32_t> types;
        while (!line.empty()) {
            types.push_back(static_cast<std::uint32_t>(number(firstWord(&line)).value_or(0)));
        }
        session.notifyTime(std::move(types));
    } else if (word == "clock") {
        session.setClock(number(line).value_or(0));
    }
}

}  // namespace

void runScript(std::string_view script) {
    const std::vector<std::string_view> lines = splitLines(script);
    runHost(setupOf(lines), [&](session_t& session) {
        for (std::string_view line : lines) {
            runLine(session, line);
        }
    });
}

}  // namespace fuzz
