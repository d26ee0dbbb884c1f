#!/usr/bin/env bash
# Installs the Debian packages that building, testing and the demonstration
# need, if any is missing. Runs as root on Debian bookworm.
set -euo pipefail
# Build and tests; the AMT MODE picture (FreeType, DejaVu); benchmarks (Google
# Benchmark, socat as the reference relay); fuzzing (clang with libFuzzer and
# its sanitizer runtimes); coverage (gcovr); the station's plans and records
# (toml++, nlohmann-json), and Python, whose XML parser reads them back in a test.
packages=(cmake ninja-build g++ pkg-config zlib1g-dev libgtest-dev bubblewrap iproute2 util-linux
          libtomlplusplus-dev nlohmann-json3-dev python3
          libfreetype-dev fonts-dejavu-core libbenchmark-dev socat clang libclang-rt-14-dev gcovr)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "installing: ${missing[*]}"
  if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; else SUDO=; fi
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
