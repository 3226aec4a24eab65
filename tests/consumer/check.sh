#!/bin/sh
# Installs the library into a scratch prefix, then builds and runs the consumer project against it,
# with CMake's package and with pkg-config.
# usage: check.sh BUILD_DIR CONSUMER_SOURCE_DIR SCRATCH_DIR CXX [TOOLCHAIN_FILE [EMULATOR...]]
set -eu
build_dir=$1
source_dir=$2
scratch=$3
cxx=$4
shift 4
toolchain=${1:-}
[ $# -gt 0 ] && shift
# The rest, if any, is the command that runs target programs (an emulator for cross-builds).

rm -rf "$scratch"
cmake --install "$build_dir" --prefix "$scratch/prefix" >/dev/null
if [ -n "$toolchain" ]; then
  # A cross toolchain re-roots every search into the target's sysroot: name the package directly.
  config_dir=$(dirname "$(find "$scratch/prefix" -name tavrincommonConfig.cmake | head -n 1)")
  cmake -S "$source_dir" -B "$scratch/build" -G Ninja -Dtavrincommon_DIR="$config_dir" \
    -DCMAKE_TOOLCHAIN_FILE="$toolchain" >/dev/null
else
  cmake -S "$source_dir" -B "$scratch/build" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
fi
cmake --build "$scratch/build" >/dev/null
"$@" "$scratch/build/consumer"

if command -v pkg-config >/dev/null 2>&1; then
  PKG_CONFIG_PATH=$(dirname "$(find "$scratch/prefix" -name tavrincommon.pc | head -n 1)")
  export PKG_CONFIG_PATH
  # shellcheck disable=SC2046
  # The run path lets a shared build's consumer find the library without installing it system-wide.
  "$cxx" -o "$scratch/consumer-pc" "$source_dir/main.cpp" $(pkg-config --cflags --libs --static tavrincommon) \
    -Wl,-rpath,"$(pkg-config --variable=libdir tavrincommon)"
  "$@" "$scratch/consumer-pc"
fi
