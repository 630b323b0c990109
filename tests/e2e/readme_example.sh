#!/usr/bin/env bash
# The README shows the example owner as the tests build and run it: the C++
# block of its "Writing a client" section is the example file, line for line.
set -euo pipefail
readme=${1:?usage: readme_example.sh README EXAMPLE} example=${2:?usage: readme_example.sh README EXAMPLE}
shown=$(awk '/^## Writing a client/ { section = 1 } section && /^```cpp$/ { inside = 1; next }
    inside && /^```$/ { exit } inside { print }' "$readme")
[[ -n $shown ]] || { echo "FAIL: the README has no C++ example under \"Writing a client\""; exit 1; }
diff <(printf '%s\n' "$shown") "$example" || { echo "FAIL: the README's example differs from $example"; exit 1; }
echo "PASS"
