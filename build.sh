#!/usr/bin/env bash
# Builds Trelvo3_Vectors and runs its main job or its tests.
#   ./build.sh demo [PRESET]   build everything, then run the command-line host on the plug-in
#   ./build.sh test [PRESET]   build everything, then run all tests through ctest
# PRESET is one of release (default), debug, asan, tsan.
# Missing system packages are installed with apt-get first (Debian 12, as root).
set -euo pipefail
cd "$(dirname "$0")"

job=${1:-demo}
preset=${2:-release}

packages=(g++ cmake ninja-build pkg-config libgtest-dev libgmock-dev libbenchmark-dev binutils)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing missing packages: ${missing[*]}"
  if [ "$(id -u)" -ne 0 ]; then
    echo "error: packages missing (${missing[*]}) and not running as root to install them" >&2
    exit 1
  fi
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j "$(nproc)"

case "$job" in
  demo)
    "build/$preset/tools/trelvo-render" --describe
    ;;
  test)
    ctest --preset "$preset"
    ;;
  *)
    echo "error: unknown job '$job' (use demo or test)" >&2
    exit 2
    ;;
esac
