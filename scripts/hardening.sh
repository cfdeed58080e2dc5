#!/usr/bin/env bash
# The hardening run of CI: the whole test suite under AddressSanitizer + UndefinedBehaviorSanitizer, the
# concurrency tests under ThreadSanitizer, then every libFuzzer target for a bounded time from its seed corpus.
# Any sanitizer finding, failing test or fuzzer crash fails the run.
#
# Usage: scripts/hardening.sh [asan] [tsan] [fuzz]     (no argument: all three)
# Environment: NORVANE_FUZZ_SECONDS (default 60) per target; NORVANE_HARDENING_JOBS (default 2) build jobs;
# NORVANE_HARDENING_PREFIX (default build-hardening) for the build folders.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/install-dependencies.sh hardening test

stages=("$@")
[ ${#stages[@]} -eq 0 ] && stages=(asan tsan fuzz)
jobs=${NORVANE_HARDENING_JOBS:-2}
prefix=${NORVANE_HARDENING_PREFIX:-build-hardening}
fuzz_seconds=${NORVANE_FUZZ_SECONDS:-60}
source_dir=$(pwd)
started=$(date +%s)

stage() { echo "== hardening: $* ($(($(date +%s) - started)) s)"; }

configure() {
    local build=$1
    shift
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "$@" >/dev/null
}

# Halt on the first finding of any kind, with a stack trace; leaks are checked at every test program's exit.
# A test that forks a server (nginx) or loads the library into Python inherits these too.
sanitizer_options="halt_on_error=1:abort_on_error=1:print_stacktrace=1"
export ASAN_OPTIONS="$sanitizer_options:detect_leaks=1:detect_stack_use_after_return=1:strict_init_order=1"
export UBSAN_OPTIONS="$sanitizer_options"

run_asan() {
    local build=$prefix-asan
    stage "AddressSanitizer + UndefinedBehaviorSanitizer: build"
    configure "$build" -DNORVANE_CLOUD_SANITIZERS="address;undefined" -DNORVANE_CLOUD_WARNINGS_AS_ERRORS=ON
    cmake --build "$build" -j "$jobs"
    stage "AddressSanitizer + UndefinedBehaviorSanitizer: whole suite"
    # Left out here: flat_c_host_churn checks the resident size, which the sanitizer's own quarantine makes grow
    # (the same churn runs under LeakSanitizer in tst_flatstress); consumer_installed_package builds host
    # programs without the sanitizers against the installed library, which the normal run checks. The Python
    # host is run next, with the runtime preloaded.
    ctest --test-dir "$build" --output-on-failure -j "$jobs" --timeout 900 \
        -E '^(flat_c_host_churn|flat_python_host|consumer_installed_package)$'
    if ctest --test-dir "$build" -N -R '^flat_python_host$' | grep -q 'Total Tests: 1'; then
        # The interpreter is not instrumented: the runtime must be loaded before it, and its own allocations,
        # which live until exit by design, are not ours to check for leaks.
        LD_PRELOAD="$(g++ -print-file-name=libasan.so)" ASAN_OPTIONS="$ASAN_OPTIONS:detect_leaks=0" \
            ctest --test-dir "$build" --output-on-failure --timeout 900 -R '^flat_python_host$'
    fi
}

run_tsan() {
    local build=$prefix-tsan
    stage "ThreadSanitizer: build"
    configure "$build" -DNORVANE_CLOUD_SANITIZERS=thread -DNORVANE_CLOUD_WARNINGS_AS_ERRORS=ON
    # Only what the tests labelled "concurrency" need: their programs (named like the tests) and the flat
    # test server that some of them talk to.
    local targets
    targets=$(ctest --test-dir "$build" -N -L concurrency | sed -n 's/^ *Test *#[0-9]*: *\([A-Za-z0-9_]*\)$/\1/p')
    local available buildable=(flattestserver)
    available=$(ninja -C "$build" -t targets all | sed -n 's/^\([A-Za-z0-9_]*\): phony$/\1/p')
    for target in $targets; do
        grep -qx "$target" <<<"$available" && buildable+=("$target")
    done
    cmake --build "$build" -j "$jobs" --target "${buildable[@]}"
    stage "ThreadSanitizer: concurrency tests"
    # die_after_fork=0: tests start nginx and server processes with fork and exec from a threaded process.
    TSAN_OPTIONS="$sanitizer_options:second_deadlock_stack=1:die_after_fork=0:suppressions=$source_dir/tests/hardening/tsan.supp" \
        ctest --test-dir "$build" --output-on-failure -j "$jobs" --timeout 900 -L concurrency
}

run_fuzz() {
    local build=$prefix-fuzz
    stage "libFuzzer: build"
    configure "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
        -DNORVANE_CLOUD_SANITIZERS="address;undefined" -DNORVANE_CLOUD_BUILD_FUZZERS=ON \
        -DNORVANE_CLOUD_BUILD_TESTS=OFF -DNORVANE_CLOUD_BUILD_TOOLS=OFF -DNORVANE_CLOUD_BUILD_EXAMPLES=OFF \
        -DNORVANE_CLOUD_WARNINGS_AS_ERRORS=ON
    local targets=(tiffheader pmtilesheader itemcollection cachediskentry flatdocuments)
    cmake --build "$build" -j "$jobs" --target makeseeds "${targets[@]/#/fuzz_}"
    rm -rf "$build/seeds"
    # clang's shared sanitizer runtime is a dependency of every program here, but libstdc++ is loaded before it;
    # nothing runs in between that the runtime would need to see.
    ASAN_OPTIONS="$ASAN_OPTIONS:verify_asan_link_order=0" "$build/fuzz/makeseeds" tests/data "$build/seeds"
    local failed=0
    for target in "${targets[@]}"; do
        stage "libFuzzer: $target for $fuzz_seconds s"
        local corpus=$build/corpus/$target artifacts=$build/artifacts/$target log=$build/fuzz-$target.log
        mkdir -p "$corpus" "$artifacts"
        local dictionary=()
        case $target in itemcollection | flatdocuments) dictionary=(-dict=fuzz/json.dict) ;; esac
        # The corpus grown by earlier runs is kept in the build folder; the seeds start every run.
        if ASAN_OPTIONS="$ASAN_OPTIONS:verify_asan_link_order=0" "$build/fuzz/fuzz_$target" \
            -max_total_time="$fuzz_seconds" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
            "${dictionary[@]}" -artifact_prefix="$artifacts/" "$corpus" "$build/seeds/$target" >"$log" 2>&1; then
            echo "$target: $(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$') executions," \
                "$(grep -o 'stat::peak_rss_mb: *[0-9]*' "$log" | grep -o '[0-9]*$') MB peak, no crash"
        else
            failed=1
            tail -n 60 "$log"
            echo "$target: CRASH; inputs in $artifacts (keep them in tests/hardening/regressions/$target/ once fixed)"
        fi
    done
    return $failed
}

# With several stages, each runs in its own process, so a failure in one does not hide what the others find.
if [ ${#stages[@]} -gt 1 ]; then
    failed=()
    for stage_name in "${stages[@]}"; do
        bash "$0" "$stage_name" || failed+=("$stage_name")
    done
    stage "done"
    if [ ${#failed[@]} -gt 0 ]; then
        echo "== hardening: FAILED: ${failed[*]}"
        exit 1
    fi
    exit 0
fi
case ${stages[0]} in
    asan) run_asan ;;
    tsan) run_tsan ;;
    fuzz) run_fuzz ;;
    *) echo "unknown stage: ${stages[0]}" >&2; exit 2 ;;
esac
stage "${stages[0]} done"
