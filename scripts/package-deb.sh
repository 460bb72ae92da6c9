#!/usr/bin/env bash
# Builds the Debian packages libopcfspackage1, libopcfspackage-dev and opcdir
# into build-deb/.
#   scripts/package-deb.sh           build the .deb files
#   scripts/package-deb.sh --verify  then install them with dpkg into a scratch
#                                    root and build a client there through
#                                    find_package and through pkg-config, and
#                                    run the installed opcdir
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
build=build-deb
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
    -DOPC_BUILD_TESTS=OFF -DOPC_BUILD_BENCHMARKS=OFF >/dev/null
cmake --build "$build" -j"$(nproc)"
rm -f "$build"/*.deb
(cd "$build" && cpack -G DEB >/dev/null)
ls "$build"/*.deb
[ "${1:-}" = "--verify" ] || exit 0

root="$(mktemp -d -t opc-deb.XXXXXX)"
trap 'rm -rf "$root"' EXIT
# A dpkg database of its own: the packages go below $root, not onto this
# system. Their dependencies are this system's, hence --force-depends.
mkdir -p "$root/var/lib/dpkg/info" "$root/var/lib/dpkg/updates"
touch "$root/var/lib/dpkg/status" "$root/var/lib/dpkg/available"
dpkg --root="$root" --force-script-chrootless --force-depends --force-not-root --log=/dev/null \
    -i "$build"/*.deb >/dev/null
dpkg --root="$root" -l | awk '/^ii/ {print "installed:", $2, $3}'
dpkg-deb -f "$build"/opcdir_*.deb Depends | sed 's/^/opcdir depends on: /'

multiarch="$(dpkg-architecture -qDEB_HOST_MULTIARCH 2>/dev/null || gcc -print-multiarch)"
libdir="$root/usr/lib/$multiarch"
[ -d "$libdir" ] || libdir="$root/usr/lib"

client="$root/client"
mkdir -p "$client"
cp examples/quickstart.cpp "$client/"
cat > "$client/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.16)
project(client CXX)
set(CMAKE_CXX_STANDARD 17)
find_package(opcfspackage CONFIG REQUIRED)
add_executable(quickstart quickstart.cpp)
target_link_libraries(quickstart PRIVATE opc::opcfspackage)
CMAKE
cmake -S "$client" -B "$client/build" -DCMAKE_PREFIX_PATH="$root/usr" >/dev/null
cmake --build "$client/build" >/dev/null
echo "find_package: built $(basename "$client/build/quickstart")"
PKG_CONFIG_PATH="$libdir/pkgconfig" PKG_CONFIG_SYSROOT_DIR="" \
    g++ -std=c++17 "$client/quickstart.cpp" -o "$client/quickstart-pc" \
    $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --cflags --libs opcfspackage)
echo "pkg-config: built quickstart-pc with $(PKG_CONFIG_PATH="$libdir/pkgconfig" pkg-config --libs opcfspackage)"
"$root/usr/bin/opcdir" --version
test -f "$root/usr/share/man/man1/opcdir.1.gz" && echo "man page: usr/share/man/man1/opcdir.1.gz"
test -f "$root/usr/share/bash-completion/completions/opcdir" && echo "completion: usr/share/bash-completion/completions/opcdir"
