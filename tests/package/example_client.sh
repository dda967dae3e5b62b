#!/usr/bin/env bash
# Installs the built library into a scratch prefix, builds examples/minimal_client against the
# installed CMake package and (unless "build-only") runs it on one simulated camera.
set -euo pipefail
build_dir=$1
source_dir=$2
mode=${3:-run}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build_dir" --prefix "$work/prefix" >/dev/null
test -f "$work/prefix/lib/pkgconfig/ruvo_capture.pc" || test -f "$work/prefix/lib/x86_64-linux-gnu/pkgconfig/ruvo_capture.pc" \
  || { echo "pkg-config file not installed"; exit 1; }
cmake -S "$source_dir/examples/minimal_client" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/build" -j2 >/dev/null
if [[ "$mode" == "run" ]]; then
  LD_LIBRARY_PATH="$work/prefix/lib:$work/prefix/lib/x86_64-linux-gnu:${LD_LIBRARY_PATH:-}" "$work/build/minimal_client" "" 1 | tail -3
fi
echo "example client: OK"
