// Trace levels read from text, so that a daemon can change them while it
// runs: a file of "NAME LEVEL" lines, read at start and again on request.
#include <charconv>
#include <utility>
#include <vector>

#include "orv/trace.h"

namespace {

std::string_view trimmed(std::string_view text) {
    const auto first = text.find_first_not_of(" \t\r");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t\r") - first + 1);
}

// One "NAME LEVEL" line; false with the reason in *error.
bool parseLine(std::string_view line, std::pair<std::string, int>* out, std::string* error) {
    const auto space = line.find_first_of(" \t");
    if (space == std::string_view::npos) {
        *error = "expected a name and a level";
        return false;
    }
    const std::string_view number = trimmed(line.substr(space));
    int level = 0;
    const auto [end, code] = std::from_chars(number.data(), number.data() + number.size(), level);
    if (code != std::errc() || end != number.data() + number.size() || level < 0) {
        *error = "the level '" + std::string(number) + "' is not a number from 0 up";
        return false;
    }
    *out = {std::string(line.substr(0, space)), level};
    return true;
}

}  // namespace

std::optional<std::string> tolvTraceApplyLevels(std::string_view text) {
    std::vector<std::pair<std::string, int>> levels;
    std::size_t number = 0;
    while (!text.empty()) {
        ++number;
        const auto newline = text.find('\n');
        const std::string_view line = trimmed(text.substr(0, newline));
        text.remove_prefix(newline == std::string_view::npos ? text.size() : newline + 1);
        if (line.empty() || line.front() == '#') {
            continue;
        }
        std::string error;
        if (!parseLine(line, &levels.emplace_back(), &error)) {
            return "line " + std::to_string(number) + ": " + error;
        }
    }
    for (const auto& [name, level] : levels) {
        if (name == "default") {
            tolvTraceSetLevel(level);
        } else {
            tolvTraceAddZone(level, name.c_str());
        }
    }
    return std::nullopt;
}
