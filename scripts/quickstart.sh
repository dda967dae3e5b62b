#!/usr/bin/env bash
# Installs the packages, builds the host build and runs the capture tool on its built-in
# default (two simulated cameras on a test chart), then says where the pictures are.
set -euo pipefail
cd "$(dirname "$0")/.."
RUVO_SKIP_ARM64=1 bash scripts/install-deps.sh  # the arm64 cross toolchain is only for the tests
cmake -S . -B build/host -DRUVO_WITH_CUDA=OFF -DCMAKE_BUILD_TYPE=Release -DRUVO_BUILD_TESTS=OFF >/dev/null
cmake --build build/host -j "$(nproc)" --target ruvo-capture
out=${RUVO_CAPTURE_OUT:-$(pwd)/ruvo-capture-out}
build/host/tools/ruvo-capture run --output "$out" "$@"
