#!/usr/bin/env bash
# Builds the libFuzzer targets (fuzz/) with clang, AddressSanitizer and
# UndefinedBehaviorSanitizer, and runs each for a bounded time, seeded from
# the test corpus. Any crash, leak, time-out or sanitizer report fails it and
# leaves the input that caused it in build-fuzz/findings/.
#   scripts/fuzz.sh            each target 30 seconds (what CI runs)
#   scripts/fuzz.sh 3600       each target an hour
#   scripts/fuzz.sh 600 opc_fuzz_content_types    one target
# Inputs that found new paths stay in build-fuzz/corpus/<target>/, so a later
# run goes on from there.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh

seconds="${1:-30}"
shift || true
build=build-fuzz
sanitize="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer -g"
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ "${launcher[@]}" \
    -DOPC_BUILD_FUZZERS=ON -DOPC_BUILD_TESTS=OFF -DOPC_BUILD_BENCHMARKS=OFF -DOPC_INSTALL=OFF \
    "-DCMAKE_CXX_FLAGS=$sanitize" \
    "-DCMAKE_EXE_LINKER_FLAGS=-fsanitize=address,undefined" \
    "-DCMAKE_SHARED_LINKER_FLAGS=-fsanitize=address,undefined" >/dev/null

targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(opc_fuzz_content_types opc_fuzz_unpack_checks)
cmake --build "$build" -j"$(nproc)" --target "${targets[@]}"

# Seeds: the content-types stream of every corpus package, and the packages
# themselves for the archive checks.
seeds="$build/seeds"
rm -rf "$seeds"
mkdir -p "$seeds/opc_fuzz_content_types" "$seeds/opc_fuzz_unpack_checks" "$build/findings"
for package in tests/data/corpus/*.* tests/data/corpus/malformed/*; do
    [ "$package" = tests/data/corpus/SOURCES.txt ] && continue
    name="$(basename "$package")"
    cp "$package" "$seeds/opc_fuzz_unpack_checks/$name"
    unzip -p "$package" '\[Content_Types\].xml' >"$seeds/opc_fuzz_content_types/$name.xml" 2>/dev/null || true
done

export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
failed=0
for target in "${targets[@]}"; do
    corpus="$build/corpus/$target"
    mkdir -p "$corpus"
    dictionary=()
    [ -f "fuzz/$target.dict" ] && dictionary=("-dict=fuzz/$target.dict")
    echo "fuzz: $target for ${seconds}s"
    # -timeout: one input taking 10 s is a hang; -rss_limit_mb: memory past
    # 2 GiB is a failure too.
    if ! "$build/fuzz/$target" "$corpus" "$seeds/$target" "${dictionary[@]}" -max_total_time="$seconds" \
        -timeout=10 -rss_limit_mb=2048 -max_len=262144 -print_final_stats=1 \
        -artifact_prefix="$build/findings/$target-" >"$build/$target.log" 2>&1; then
        echo "fuzz: $target FAILED; see $build/$target.log and $build/findings/"
        tail -40 "$build/$target.log"
        failed=1
        continue
    fi
    grep -E '^stat::number_of_executed_units|^stat::peak_rss_mb' "$build/$target.log" | tr '\n' ' '
    echo
done
[ "$failed" -eq 0 ] && echo "fuzz: ${#targets[@]} targets, no crash, leak or time-out"
exit "$failed"
