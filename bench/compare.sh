#!/bin/bash
# The benchmark figures beside their peers in one table, from an existing build (nothing is built):
#   bench/compare.sh [build directory, default build/default]
# Every benchmark program runs three times (RUNS=n for another count), interleaved: all programs
# once, then all again, so that a slow minute of the machine touches every figure alike. Each row
# shows ours, the peer measured in the same program run, and ours ÷ peer, as the median of the
# runs with [min - max]. A ratio is computed per run before the median is taken. Rows whose peer
# was not compiled in (libuv, asio, spdlog, libzmq missing) are left out; the scale and allocation
# rows have no peer and show their target instead. With valgrind installed, the instruction counts
# of bench/instructions.sh follow the table.
set -euo pipefail
cd "$(dirname "$0")/.."

build=${1:-build/default}
runs=${RUNS:-3}
programs=(scheduler log process transport announce connector scale)
if [[ ! -d $build/bench ]]; then
  echo "no benchmarks in $build (configure with Google Benchmark installed and build first)" >&2
  exit 1
fi
out=$(mktemp -d)
trap 'rm -rf "$out"' EXIT

for ((run = 1; run <= runs; run++)); do
  for program in "${programs[@]}"; do
    binary=$build/bench/tavrin_bench_$program
    if [[ ! -x $binary ]]; then
      echo "skipping $program: $binary is not built" >&2
      continue
    fi
    echo "run $run of $runs: $program" >&2
    if ! "$binary" --benchmark_out="$out/$program.$run.json" --benchmark_out_format=json \
        >"$out/$program.$run.log" 2>&1; then
      echo "$program failed in run $run:" >&2
      tail -n 20 "$out/$program.$run.log" >&2
    fi
  done
done

python3 - "$out" "$runs" <<'EOF'
import glob, json, os, statistics, sys

out, runs = sys.argv[1], int(sys.argv[2])

# Per run: benchmark name -> its entry, across all programs.
results = [{} for _ in range(runs)]
for path in glob.glob(os.path.join(out, "*.json")):
    run = int(path.rsplit(".", 2)[1]) - 1
    with open(path) as f:
        for entry in json.load(f)["benchmarks"]:
            if entry.get("error_occurred"):
                continue
            results[run][entry["name"]] = entry

def find(run, name):
    table = results[run]
    if name in table:
        return table[name]
    for key, entry in table.items():
        if key.startswith(name + "/"):
            return entry
    return None

def value(entry, field):
    if field in ("real_time", "cpu_time", "real_time_ms"):
        scale = {"ns": 1e-3, "us": 1.0, "ms": 1e3, "s": 1e6}[entry.get("time_unit", "ns")]
        us = entry[field.replace("_ms", "")] * scale
        return us / 1000 if field.endswith("_ms") else us
    if field == "GB/s":
        return entry["bytes_per_second"] / 1e9 if "bytes_per_second" in entry else None
    return entry.get(field)

# (figure, ours, field, peer, field): the ratio is ours / peer of these fields.
pairs = []
for size, label in (("16B", "16 B"), ("256B", "256 B"), ("2048B", "2 KiB"), ("65536B", "64 KiB")):
    pairs.append((f"connector msgs/s / one send per message, {label}",
                  f"connector_data/{size}", "msgs/s", f"tcp_frames_permsg/{size}", "msgs/s"))
pairs += [
    ("connector MB/s / ZeroMQ PUSH/PULL, 64 KiB",
     "connector_data/65536B", "MB/s", "zmq_pushpull/65536B", "MB/s"),
    ("CPU us per message / one send per message's, 16 B",
     "connector_data/16B", "cpu_us/msg", "tcp_frames_permsg/16B", "cpu_us/msg"),
    ("CPU us per message / one send per message's, 2 KiB",
     "connector_data/2048B", "cpu_us/msg", "tcp_frames_permsg/2048B", "cpu_us/msg"),
    ("16 B round trip us / raw TCP ping-pong (one CPU)",
     "connector_rtt_same_cpu/16B", "rtt_us", "tcp_pingpong_same_cpu/16B", "rtt_us"),
    ("16 B round trip us / ZeroMQ REQ/REP (one CPU)",
     "connector_rtt_same_cpu/16B", "rtt_us", "zmq_reqrep_same_cpu/16B", "rtt_us"),
    ("receive path GB/s / plain copy, 2 KiB",
     "BM_ReceivePath/2048", "GB/s", "BM_PlainCopy/2048", "GB/s"),
    ("receive path, frames given back as a connection does / plain copy, 2 KiB",
     "BM_ReceivePathRecycled/2048", "GB/s", "BM_PlainCopy/2048", "GB/s"),
    ("enabled log call us / snprintf of the same text",
     "BM_LogEnabledFiveArguments", "real_time", "BM_PeerSnprintfSameText", "real_time"),
    ("enabled log call us / spdlog",
     "BM_LogEnabledFiveArguments", "real_time", "BM_PeerSpdlogEnabledFiveArguments", "real_time"),
    ("log call below level us / spdlog",
     "BM_LogBelowLevel", "real_time", "BM_PeerSpdlogBelowLevel", "real_time"),
    ("timeout arm+disarm among 10,000 us / libuv timer",
     "BM_TimeoutArmDisarmAmong10000", "real_time", "BM_PeerLibuvTimerStopStartAmong10000",
     "real_time"),
    ("worker add and run us / asio post and run",
     "BM_AddWorkerAndRun", "real_time", "BM_PeerAsioPostAndRun", "real_time"),
    ("chain of 1,000 workers us / asio post chain",
     "BM_WorkerChain", "real_time", "BM_PeerAsioPostChain", "real_time"),
    ("cross-thread wake-up round trip us / eventfd ping-pong",
     "BM_CrossThreadWakeupRoundTrip/0", "real_time", "BM_PeerEventfdPingPong/0", "real_time"),
    ("spawn and wait us / bare posix_spawn + waitid",
     "BM_CommandSpawnWait", "real_time", "BM_BarePosixSpawnWaitid", "real_time"),
]
# (figure, benchmark, field, target): the scale figures, ours alone.
scale = "scale_burst/100x10"
singles = [
    ("scale: ms to establish 1,000 from scratch", scale, "real_time_ms", "<= 1000"),
    ("scale: accepted on the first try, of 1,000", scale, "accepted", "1000"),
    ("scale: logical connections established per s", scale, "conns/s", ""),
    ("scale: master heap B per TCP connection", scale, "heap_B/tcp", "<= 8192"),
    ("scale: master heap B per logical connection", scale, "heap_B/logical", "<= 512"),
    ("scale: master CPU % of a core, idle with keep-alives", scale, "idle_cpu_%", "<= 1"),
    ("scale: delivery latency p50 us, 1,000 msgs/s", scale, "p50_us", ""),
    ("scale: delivery latency p99 us, 1,000 msgs/s", scale, "p99_us", ""),
]
for size, label in (("16B", "16 B"), ("2048B", "2 KiB"), ("65536B", "64 KiB")):
    singles.append((f"connector allocations per message, {label}, master / slave",
                    f"connector_data/{size}", ("allocs/msg_master", "allocs/msg_slave"), "0 / 0"))

def spread(values, decimals=None):
    if not values:
        return "-"
    def fmt(x):
        if decimals is not None:
            return f"{x:.{decimals}f}"
        return f"{x:.3g}" if abs(x) < 1000 else f"{x:,.0f}"
    if len(values) == 1:
        return fmt(values[0])
    return f"{fmt(statistics.median(values))} [{fmt(min(values))} - {fmt(max(values))}]"

rows = []
for figure, ours_name, ours_field, peer_name, peer_field in pairs:
    ours, peer, ratio = [], [], []
    for run in range(runs):
        a, b = find(run, ours_name), find(run, peer_name)
        if not a or not b or value(a, ours_field) is None or value(b, peer_field) is None:
            continue
        ours.append(value(a, ours_field))
        peer.append(value(b, peer_field))
        ratio.append(ours[-1] / peer[-1] if peer[-1] else float("nan"))
    if ours:
        rows.append((figure, spread(ours), spread(peer), spread(ratio) + "x"))
for figure, name, field, target in singles:
    fields = field if isinstance(field, tuple) else (field,)
    columns = []
    for f in fields:
        ours = [value(e, f) for e in (find(run, name) for run in range(runs))
                if e and value(e, f) is not None]
        if ours:
            columns.append(spread(ours, 2 if f.startswith("allocs") else None))
    if len(columns) == len(fields):
        rows.append((figure, " / ".join(columns), f"target {target}" if target else "-", "-"))

header = ("figure", "ours", "peer", "ratio")
widths = [max(len(r[i]) for r in rows + [header]) for i in range(4)]
print(f"{runs} runs, interleaved; median [min - max]")
print("| " + " | ".join(h.ljust(w) for h, w in zip(header, widths)) + " |")
print("|" + "|".join("-" * (w + 2) for w in widths) + "|")
for r in rows:
    print("| " + " | ".join(c.ljust(w) for c, w in zip(r, widths)) + " |")
EOF

# Instruction counts do not depend on the machine's load: one run is enough.
if command -v valgrind >/dev/null && [[ -x $build/bench/tavrin_instructions ]]; then
  echo
  echo "user-space instructions per operation (callgrind):"
  bench/instructions.sh "$build"
fi
