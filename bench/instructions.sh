#!/bin/sh
# User-space instructions per operation, counted with callgrind: a connector message end to end
# (the slave handler's send to the master handler's receive) of 16 B and of 2 KiB, a timeout armed
# and disarmed, an enabled log call. Each figure is the difference between two runs of the driver
# with different counts, divided by the difference of the counts, so start-up and tear-down cancel
# out. The figures do not depend on the machine's speed or load, only on the code, the compiler
# and the C library.
#   bench/instructions.sh [build directory]   (default: build/default; needs valgrind)
set -eu

build=${1:-build/default}
driver="$build/bench/tavrin_instructions"
if [ ! -x "$driver" ]; then
  echo "no $driver: build the target tavrin_instructions first" >&2
  exit 1
fi
command -v valgrind >/dev/null || { echo "valgrind is not installed" >&2; exit 1; }

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# instructions <name> <small count> <large count> <driver arguments before the count>...
count() {
  out="$work/$1.$2"
  shift 2
  valgrind --tool=callgrind --callgrind-out-file="$out" "$driver" "$@" >"$out.stdout" 2>"$out.log" ||
    { cat "$out.log" >&2; exit 1; }
  sed -n 's/^totals: *\([0-9]*\).*/\1/p' "$out"
}

measure() {
  name=$1 small=$2 large=$3
  shift 3
  a=$(count "$name" "$small" "$@" "$small")
  b=$(count "$name" "$large" "$@" "$large")
  allocations=$(sed -n 's/^allocations per [^:]*: //p' "$work/$name.$large.stdout")
  awk -v a="$a" -v b="$b" -v s="$small" -v l="$large" -v n="$name" -v m="$allocations" \
    'BEGIN { printf "%-28s %10.0f %12s\n", n, (b - a) / (l - s), m }'
}

printf '%-28s %10s %12s\n' "operation" "instr/op" "allocs/op"
measure "message 16 B" 200 1200 message 16
measure "message 2 KiB" 200 1200 message 2048
measure "timeout arm+disarm" 1000 11000 timeout
measure "enabled log call" 1000 11000 log
