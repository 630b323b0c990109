// The two forms an input of fuzz_bus_functions takes: a readable script, one
// action a line, and a byte program drawn through FuzzedDataProvider.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace fuzz {

// The readable program, one line each:
//   start SECONDS | zone NAME | time STATUS|none | trace   (the host's setup)
//   client add|remove PATH        call FUNCTION JSON      advance MILLISECONDS
//   status TEXT                   notify TYPE...          clock DELTA_SECONDS
// Setup lines count wherever they stand; unknown lines are skipped.
void runScript(std::string_view script);

// The byte program: a byte of setup flags, the start time, then up to 48
// steps that each draw an action and its arguments.
void runProgram(const std::uint8_t* data, std::size_t size);

}  // namespace fuzz
