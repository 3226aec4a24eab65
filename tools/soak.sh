#!/bin/bash
# Soak: builds tavrin-soak with the default preset and runs it for MINUTES (10): a master, slaves
# with sequence-checked traffic and hostile peers, all on 127.0.0.1. Further arguments go to
# tavrin-soak (see its --help); TAVRIN_SOAK_BUILD names another build directory. Exits with its
# status: 0 only when no block was lost. Not run by CI.
set -euo pipefail
cd "$(dirname "$0")/.."
minutes="${1:-10}"
build="${TAVRIN_SOAK_BUILD:-build/default}"
cmake --preset default -B "$build" >/dev/null
cmake --build "$build" --target tavrin-soak
exec "$build/tools/tavrin-soak/tavrin-soak" "$minutes" "${@:2}"
