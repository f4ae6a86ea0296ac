#!/usr/bin/env bash
# Installs what is missing, builds with AddressSanitizer and UBSan, runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/deps.sh
build=${EVENLOUD_TEST_BUILD:-build/test}
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DEVENLOUD_SANITIZE=address,undefined >/dev/null
cmake --build "$build" -j"$(nproc)"
export QT_QPA_PLATFORM=offscreen
# Leak checking is off: Qt and fontconfig keep process-lifetime allocations
# that LeakSanitizer reports at exit; use-after-free and overflows stay caught.
export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=0}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1}
ctest --test-dir "$build" --output-on-failure -j"$(nproc)" "$@"
# The probing fuzzer, for a bounded time (EVENLOUD_FUZZ_SECONDS=0 skips it).
scripts/fuzz.sh
