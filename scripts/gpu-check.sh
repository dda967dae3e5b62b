#!/usr/bin/env bash
# Verifies the CUDA build on a machine with an NVIDIA GPU, in one command:
#   1. builds the CUDA build for the local device's architecture only (build/gpu-check);
#   2. runs every test and fails if any test was skipped (none may skip for lack of a device);
#   3. runs compute-sanitizer (memcheck, racecheck, synccheck) over every kernel launch, and memcheck
#      over the camera tests;
#   4. runs the pipeline benchmark for every configuration at 2688x1520 and prints the achieved
#      bandwidth against the device's peak (queried from the device);
# and writes everything to one report file (build/gpu-check/report.txt, or $RUVO_GPU_REPORT).
# Where there is no GPU it fails at once with a one-line message. RUVO_GPU_CTEST_EXCLUDE, a ctest -E
# regular expression, leaves out tests that need host tools the GPU machine lacks (the report names it).
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

gpus=$(nvidia-smi --query-gpu=name,compute_cap --format=csv,noheader 2>/dev/null | grep -E ', [0-9]+\.[0-9]+$' || true)
if [[ -z "$gpus" ]]; then
  echo "gpu-check: no NVIDIA GPU here (nvidia-smi lists none); run this on a machine with one" >&2
  exit 1
fi
if ! command -v compute-sanitizer >/dev/null 2>&1 && [[ ! -x /usr/local/cuda/bin/compute-sanitizer ]]; then
  echo "gpu-check: compute-sanitizer not found (it comes with the CUDA toolkit)" >&2
  exit 1
fi
export PATH=$PATH:/usr/local/cuda/bin
dir=build/gpu-check
report=${RUVO_GPU_REPORT:-$root/$dir/report.txt}
mkdir -p "$root/$dir" "$(dirname "$report")"
exec > >(tee "$report") 2>&1

arch=$(head -n1 <<<"$gpus" | awk -F', ' '{ gsub(/\./, "", $2); print $2 }')
echo "=== device: $(head -n1 <<<"$gpus") -> architecture $arch"

echo "=== 1. CUDA build for $arch"
cmake -S "$root" -B "$root/$dir" -DCMAKE_BUILD_TYPE=Release -DRUVO_WITH_CUDA=ON -DCMAKE_CUDA_ARCHITECTURES="$arch" \
  -DRUVO_BUILD_BENCH=ON >/dev/null
cmake --build "$root/$dir" -j "$(nproc)"

echo "=== 2. every test, none skipped for lack of a device"
exclude=()
if [[ -n "${RUVO_GPU_CTEST_EXCLUDE:-}" ]]; then
  echo "left out by RUVO_GPU_CTEST_EXCLUDE: $RUVO_GPU_CTEST_EXCLUDE"
  exclude=(-E "$RUVO_GPU_CTEST_EXCLUDE")
fi
if ! ctest --test-dir "$root/$dir" -V -j "$(nproc)" "${exclude[@]}" >"$root/$dir/ctest.log" 2>&1; then
  grep -E "Failed|\*\*\*" "$root/$dir/ctest.log" | tail -n 40
  echo "gpu-check: tests failed (whole output: $dir/ctest.log)" >&2
  exit 1
fi
grep -E "tests passed|Total Test time" "$root/$dir/ctest.log"
grep "\[  SKIPPED \] [^0-9]" "$root/$dir/ctest.log" || true
if grep -q "no CUDA device" "$root/$dir/ctest.log"; then
  echo "gpu-check: tests were skipped for lack of a CUDA device on a machine with a GPU" >&2
  exit 1
fi

echo "=== 3. compute-sanitizer"
# test_dispatch_cuda runs every kernel of every configuration, mode and size on the device and
# compares it with the host build, so each tool sees every launch; the camera tests add the
# capture path (memory attachment, streams, the raw conversion) under memcheck.
for tool in memcheck racecheck synccheck; do
  echo "--- $tool test_dispatch_cuda"
  compute-sanitizer --tool "$tool" --error-exitcode 1 "$root/$dir/tests/test_dispatch_cuda" --gtest_brief=1
done
echo "--- memcheck test_camera"
compute-sanitizer --tool memcheck --error-exitcode 1 "$root/$dir/tests/test_camera" --gtest_brief=1 \
  --gtest_filter='Camera.*:-*DeathTest*'

echo "=== 4. pipeline at 2688x1520, achieved bandwidth against the device's peak"
"$root/$dir/bench/bench_pipeline" --benchmark_filter='pipeline/.*/2688x1520/' \
  --benchmark_out="$root/$dir/bench_pipeline.json" --benchmark_out_format=json >/dev/null
python3 - "$root/$dir/bench_pipeline.json" <<'EOF'
import json, sys
data = json.load(open(sys.argv[1]))
peak = float(data["context"].get("device_peak_GB/s", "nan"))
print(f"device peak: {peak:.1f} GB/s")
for b in data["benchmarks"]:
    if b.get("error_occurred"):
        sys.exit(f"gpu-check: {b['name']}: {b.get('error_message')}")
    print(f"{b['name']:60s} {b['real_time']:8.3f} ms  {b['GB/s']:7.1f} GB/s  {100 * b['GB/s'] / peak:5.1f} % of peak")
EOF
echo "=== gpu-check passed; report: $report"
