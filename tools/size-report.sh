#!/bin/sh
# Prints the stripped sizes of the static and the shared library, for x86-64 and for 32-bit ARM,
# built Release and MinSizeRel. Builds only the library, in build/size-*.
# usage: tools/size-report.sh   (from anywhere; the ARM rows need g++-arm-linux-gnueabihf)
set -eu
root=$(cd "$(dirname "$0")/.." && pwd)
toolchain="$root/cmake/toolchains/arm-linux-gnueabihf.cmake"

row() {  # arch build-type shared(ON|OFF) strip-command [cmake args...]
  arch=$1 type=$2 shared=$3 strip=$4
  shift 4
  dir="$root/build/size-$arch-$type-$shared"
  cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE="$type" -DBUILD_SHARED_LIBS="$shared" \
    -DTAVRIN_BUILD_TESTS=OFF -DTAVRIN_BUILD_TOOLS=OFF -DTAVRIN_BUILD_BENCHMARKS=OFF "$@" >/dev/null
  cmake --build "$dir" --target tavrincommon >/dev/null
  if [ "$shared" = ON ]; then
    lib=$(find "$dir" -maxdepth 1 -name 'libtavrincommon.so.*.*' | head -n 1)
    kind=shared
  else
    lib="$dir/libtavrincommon.a"
    kind=static
  fi
  cp "$lib" "$dir/stripped"
  "$strip" --strip-unneeded "$dir/stripped" 2>/dev/null || "$strip" "$dir/stripped"
  printf '%-8s %-11s %-7s %10s bytes\n' "$arch" "$type" "$kind" "$(wc -c < "$dir/stripped")"
}

printf '%-8s %-11s %-7s %16s\n' arch build library 'stripped size'
for type in Release MinSizeRel; do
  for shared in OFF ON; do
    row x86-64 "$type" "$shared" strip
    if command -v arm-linux-gnueabihf-g++ >/dev/null 2>&1; then
      row arm "$type" "$shared" arm-linux-gnueabihf-strip -DCMAKE_TOOLCHAIN_FILE="$toolchain"
    fi
  done
done
