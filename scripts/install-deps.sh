#!/usr/bin/env bash
# Installs every Debian package the project needs to build, test and benchmark, and the arm64
# cross toolchain, arm64 multiarch libraries and qemu-user of the arm64 stage. Idempotent; run as
# root (no sudo needed). Set RUVO_SKIP_APT=1 to skip when the packages are known present, and
# RUVO_SKIP_ARM64=1 to leave out the arm64 part.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(
  build-essential cmake pkg-config git
  libpoco-dev libdlib-dev libpng-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  gnuplot-nox
  libopencv-core-dev libopencv-imgproc-dev
  clang libclang-rt-14-dev libomp-dev clang-format
  v4l-utils
  python3-dev python3-venv
)

# The arm64 stage: cross compilers, the emulator, and the arm64 libraries the host build links
# (multiarch packages, installed beside the amd64 ones). Poco's CMake package files for arm64
# come from libpoco-dev:arm64, which cannot be installed beside libpoco-dev:amd64 (the two
# conflict), so only its runtime libraries are installed and its development files are unpacked
# into build/arm64-poco (see arm64_poco below).
arm64_packages=(
  crossbuild-essential-arm64 qemu-user libgomp1:arm64
  libpng-dev:arm64 libgtest-dev:arm64 libgmock-dev:arm64
  zlib1g-dev:arm64 libpcre3-dev:arm64 libexpat1-dev:arm64
  libpocofoundation80:arm64 libpocoutil80:arm64 libpocoxml80:arm64 libpocojson80:arm64
)
arm64_poco=build/arm64-poco

# Unpacks libpoco-dev:arm64 into $arm64_poco and links its versioned libraries to the installed
# arm64 runtime libraries, where its CMake package files (relative to their own location) look.
unpack_arm64_poco() {
  [[ -f "$arm64_poco/usr/lib/aarch64-linux-gnu/cmake/Poco/PocoConfig.cmake" ]] && return 0
  echo "install-deps: unpacking libpoco-dev:arm64 into $arm64_poco"
  local download
  download=$(mktemp -d)
  chmod 755 "$download"
  chown _apt "$download" 2>/dev/null || true
  (cd "$download" && apt-get download -qq libpoco-dev:arm64)
  mkdir -p "$arm64_poco"
  dpkg-deb -x "$download"/libpoco-dev_*_arm64.deb "$arm64_poco"
  rm -rf "$download"
  local lib
  for lib in /usr/lib/aarch64-linux-gnu/libPoco*.so.*; do
    ln -sf "$lib" "$arm64_poco/usr/lib/aarch64-linux-gnu/$(basename "$lib")"
  done
}

if [[ "${RUVO_SKIP_APT:-0}" == "1" ]]; then
  exit 0
fi

if [[ "${RUVO_SKIP_ARM64:-0}" != "1" ]]; then
  if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    if [[ $(id -u) -ne 0 ]]; then
      echo "install-deps: the arm64 architecture is not enabled; run this script as root" >&2
      exit 1
    fi
    dpkg --add-architecture arm64
  fi
  packages+=("${arm64_packages[@]}")
fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if ((${#missing[@]} == 0)); then
  echo "install-deps: all ${#packages[@]} packages present"
  if [[ "${RUVO_SKIP_ARM64:-0}" != "1" ]]; then unpack_arm64_poco; fi
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
if [[ "${RUVO_SKIP_ARM64:-0}" != "1" ]]; then unpack_arm64_poco; fi
