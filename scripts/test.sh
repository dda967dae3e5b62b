#!/usr/bin/env bash
# Installs the dependencies, builds the host build and (where nvcc is present) the CUDA build,
# and runs every test of both. Exits non-zero on any build or test failure.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
jobs=${RUVO_JOBS:-$(nproc)}

bash scripts/install-deps.sh

werror=OFF
if [[ "${CI:-}" == "true" ]]; then werror=ON; fi

configure_build_test() {
  local dir=$1; shift
  echo "=== ${dir}: configure ($*)"
  cmake -S "$root" -B "$root/$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DRUVO_WARNINGS_AS_ERRORS=$werror "$@" >/dev/null
  echo "=== ${dir}: build"
  cmake --build "$root/$dir" -j "$jobs"
  echo "=== ${dir}: test"
  ctest --test-dir "$root/$dir" --output-on-failure -j "$jobs"
}

configure_build_test build/host -DRUVO_WITH_CUDA=OFF

if command -v nvcc >/dev/null 2>&1 || [[ -x /usr/local/cuda/bin/nvcc ]]; then
  configure_build_test build/cuda -DRUVO_WITH_CUDA=ON
else
  echo "=== no nvcc: CUDA build skipped"
fi
echo "=== all tests passed"
