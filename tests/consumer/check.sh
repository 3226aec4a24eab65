#!/bin/sh
# Installs the library into a scratch prefix, then builds and runs the consumer project against it,
# with CMake's package and with pkg-config.
set -eu
build_dir=$1
source_dir=$2
scratch=$3
rm -rf "$scratch"
cmake --install "$build_dir" --prefix "$scratch/prefix" >/dev/null
cmake -S "$source_dir" -B "$scratch/build" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/build" >/dev/null
"$scratch/build/consumer"
if command -v pkg-config >/dev/null 2>&1; then
  PKG_CONFIG_PATH=$(dirname "$(find "$scratch/prefix" -name tavrincommon.pc | head -n 1)")
  export PKG_CONFIG_PATH
  # shellcheck disable=SC2046
  c++ -o "$scratch/consumer-pc" "$source_dir/main.cpp" $(pkg-config --cflags --libs --static tavrincommon)
  "$scratch/consumer-pc"
fi
