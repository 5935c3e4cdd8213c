#!/usr/bin/env bash
# Builds Trelvo3_Vectors and runs its main job or its tests.
#   ./build.sh demo [PRESET]   build everything, then render the demo shot through the plug-in
#   ./build.sh test [PRESET]   build everything, then run all tests through ctest
# PRESET is one of release (default), debug, asan, tsan.
# Missing system packages are installed with apt-get first (Debian 12, as root).
set -euo pipefail
cd "$(dirname "$0")"

job=${1:-demo}
preset=${2:-release}

# clang, its sanitizer and libFuzzer runtimes and llvm-symbolizer: the fuzz preset (tests/fuzz/run.sh);
# clang-format and clang-tidy: .ci/format-check and .ci/clang-tidy.
packages=(g++ cmake ninja-build pkg-config binutils libgtest-dev libgmock-dev libbenchmark-dev
          clang libclang-rt-14-dev llvm clang-format clang-tidy
          libopenimageio-dev openimageio-tools
          libopencv-core-dev libopencv-imgproc-dev libopencv-video-dev libopencv-features2d-dev)
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
    # The demo shot through the plug-in: frames 1-8 of a synthetic shot with
    # exact vectors, rendered by the command-line host, then frame 4 before
    # (left) and after (right) side by side.
    tools="build/$preset/tools"
    demo="build/$preset/demo"
    rm -rf "$demo"
    mkdir -p "$demo/render"
    start=$(date +%s%N)
    "$tools/trelvo-makeshot" --out "$demo/shot"
    "$tools/trelvo-render" --source "$demo/shot/source.####.exr" --vectors "$demo/shot/vectors.####.exr" \
      --output "$demo/render/blurred.####.exr" --max-displace 32 --amount 1.5
    oiiotool "$demo/shot/source.0004.exr" --ch R,G,B "$demo/render/blurred.0004.exr" --ch R,G,B \
      --mosaic:pad=8 2x1 --colorconvert linear sRGB -d uint8 -o "$demo/before_after.png"
    echo "demo: $demo/before_after.png (frame 4, before | after) in $(( ($(date +%s%N) - start) / 1000000 )) ms"
    ;;
  test)
    ctest --preset "$preset"
    ;;
  *)
    echo "error: unknown job '$job' (use demo or test)" >&2
    exit 2
    ;;
esac
