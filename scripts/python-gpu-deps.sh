#!/usr/bin/env bash
# Copies the headers, CMake package files and shared libraries the CUDA build of the Python package
# needs besides a CUDA toolkit and Python (POCO, dlib's headers, libpng, zlib, expat, pcre) from this
# Debian machine into build/gpu-deps/usr (about 25 MB), for a GPU machine that has no Debian -dev
# packages. There:
#   export CMAKE_PREFIX_PATH=$PWD/build/gpu-deps/usr LD_LIBRARY_PATH=$PWD/build/gpu-deps/usr/lib/x86_64-linux-gnu
# and build as README.md ("Planes on the GPU") says.
set -euo pipefail
cd "$(dirname "$0")/.."
out=build/gpu-deps/usr
lib=/usr/lib/x86_64-linux-gnu
rm -rf build/gpu-deps
mkdir -p "$out/include" "$out/lib/x86_64-linux-gnu/cmake"
cp -a /usr/include/Poco /usr/include/dlib /usr/include/libpng16 /usr/include/png.h /usr/include/pngconf.h \
  /usr/include/pnglibconf.h /usr/include/zlib.h /usr/include/zconf.h /usr/include/pcre.h /usr/include/expat.h \
  /usr/include/expat_external.h "$out/include/"
cp -a "$lib/cmake/Poco" "$out/lib/x86_64-linux-gnu/cmake/"
for name in libPocoFoundation libPocoUtil libPocoXML libPocoJSON libpng16 libpng libz libexpat libpcre; do
  cp -a "$lib/$name".so* "$out/lib/x86_64-linux-gnu/"
done
du -sh build/gpu-deps
