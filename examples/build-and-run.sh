#!/bin/sh
# Builds the three examples against an installed library (a `cmake --install` prefix, or Debian
# packages unpacked with `dpkg-deb -x`), with warnings as errors, then runs them: the custom
# handler's unit test, and a master with a slave that finds it through its announcements, on lo.
# With a toolchain file the examples are cross-built; they run under the emulator that follows it,
# if any, and are only built without one.
# usage: examples/build-and-run.sh PREFIX BUILD_DIR [TOOLCHAIN_FILE [EMULATOR...]]
set -eu
here=$(cd "$(dirname "$0")" && pwd)
prefix=$(cd "$1" && pwd)
mkdir -p "$2"
build=$(cd "$2" && pwd)
shift 2
toolchain=${1:-}
[ -z "$toolchain" ] || toolchain=$(cd "$(dirname "$toolchain")" && pwd)/$(basename "$toolchain")
[ $# -gt 0 ] && shift
# The rest, if any, is the command that runs target programs.

flags="-Wall -Wextra -Wpedantic -Wshadow -Werror"
config=$(find "$prefix" -name tavrincommonConfig.cmake | head -n 1)
[ -n "$config" ] || { echo "no tavrincommonConfig.cmake under $prefix" >&2; exit 1; }
for example in master slave custom-handler; do
  if [ -n "$toolchain" ]; then
    # A cross toolchain re-roots package searches into the target's sysroot: name the package.
    cmake -S "$here/$example" -B "$build/$example" -G Ninja -DCMAKE_CXX_FLAGS="$flags" \
      -DCMAKE_TOOLCHAIN_FILE="$toolchain" -Dtavrincommon_DIR="$(dirname "$config")" >/dev/null
  else
    cmake -S "$here/$example" -B "$build/$example" -G Ninja -DCMAKE_CXX_FLAGS="$flags" \
      -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
  fi
  cmake --build "$build/$example" >/dev/null
  echo "built $example"
done
if [ -n "$toolchain" ] && [ $# -eq 0 ]; then
  exit 0
fi

ctest --test-dir "$build/custom-handler" --output-on-failure

# A group port of this run's own, so that runs side by side on one machine do not meet.
port=$((31000 + $$ % 2000))
"$@" "$build/master/example-master" --port "$port" --once --seconds 30 &
master=$!
status=0
"$@" "$build/slave/example-slave" --port "$port" --seconds 20 || status=$?
[ "$status" -eq 0 ] || kill "$master" 2>/dev/null || true
wait "$master" || status=$?
exit "$status"
