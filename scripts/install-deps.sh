#!/usr/bin/env bash
# Installs every Debian package the project needs to build, test and benchmark. Idempotent;
# run as root (no sudo needed). Set RUVO_SKIP_APT=1 to skip when the packages are known present.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git
  libpoco-dev libdlib-dev libpng-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  gnuplot-nox
  libopencv-core-dev libopencv-imgproc-dev
  clang libclang-rt-14-dev libomp-dev clang-format
  v4l-utils
)

if [[ "${RUVO_SKIP_APT:-0}" == "1" ]]; then
  exit 0
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if ((${#missing[@]} == 0)); then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

if [[ $(id -u) -ne 0 ]]; then
  echo "install-deps: missing packages (${missing[*]}); run this script as root" >&2
  exit 1
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
apt-get update -qq
apt-get install -y -qq --no-install-recommends "${missing[@]}"
