#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test.
#   scripts/test.sh             optimised build with debug information
#   scripts/test.sh --sanitize  AddressSanitizer and UndefinedBehaviorSanitizer
#   scripts/test.sh --threads   ThreadSanitizer (pack and unpack work on threads)
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

if [ "${1:-}" = "--sanitize" ]; then
    build=build-sanitize
    sanitize="-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer"
    flags=(-DCMAKE_BUILD_TYPE=Debug
           "-DCMAKE_CXX_FLAGS=$sanitize"
           "-DCMAKE_EXE_LINKER_FLAGS=-fsanitize=address,undefined"
           "-DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=address,undefined")
    export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
    export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
elif [ "${1:-}" = "--threads" ]; then
    build=build-threads
    flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo
           "-DCMAKE_CXX_FLAGS=-fsanitize=thread"
           "-DCMAKE_EXE_LINKER_FLAGS=-fsanitize=thread"
           "-DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=thread")
    export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1
else
    build=build
    flags=(-DCMAKE_BUILD_TYPE=RelWithDebInfo)
fi

# Warnings are errors here whatever an earlier configure left in the cache.
cmake -S . -B "$build" "${flags[@]}" -DOPC_WARNINGS_AS_ERRORS=ON >/dev/null
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)"
