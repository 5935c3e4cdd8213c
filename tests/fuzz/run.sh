#!/usr/bin/env bash
# Builds the fuzz targets (the fuzz preset: clang, address and undefined-
# behaviour sanitizers) and runs each in turn for a while, from its seeds in
# tests/fuzz/seeds/<name> and the corpus it has grown in build/fuzz/corpus/<name>.
#   tests/fuzz/run.sh [SECONDS [PROCESSES [TARGET...]]]
# SECONDS per target (default 60), on PROCESSES at once (default 1; libFuzzer's
# -jobs and -workers), for the TARGETs named (default: render image_file). A finding (a failed check, a crash, a leak, a timeout, an
# allocation past the limit) fails the run: its input is kept in
# build/fuzz/findings/<name>/ and replays with build/fuzz/tests/fuzz/<name>_fuzzer FILE.
# The whole output of each target is in build/fuzz/logs/<name>.log.
set -euo pipefail
cd "$(dirname "$0")/../.."

seconds=${1:-60}
processes=${2:-1}
shift $(($# < 2 ? $# : 2))
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=(render image_file)
for name in "${targets[@]}"; do
    case $name in
        render | image_file) ;;
        *) echo "error: no fuzz target '$name' (render, image_file)" >&2; exit 2 ;;
    esac
done

if ! command -v clang++ >/dev/null; then
    echo "error: clang++ is missing: ./build.sh test installs it with the other packages" >&2
    exit 2
fi
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "$(nproc)"

root=$PWD
logs=$root/build/fuzz/logs
failed=0
for name in "${targets[@]}"; do
    corpus=$root/build/fuzz/corpus/$name
    findings=$root/build/fuzz/findings/$name
    log=$logs/$name.log
    mkdir -p "$corpus" "$findings" "$logs"
    flags=(-max_total_time="$seconds" -timeout=30 -print_final_stats=1 -artifact_prefix="$findings/")
    case $name in
        render)
            # A shorter quarantine: the host builds property sets of many small
            # blocks for every case.
            export ASAN_OPTIONS=quarantine_size_mb=32:malloc_context_size=10
            unset LSAN_OPTIONS
            flags+=(-max_len=1024)
            ;;
        image_file)
            # OpenImageIO takes a 64 MiB scratch buffer for every converting
            # read; poisoning its shadow costs a VM a second a read, so heap
            # blocks go unpoisoned here (stack and globals are still checked,
            # and crashes, leaks and allocation sizes still seen). Up to the
            # 4 GiB a read may take. Full stacks for the leak suppressions.
            export ASAN_OPTIONS=poison_heap=0:fast_unwind_on_malloc=0:malloc_context_size=10
            export LSAN_OPTIONS=suppressions=$PWD/tests/fuzz/lsan.supp
            flags+=(-max_len=8192 -malloc_limit_mb=4200 -rss_limit_mb=4200)
            ;;
    esac
    if [ "$processes" -gt 1 ]; then
        flags+=(-jobs="$processes" -workers="$processes")
    fi
    echo "== $name: $seconds s on $processes process(es)"
    start=$(date +%s)
    set +e
    # Run in the log folder: with several processes, each writes its own fuzz-N.log there.
    (cd "$logs" && "$root/build/fuzz/tests/fuzz/${name}_fuzzer" "${flags[@]}" "$corpus" \
        "$root/tests/fuzz/seeds/$name") >"$log" 2>&1
    status=$?
    set -e
    cat "$logs"/fuzz-*.log >>"$log" 2>/dev/null || true
    rm -f "$logs"/fuzz-*.log
    grep -E "^#[0-9]+[[:space:]]+(INITED|DONE)|^stat::" "$log" | tail -8 || true
    # A slow input is reported (libFuzzer keeps it too) but fails nothing: -timeout does.
    find "$findings" -name 'slow-unit-*' -newermt "@$start" -printf "slow input kept: %p\n"
    artifacts=$(find "$findings" -type f ! -name 'slow-unit-*' -newermt "@$start" | head -5)
    if [ "$status" -ne 0 ] || [ -n "$artifacts" ]; then
        echo "FINDING in $name (status $status):"
        grep -E -A30 "ERROR|fuzzer: |runtime error" "$log" | head -60
        echo "inputs: ${artifacts:-see $log}"
        failed=1
    fi
done
exit $failed
