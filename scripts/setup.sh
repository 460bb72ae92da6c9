#!/usr/bin/env bash
# Installs, from Debian's packages, everything the build, the tests, the tool and
# the benchmarks need (python3-docx and python3-openpyxl: real clients that
# open what pack writes). Idempotent and quiet when all is there; must run as root
# (or through sudo) only when something is missing.
set -euo pipefail

packages=(
  cmake g++ clang make pkg-config
  libboost-dev libboost-system-dev
  googletest libgtest-dev libgmock-dev
  libzip-dev zlib1g-dev libdeflate-dev zip unzip
  libpugixml-dev nettle-dev
  libbenchmark-dev
  clang-format clang-tidy
  python3-docx python3-openpyxl
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "setup: installing ${missing[*]}" >&2
sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq >/dev/null
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
