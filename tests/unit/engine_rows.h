// Entry lists written as rows of text, for the tables of the engine tests:
// "begin end state, begin end state, ...". Negative offsets are stored as
// their unsigned 32-bit value, as a client's negative number would be.
#pragma once

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

#include "schedule_rules.h"

inline std::vector<schedule_entry_t> entriesOf(const std::string& text) {
    std::vector<schedule_entry_t> result;
    std::istringstream rows(text);
    for (std::string row; std::getline(rows, row, ',');) {
        std::istringstream fields(row);
        std::int64_t begin = 0;
        std::int64_t end = 0;
        std::string state;
        if (fields >> begin >> end >> state) {
            result.push_back(
                {state, static_cast<std::uint32_t>(begin), static_cast<std::uint32_t>(end)});
        }
    }
    return result;
}

// The same text form, offsets read signed.
inline std::string textOf(const std::vector<schedule_entry_t>& entries) {
    std::string out;
    for (const schedule_entry_t& entry : entries) {
        out += (out.empty() ? "" : ", ") + std::to_string(static_cast<std::int32_t>(entry.begin)) +
               " " + std::to_string(static_cast<std::int32_t>(entry.end)) + " " + entry.state;
    }
    return out;
}

// A schedule whose default state is "off".
inline schedule_spec_t specOf(int base, const std::string& text) {
    return {base, entriesOf(text), "off"};
}
