#!/usr/bin/env bash
# Builds and runs the three client projects against the libraries: an
# installed copy through find_package and through pkg-config, and the source
# tree through add_subdirectory. Each client writes and commits a package in
# an empty folder and checks the result on disk.
#
#   tests/consumers/run.sh INSTALL-PREFIX [WORK-FOLDER]
#
# Exits non-zero when any client fails to build, or fails when run.
set -uo pipefail

here="$(cd "$(dirname "$0")" && pwd)"
source_dir="$(cd "$here/../.." && pwd)"
[ $# -ge 1 ] || { echo "usage: $0 INSTALL-PREFIX [WORK-FOLDER]" >&2; exit 2; }
prefix="$(cd "$1" && pwd)" || exit 2
if [ $# -ge 2 ]; then
    work="$2"
    mkdir -p "$work"
else
    work="$(mktemp -d -t opc-consumers.XXXXXX)"
    trap 'rm -rf "$work"' EXIT
fi
jobs="$(nproc)"
cxx="${CXX:-c++}"
# The installed libraries' pkg-config files, before any the system has.
export PKG_CONFIG_PATH="$(find "$prefix" -type d -name pkgconfig -path '*/lib*' | head -n 1)${PKG_CONFIG_PATH:+:$PKG_CONFIG_PATH}"

check_log_dir="$work"
# shellcheck source=../../scripts/check-lib.sh
source "$source_dir/scripts/check-lib.sh"

# run_consumer PROGRAM: runs it on a fresh empty folder.
run_consumer() {
    local out
    out="$(mktemp -d "$work/run.XXXXXX")"
    "$1" "$out"
}

# The configure step must fail; its output must name the reason.
expect_configure_failure() {
    local build="$1" pattern="$2"
    shift 2
    if cmake "$@" -B "$build" >"$build.out" 2>&1; then
        echo "configured although it should not have"
        return 1
    fi
    grep -q "$pattern" "$build.out" || { cat "$build.out"; return 1; }
}

# A subproject with default options: its cache shows every option off.
expect_options_off() {
    local cache="$1/CMakeCache.txt" option
    for option in OPC_BUILD_TESTS OPC_BUILD_TOOLS OPC_BUILD_EXAMPLES OPC_BUILD_BENCHMARKS OPC_INSTALL \
        OPC_WARNINGS_AS_ERRORS; do
        grep -qx "$option:BOOL=OFF" "$cache" || { echo "$option is not off in $cache"; return 1; }
    done
}

fp="$work/find_package"
check "find_package: configure and build" \
    sh -c "cmake -S '$here/find_package' -B '$fp' -DCMAKE_PREFIX_PATH='$prefix' -DCMAKE_BUILD_TYPE=RelWithDebInfo \
           && cmake --build '$fp' -j$jobs"
check "find_package: consumer writes and commits a package" run_consumer "$fp/consumer"
check "find_package: a later major version is refused" \
    expect_configure_failure "$work/find_package_v2" "considered but not accepted" \
    -S "$here/find_package" -DCMAKE_PREFIX_PATH="$prefix" -DOPC_REQUIRED_VERSION=2.0

as="$work/add_subdirectory"
check "add_subdirectory: configure and build" \
    sh -c "cmake -S '$here/add_subdirectory' -B '$as' -DOPC_SOURCE_DIR='$source_dir' -DCMAKE_BUILD_TYPE=RelWithDebInfo \
           && cmake --build '$as' -j$jobs"
check "add_subdirectory: options default off, only the libraries are defined" expect_options_off "$as"
check "add_subdirectory: consumer writes and commits a package" run_consumer "$as/consumer"
check "add_subdirectory: tests, tools and examples come in when asked" \
    cmake -S "$here/add_subdirectory" -B "$work/add_subdirectory_all" -DOPC_SOURCE_DIR="$source_dir" \
    -DOPC_BUILD_TESTS=ON -DOPC_BUILD_TOOLS=ON -DOPC_BUILD_EXAMPLES=ON
check "add_subdirectory: the tools alone bring no examples" \
    cmake -S "$here/add_subdirectory" -B "$work/add_subdirectory_tools" -DOPC_SOURCE_DIR="$source_dir" \
    -DOPC_BUILD_TOOLS=ON

pc="$work/pkg-config"
mkdir -p "$pc"
check "pkg-config: version matches the project" \
    sh -c "test \"\$(pkg-config --modversion opcfspackage)\" = \"\$(pkg-config --modversion opccore)\" \
           && grep -q \"VERSION \$(pkg-config --modversion opcfspackage)\$\" '$source_dir/CMakeLists.txt'"
check "pkg-config: build with \`pkg-config --cflags --libs opcfspackage\`" \
    sh -c "$cxx -std=c++17 -Wall -Wextra -Wpedantic -Werror '$here/consumer.cpp' -o '$pc/consumer' \
           \$(pkg-config --cflags --libs opcfspackage) -Wl,-rpath,\"\$(pkg-config --variable=libdir opcfspackage)\""
check "pkg-config: consumer writes and commits a package" run_consumer "$pc/consumer"

check_summary consumers
