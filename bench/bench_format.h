// How the benchmark programs write a figure into their summary lines.
#pragma once

#include <sstream>
#include <string>

namespace bench {

// The value with a fixed number of decimals, whatever its size.
inline std::string fixed(double value, int decimals) {
    std::ostringstream out;
    out.setf(std::ios::fixed);
    out.precision(decimals);
    out << value;
    return out.str();
}

}  // namespace bench
