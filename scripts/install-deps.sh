#!/usr/bin/env bash
# Installs the Debian packages that building, testing and the demonstration
# need, if any is missing. Runs as root on Debian bookworm.
#
#   scripts/install-deps.sh          the build machine's packages
#   scripts/install-deps.sh cross    and the ARM libraries of the cross builds:
#                                    zlib and GoogleTest for arm64 as multiarch
#                                    packages, for armhf unpacked into
#                                    build-armhf-sysroot/
set -euo pipefail
cd "$(dirname "$0")/.."
# Build and tests; the AMT MODE picture (FreeType, DejaVu); benchmarks (Google
# Benchmark, socat as the reference relay); fuzzing (clang with libFuzzer and
# its sanitizer runtimes); coverage (gcovr); the cross builds and their tests
# (the ARM compilers, qemu's user-mode emulation); the Android half checked
# against Android's liblog and libcutils headers; the station's plans and
# records (toml++, nlohmann-json), and Python, whose XML parser reads them
# back in a test; the phone's SELinux policy compiled against Android's base
# policy (m4, checkpolicy, secilc, and setools for the contexts); the results
# database (SQLite, libpq) and its tests (a PostgreSQL server of their own,
# headless Chromium for the report's page); the PC programs' options (CLI11),
# and their Windows build with its tests (MinGW-w64, posix threads; Wine, whose
# 64-bit half alone runs 64-bit programs: no i386 architecture is needed).
packages=(cmake ninja-build g++ pkg-config zlib1g-dev libgtest-dev bubblewrap iproute2 util-linux
          libfreetype-dev fonts-dejavu-core libbenchmark-dev socat clang libclang-rt-14-dev gcovr
          g++-aarch64-linux-gnu g++-arm-linux-gnueabihf qemu-user
          android-liblog-dev android-libcutils-dev
          libtomlplusplus-dev nlohmann-json3-dev python3
          m4 checkpolicy secilc python3-setools
          libsqlite3-dev libpq-dev postgresql chromium
          libcli11-dev g++-mingw-w64-x86-64-posix wine wine64)
# The arm64 libraries, as multiarch packages: the programs run under
# qemu-aarch64 against the system's arm64 C library. Installing them moves
# some amd64 packages to the versions of the arm64 ones (Multi-Arch: same),
# so they come only with "cross".
arm64_packages=(libc6:arm64 libstdc++6:arm64 zlib1g-dev:arm64 libgtest-dev:arm64)
# The armhf libraries, unpacked and never installed: see the armhf toolchain
# file, cmake/arm-linux-gnueabihf.cmake.
armhf_packages=(zlib1g:armhf zlib1g-dev:armhf libgtest-dev:armhf)
armhf_sysroot=build-armhf-sysroot

if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; else SUDO=; fi
export DEBIAN_FRONTEND=noninteractive

missing_of() {
  local p
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || echo "$p"
  done
}

# apt-get update until it fetches every index. A mirror in the middle of a
# sync serves some index with the wrong size for a while, and apt then works
# from a mix of old and new indexes (multiarch packages get "unmet
# dependencies"), so a failed update is tried again after a pause.
apt_update() {
  local try out
  for try in 1 2 3 4 5; do
    if out=$($SUDO apt-get update -q "$@" 2>&1) && ! grep -qE '^(E|W): (Failed|Some index)' <<<"$out"; then
      return 0
    fi
    echo "apt-get update failed (try $try of 5):" >&2
    grep -E '^(E|W):' <<<"$out" | head -5 >&2 || true
    [ "$try" -lt 5 ] && sleep 30
  done
  echo "apt-get update keeps failing; the package mirror may be in the middle of a sync. Try again later." >&2
  return 1
}

# Installs the packages, updating the indexes first; an install that fails
# on a mix of indexes gets a fresh update and another try.
apt_install() {
  local try
  for try in 1 2 3; do
    apt_update || return 1
    if $SUDO apt-get install -y -qq --no-install-recommends "$@" >/dev/null; then return 0; fi
    echo "apt-get install failed (try $try of 3)" >&2
    [ "$try" -lt 3 ] && sleep 30
  done
  echo "could not install: $*" >&2
  return 1
}

mapfile -t missing < <(missing_of "${packages[@]}")
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  apt_install "${missing[@]}"
fi

[ "${1:-}" = cross ] || exit 0

if ! dpkg --print-foreign-architectures | grep -qx arm64; then
  $SUDO dpkg --add-architecture arm64
fi
mapfile -t missing < <(missing_of "${arm64_packages[@]}")
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  apt_install "${missing[@]}"
fi

# armhf: apt works here from a private list of bookworm's main armhf index,
# so neither dpkg's architectures nor the system's indexes change.
if [ ! -f "$armhf_sysroot/usr/lib/arm-linux-gnueabihf/libz.a" ] ||
   [ ! -f "$armhf_sysroot/usr/lib/arm-linux-gnueabihf/libgtest.a" ]; then
  echo "unpacking into $armhf_sysroot: ${armhf_packages[*]}"
  apt_dir=$(mktemp -d)
  trap 'rm -rf "$apt_dir"' EXIT
  mkdir -p "$apt_dir/lists/partial" "$apt_dir/cache/archives/partial" "$apt_dir/debs"
  mirror=${OVTA_DEBIAN_MIRROR:-http://deb.debian.org/debian}
  echo "deb [arch=armhf signed-by=/usr/share/keyrings/debian-archive-keyring.gpg] $mirror bookworm main" \
    > "$apt_dir/sources.list"
  private=(-o "Dir::Etc::SourceList=$apt_dir/sources.list" -o Dir::Etc::SourceParts=/nonexistent
           -o "Dir::State::Lists=$apt_dir/lists" -o "Dir::Cache=$apt_dir/cache"
           -o Dir::State::status=/dev/null -o APT::Architectures::=armhf -o APT::Sandbox::User=root)
  SUDO= apt_update "${private[@]}"
  (cd "$apt_dir/debs" && apt-get -q "${private[@]}" download "${armhf_packages[@]}" >/dev/null)
  rm -rf "$armhf_sysroot"
  mkdir -p "$armhf_sysroot"
  for deb in "$apt_dir"/debs/*.deb; do dpkg-deb -x "$deb" "$armhf_sysroot"; done
fi
