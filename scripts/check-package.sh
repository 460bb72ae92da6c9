#!/usr/bin/env bash
# Checks the libraries as their clients get them: builds the project in a
# folder of its own, installs it into a temporary prefix, then checks
#   - the installed files (libraries with version and SONAME, every public
#     header, the CMake package, the pkg-config files, opcdir when built);
#   - the three client projects of tests/consumers (find_package,
#     add_subdirectory, pkg-config), each writing and committing a package;
#   - that every public header compiles on its own, with g++ and clang++;
#   - the exported symbols of both libraries: only the classes declared with
#     the export macro, never a test-only or unnamed-namespace symbol;
#   - that the sources of the libraries and the tool pass clang-tidy
#     (.clang-tidy), and with --format that every C++ file is as clang-format
#     (.clang-format) lays it out.
#
#   scripts/check-package.sh [--keep] [--format]
#     --keep    leave the work folder (its path is printed)
#
# Prints PASS/FAIL per check and a summary line; exits non-zero on any failure.
set -uo pipefail
cd "$(dirname "$0")/.."
root="$(pwd)"

keep=0
format=0
for arg in "$@"; do
    case "$arg" in
        --keep) keep=1 ;;
        --format) format=1 ;;
        *) echo "usage: $0 [--keep] [--format]" >&2; exit 2 ;;
    esac
done
work="$(mktemp -d -t opc-check-package.XXXXXX)"
if [ "$keep" -eq 1 ]; then
    echo "work folder: $work"
else
    trap 'rm -rf "$work"' EXIT
fi
build="$work/build"
prefix="$work/prefix"
jobs="$(nproc)"
mkdir -p "$work/logs"

check_log_dir="$work/logs"
# shellcheck source=check-lib.sh
source "$root/scripts/check-lib.sh"

cache_value() { sed -n "s/^$1:[A-Z]*=//p" "$build/CMakeCache.txt"; }

configure_and_build() {
    cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX="$prefix" \
        -DOPC_BUILD_TESTS=OFF -DOPC_BUILD_BENCHMARKS=OFF -DOPC_BUILD_EXAMPLES=OFF -DOPC_BUILD_TOOLS=ON \
        -DOPC_INSTALL=ON -DOPC_WARNINGS_AS_ERRORS=ON \
        -DCMAKE_EXPORT_COMPILE_COMMANDS=ON &&
        cmake --build "$build" -j"$jobs"
}

# The installed tree, file for file, against what the sources say it holds.
check_installed_files() {
    local version libdir includedir bindir expected actual lib
    version="$(cache_value CMAKE_PROJECT_VERSION)"
    libdir="$(cache_value CMAKE_INSTALL_LIBDIR)"
    includedir="$(cache_value CMAKE_INSTALL_INCLUDEDIR)"
    bindir="$(cache_value CMAKE_INSTALL_BINDIR)"
    [ -n "$version" ] && [ -n "$libdir" ] || { echo "no version or libdir in the cache"; return 1; }
    expected="$work/expected-files"
    {
        for lib in opccore opcfspackage; do
            echo "$libdir/lib$lib.so"
            echo "$libdir/lib$lib.so.${version%%.*}"
            echo "$libdir/lib$lib.so.$version"
            echo "$libdir/pkgconfig/$lib.pc"
            (cd "$root/$lib/include" && find . -name '*.h' | sed "s|^\./|$includedir/|")
        done
        for file in opcfspackageConfig opcfspackageConfigVersion opcfspackageTargets opcfspackageTargets-relwithdebinfo; do
            echo "$libdir/cmake/opcfspackage/$file.cmake"
        done
        echo "$bindir/opcdir"
        echo "share/man/man1/opcdir.1.gz"
        echo "share/bash-completion/completions/opcdir"
    } | sort >"$expected"
    actual="$work/actual-files"
    (cd "$prefix" && find . -type f -o -type l) | sed 's|^\./||' | sort >"$actual"
    diff -u "$expected" "$actual" || return 1

    for lib in opccore opcfspackage; do
        readelf -d "$prefix/$libdir/lib$lib.so.$version" | grep -q "Library soname: \[lib$lib.so.${version%%.*}\]" ||
            { echo "lib$lib: SONAME is not lib$lib.so.${version%%.*}"; return 1; }
        [ "$(readlink "$prefix/$libdir/lib$lib.so")" = "lib$lib.so.${version%%.*}" ] ||
            { echo "lib$lib.so does not link to the SONAME"; return 1; }
    done
    # Everything installed finds its libraries without LD_LIBRARY_PATH.
    for file in "$prefix/$libdir"/*.so "$prefix/$bindir"/*; do
        [ -e "$file" ] || continue
        if ldd "$file" | grep 'not found'; then
            echo "$file: unresolved libraries"
            return 1
        fi
    done
    echo "$(wc -l <"$actual") files installed as expected"
}

# Each public header alone, included twice, as a client's first line.
check_headers_alone() {
    local compiler="$1" header count=0 bad=0
    while IFS= read -r header; do
        count=$((count + 1))
        if ! printf '#include <%s>\n#include <%s>\n' "$header" "$header" |
            "$compiler" -std=c++17 -fsyntax-only -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Werror \
                -I"$prefix/$(cache_value CMAKE_INSTALL_INCLUDEDIR)" -x c++ -; then
            echo "$header does not compile on its own with $compiler"
            bad=$((bad + 1))
        fi
    done < <(cd "$prefix/$(cache_value CMAKE_INSTALL_INCLUDEDIR)" && find opccore opcfspackage -name '*.h' | sort)
    echo "$count headers, $bad failed"
    [ "$count" -gt 0 ] && [ "$bad" -eq 0 ]
}

# The dynamic symbol table holds the project's public classes and, besides
# them, only what the ELF C++ ABI makes visible whatever the visibility
# setting: weak and unique (vague-linkage) instantiations of templates and
# inline functions from the standard library and Boost headers, which
# libstdc++ and Boost declare visible. Every symbol in namespace opc belongs
# to a class or function declared with the library's export macro. Nothing
# from an unnamed namespace or from the tests is exported.
check_symbols() {
    local lib="$1" so exported
    so="$prefix/$(cache_value CMAKE_INSTALL_LIBDIR)/lib$lib.so"
    # Classes ("class X_EXPORT Name : ...") and functions ("X_EXPORT T name(").
    exported="$(grep -rh '_EXPORT' "$prefix/$(cache_value CMAKE_INSTALL_INCLUDEDIR)" | grep -v '#define' |
        grep -oE '(OPCCORE|OPCFSPACKAGE)_EXPORT [^;({]*' |
        sed -E 's/^[A-Z_]+_EXPORT +//; s/ +: .*$//; s/ *\{.*$//; s/ +final$//; s/ +$//; s/.*[^A-Za-z0-9_]//' |
        sort -u | paste -sd'|')"
    [ -n "$exported" ] || { echo "no exported names found in the headers"; return 1; }
    echo "exported names: $exported"
    nm -D --defined-only --format=posix "$so" >"$work/$lib.nm" || return 1
    awk '{print $1}' "$work/$lib.nm" | c++filt >"$work/$lib.demangled" || return 1
    paste -d'\t' <(awk '{print $2 "\t" $1}' "$work/$lib.nm") "$work/$lib.demangled" |
        awk -F'\t' -v exported="$exported" -v lib="$lib" '
        # The namespace a mangled name is declared in: opc, std, gnu, boost,
        # or other. Special names (vtable, typeinfo, thunks, guard variables)
        # and local entities are looked through to the entity they are for.
        function scope(m,    s) {
            if (m !~ /^_Z/) return "other"
            s = substr(m, 3)
            while (1) {
                if (s ~ /^(T[VITS]|GV|GR)/) { s = substr(s, 3); continue }
                if (match(s, /^Th(n?[0-9]+)_/)) { s = substr(s, RLENGTH + 1); continue }
                if (match(s, /^Tv(n?[0-9]+)_(n?[0-9]+)_/)) { s = substr(s, RLENGTH + 1); continue }
                if (s ~ /^Z/) { s = substr(s, 2); continue }
                break
            }
            if (s ~ /^N/) { s = substr(s, 2); sub(/^[rVK]*[RO]?/, "", s) }
            if (s ~ /^3opc/) return "opc"
            if (s ~ /^(St|S[absiod])/) return "std"
            if (s ~ /^9__gnu_cxx/) return "std"
            if (s ~ /^5boost/) return "boost"
            return "other"
        }
        {
            type = $1; mangled = $2; name = $3; total++
            if (mangled ~ /_GLOBAL__N/ || name ~ /\(anonymous namespace\)/) { bad("unnamed namespace"); next }
            if (name ~ /(^|[^A-Za-z0-9_])opc::test::/) { bad("test-only"); next }
            s = scope(mangled)
            if (s == "opc") {
                entity = name
                sub(/^(typeinfo name for|typeinfo for|vtable for|VTT for|construction vtable for|guard variable for|non-virtual thunk to|virtual thunk to|covariant return thunk to) /, "", entity)
                if (entity !~ ("^opc(::[a-z][A-Za-z0-9_]*)*::(" exported ")(::|\\(|\\[|$)")) { bad("in namespace opc but not declared with the export macro"); next }
                own++
                next
            }
            if ((s == "std" || s == "boost") && type ~ /^[WVu]$/) { vague++; next }
            bad("outside namespace opc (" s ", type " type ")")
        }
        function bad(why) { printf "%s: %s: %s [%s]\n", lib, why, name, mangled; errors++ }
        END {
            printf "%s: %d exported symbols: %d of the public classes, %d library-header instantiations, %d refused\n",
                lib, total, own, vague, errors
            exit (errors > 0 || own == 0)
        }'
}

# Every C++ source of the libraries and the tool, at any depth.
run_clang_tidy() {
    local sources
    sources="$(git -C "$root" ls-files 'opccore/*.cpp' 'opcfspackage/*.cpp' 'tools/*.cpp' 2>/dev/null)"
    [ -n "$sources" ] || sources="$(cd "$root" && find opccore opcfspackage tools -name '*.cpp' | sort)"
    # shellcheck disable=SC2086
    (cd "$root" && clang-tidy -p "$build" --quiet $sources) || return 1
    echo "$(echo "$sources" | wc -w) sources of the libraries and the tool pass"
}

check_format() {
    local files file bad=0
    files="$(git -C "$root" ls-files '*.h' '*.cpp')"
    for file in $files; do
        clang-format --dry-run --Werror "$root/$file" 2>/dev/null || { echo "not formatted: $file"; bad=$((bad + 1)); }
    done
    echo "$(echo "$files" | wc -w) files, $bad not formatted"
    [ "$bad" -eq 0 ]
}

check "configure and build (RelWithDebInfo, libraries and tools)" configure_and_build
[ "$failed" -eq 0 ] && check "install into a temporary prefix" cmake --install "$build"
if [ "$failed" -ne 0 ]; then
    echo "check-package: nothing to check without a build and an install"
    check_summary check-package
    exit 1
fi
check "installed files, versions and SONAMEs" check_installed_files
check "client projects (find_package, add_subdirectory, pkg-config)" \
    bash "$root/tests/consumers/run.sh" "$prefix" "$work/consumers"
for compiler in g++ clang++; do
    check "every public header compiles on its own ($compiler)" check_headers_alone "$compiler"
done
for lib in opccore opcfspackage; do
    check "exported symbols of lib$lib" check_symbols "$lib"
done

check "clang-tidy over the library and tool sources" run_clang_tidy
if [ "$format" -eq 1 ]; then
    check "clang-format leaves every C++ file as it is" check_format
fi

check_summary check-package
