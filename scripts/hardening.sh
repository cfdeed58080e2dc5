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
    # The installed-package consumer builds host programs without the sanitizers; the normal run checks it.
    ctest --test-dir "$build" --output-on-failure -j "$jobs" --timeout 900 -E '^consumer_installed_package$'
}

run_tsan() {
    local build=$prefix-tsan
    stage "ThreadSanitizer: build"
    configure "$build" -DNORVANE_CLOUD_SANITIZERS=thread -DNORVANE_CLOUD_WARNINGS_AS_ERRORS=ON
    # Only the programs of the tests labelled "concurrency" (each program is named like its test).
    local targets
    targets=$(ctest --test-dir "$build" -N -L concurrency | sed -n 's/^ *Test *#[0-9]*: *\([A-Za-z0-9_]*\)$/\1/p')
    cmake --build "$build" -j "$jobs" --target $targets
    stage "ThreadSanitizer: concurrency tests"
    # die_after_fork=0: tests start nginx and server processes with fork and exec from a threaded process.
    TSAN_OPTIONS="$sanitizer_options:second_deadlock_stack=1:die_after_fork=0:suppressions=$source_dir/tests/tsan.supp" \
        ctest --test-dir "$build" --output-on-failure -j "$jobs" --timeout 900 -L concurrency
}

# Seed corpora from the real files of tests/data, in the input layout of each entry of fuzz/fuzzentries.cpp.
make_seeds() {
    local seeds=$1 file
    rm -rf "$seeds"
    mkdir -p "$seeds"/{tiffheader,cogstructure,pmtilesheader,itemcollection,cachediskentry,flatdocuments,httpanswer}
    for file in tests/data/tiff/* tests/data/cogs/*.tif; do
        head -c 64 "$file" >"$seeds/tiffheader/$(basename "$file")"
        cp "$file" "$seeds/cogstructure/"
    done
    for file in tests/data/pmtiles/*; do
        # First byte: ranges accepted, remote, content length taken from the input.
        { printf '\003'; head -c 127 "$file"; } >"$seeds/pmtilesheader/$(basename "$file")"
    done
    for file in tests/data/stac/*.json; do
        { echo "https://catalog.example/api/search"; cat "$file"; } >"$seeds/itemcollection/$(basename "$file")"
    done
    printf '\000{"directory":"/tmp/x","maximumMemoryBytes":1024,"diskEnabled":false}' >"$seeds/flatdocuments/options"
    printf '\001{"Authorization":"Bearer token"}' >"$seeds/flatdocuments/headers"
    printf '\003{"collections":["naip"],"bbox":[-110,39,-105,41],"limit":2}' >"$seeds/flatdocuments/search"
    cp fuzz/regressions/httpanswer/* "$seeds/httpanswer/"
}

run_fuzz() {
    local build=$prefix-fuzz
    stage "libFuzzer: build"
    configure "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
        -DNORVANE_CLOUD_SANITIZERS="address;undefined" -DNORVANE_CLOUD_BUILD_FUZZERS=ON \
        -DNORVANE_CLOUD_BUILD_TESTS=OFF -DNORVANE_CLOUD_BUILD_TOOLS=OFF -DNORVANE_CLOUD_BUILD_EXAMPLES=OFF \
        -DNORVANE_CLOUD_WARNINGS_AS_ERRORS=ON
    local targets=(tiffheader cogstructure pmtilesheader itemcollection cachediskentry flatdocuments httpanswer)
    cmake --build "$build" -j "$jobs" --target "${targets[@]/#/fuzz_}"
    make_seeds "$build/seeds"
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
            "${dictionary[@]}" -artifact_prefix="$artifacts/" "$corpus" "$build/seeds/$target" \
            "fuzz/regressions/$target" >"$log" 2>&1; then
            echo "$target: $(grep -o 'stat::number_of_executed_units: *[0-9]*' "$log" | grep -o '[0-9]*$') executions," \
                "$(grep -o 'stat::peak_rss_mb: *[0-9]*' "$log" | grep -o '[0-9]*$') MB peak, no crash"
        else
            failed=1
            tail -n 60 "$log"
            echo "$target: CRASH; inputs in $artifacts (keep them in fuzz/regressions/$target/ once fixed)"
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
