#!/usr/bin/env bash
# Builds the fuzz targets with clang under AddressSanitizer + UndefinedBehaviorSanitizer and runs
# each for a bounded time (first argument, seconds; default 60) from the corpus kept in fuzz/corpus.
# New inputs go to a scratch directory; a crash, a sanitizer finding or an unexpected exception
# fails the run and leaves the reproducer in build/fuzz/artifacts.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
seconds=${1:-60}
jobs=${RUVO_JOBS:-$(nproc)}

CC=clang CXX=clang++ cmake -S "$root" -B "$root/build/fuzz" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DRUVO_WITH_CUDA=OFF -DRUVO_SANITIZE=address -DRUVO_FUZZ=ON \
  -DRUVO_BUILD_TESTS=OFF -DRUVO_BUILD_TOOLS=OFF -DRUVO_BUILD_BENCH=OFF >/dev/null
cmake --build "$root/build/fuzz" -j "$jobs" --target fuzz_config fuzz_controls

mkdir -p "$root/build/fuzz/artifacts"
for target in config controls; do
  scratch=$(mktemp -d)
  echo "=== fuzz_${target}: ${seconds} s"
  log="$root/build/fuzz/fuzz_${target}.log"
  status=0
  ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
    "$root/build/fuzz/fuzz/fuzz_${target}" -max_total_time="$seconds" -print_final_stats=1 -rss_limit_mb=4096 \
    -artifact_prefix="$root/build/fuzz/artifacts/${target}-" "$scratch" "$root/fuzz/corpus/${target}" \
    >"$log" 2>&1 || status=$?
  grep -E "^(stat::number_of_executed_units|stat::new_units_added|Done|INFO: seed corpus)|ERROR|SUMMARY|deadly" "$log" || true
  rm -rf "$scratch"
  if [[ $status -ne 0 ]]; then
    tail -40 "$log" >&2
    echo "fuzz_${target} found a failure (exit $status); reproducer in build/fuzz/artifacts" >&2
    exit 1
  fi
done
