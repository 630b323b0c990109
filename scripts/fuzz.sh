#!/usr/bin/env bash
# Builds the "fuzz" preset (clang, AddressSanitizer, UndefinedBehaviorSanitizer,
# coverage instrumentation) and runs each libFuzzer target for a bounded time:
# first the kept reproducers in fuzz/regressions/<target>/ once each, then
# fuzzing on a scratch copy of fuzz/corpus/<target>/, so that the seeds in the
# repository never grow. Exits non-zero when any target finds a crash, a leak,
# a time-out, an out-of-memory or undefined behaviour, and says where the
# inputs and logs are.
#
# Usage: scripts/fuzz.sh [SECONDS] [TARGET...]
#   SECONDS per target; FUZZ_SECONDS sets it too (default 60).
#   TARGET: fuzz_schedule_record, fuzz_bus_functions, fuzz_dbus_values (all by
#   default). The targets run one after the other.
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=${FUZZ_SECONDS:-60}
if [[ ${1:-} =~ ^[0-9]+$ ]]; then
    seconds=$1
    shift
fi
targets=("$@")
if ((${#targets[@]} == 0)); then
    targets=(fuzz_schedule_record fuzz_bus_functions fuzz_dbus_values)
fi

scripts/install-deps.sh
# libFuzzer ships with clang's runtime libraries, which the other builds do
# not need.
if ! echo 'extern "C" int LLVMFuzzerTestOneInput(const char*, unsigned long) { return 0; }' |
    clang++ -x c++ -fsanitize=fuzzer - -o /dev/null 2>/dev/null; then
    sudo=()
    if ((EUID != 0)); then
        sudo=(sudo)
    fi
    echo "Installing: libclang-rt-dev"
    DEBIAN_FRONTEND=noninteractive "${sudo[@]}" apt-get install -y -q --no-install-recommends \
        libclang-rt-dev
fi

jobs=$(nproc 2>/dev/null || echo 2)
cmake --preset fuzz
cmake --build --preset fuzz -j "$jobs"

work=$(mktemp -d -t orv-fuzz.XXXXXX)
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
options=(-timeout=10 -rss_limit_mb=2048 -detect_leaks=1 -print_final_stats=1)
failed=()

for target in "${targets[@]}"; do
    binary=build/fuzz/fuzz/$target
    if [[ ! -x $binary ]]; then
        echo "$target: no such fuzz target" >&2
        failed+=("$target")
        continue
    fi
    dir=$work/$target
    mkdir -p "$dir/corpus" "$dir/artifacts"
    cp -R "fuzz/corpus/$target/." "$dir/corpus/"

    # Reproducers of past findings run once each, before any fuzzing. One
    # that fails again fails the run, and fuzzing goes on all the same.
    regressions=()
    if [[ -d fuzz/regressions/$target ]]; then
        while IFS= read -r -d '' file; do
            regressions+=("$file")
        done < <(find "fuzz/regressions/$target" -type f -print0 | sort -z)
    fi
    : >"$dir/regressions.log"
    for file in "${regressions[@]}"; do
        if ! "$binary" "${options[@]}" -artifact_prefix="$dir/artifacts/" "$file" \
            >>"$dir/regressions.log" 2>&1; then
            echo "$target: kept reproducer $file still fails"
            [[ " ${failed[*]} " == *" $target "* ]] || failed+=("$target")
        fi
    done
    if [[ " ${failed[*]} " == *" $target "* ]]; then
        grep -E -A 12 'fuzz invariant violated|ERROR: |runtime error:' "$dir/regressions.log" |
            grep -v -E '^ +#[0-9]+ 0x[0-9a-f]+ in (fuzzer::|__|main|_start|raise|abort)' |
            head -n 40 || true
        echo "$target: replay log $dir/regressions.log"
    fi

    seeds=$(find "$dir/corpus" -type f | wc -l)
    started=$(date +%s)
    status=0
    "$binary" "${options[@]}" -max_total_time="$seconds" -artifact_prefix="$dir/artifacts/" \
        "$dir/corpus" >"$dir/fuzz.log" 2>&1 || status=$?
    elapsed=$(($(date +%s) - started))
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$dir/fuzz.log")
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$dir/fuzz.log")
    grown=$(find "$dir/corpus" -type f | wc -l)
    # Sanitizer reports that did not stop the run count as findings too.
    if ((status == 0)) && grep -q -e 'runtime error:' -e 'ERROR: AddressSanitizer' \
        -e 'ERROR: LeakSanitizer' "$dir/fuzz.log"; then
        status=1
    fi
    result=ok
    if ((status != 0)); then
        result="FAILED (exit $status)"
        [[ " ${failed[*]} " == *" $target "* ]] || failed+=("$target")
    fi
    printf '%s: %s executions in %s s (%s/s), corpus %s -> %s inputs, %s\n' "$target" \
        "${runs:-?}" "$elapsed" "${rate:-?}" "$seeds" "$grown" "$result"
    if ((status != 0)); then
        grep -E -A 30 'ERROR: |runtime error:|fuzz invariant violated|Test unit written' \
            "$dir/fuzz.log" | head -n 60 || true
        echo "$target: log $dir/fuzz.log, inputs in $dir/artifacts/"
    fi
done

if ((${#failed[@]} > 0)); then
    echo "Fuzzing found problems in: ${failed[*]}; everything is kept in $work"
    exit 1
fi
rm -rf "$work"
echo "All fuzz targets ran clean."
