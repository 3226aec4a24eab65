#!/bin/sh
# The tools run against each other on loopback.
# usage: tool_tests.sh CASE BINDIR [EMULATOR]
# Multicast stays on lo: every tool is given interface lo, and the announcing side binds to
# 127.0.0.1 with TTL 0 (the demo's defaults). Group and ports are derived from the process id so
# that builds testing at the same time never hear each other.
set -u
CASE=$1
BIN=$2
EMU=${3:-}
DEMO="$EMU $BIN/tavrin-demo/tavrin-demo"
BROWSE="$EMU $BIN/tavrin-browse/tavrin-browse"
CONNECT="$EMU $BIN/tavrin-connect/tavrin-connect"
WORK=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null; rm -rf "$WORK"' EXIT
GROUP=239.255.$((80 + $$ % 100)).$((1 + $$ % 250))
PORT=$((30000 + $$ % 20000))
ANNOUNCE="--group $GROUP --port $PORT --interface lo"

fail() {
  echo "FAIL: $*"
  for f in "$WORK"/*.txt; do [ -f "$f" ] && { echo "--- $f"; tail -n 60 "$f"; }; done
  exit 1
}

# Polls until FILE holds a line matching PATTERN, for at most SECONDS.
wait_for() {
  file=$1 pattern=$2 tenths=$(($3 * 10))
  while [ "$tenths" -gt 0 ]; do
    grep -q -- "$pattern" "$file" 2>/dev/null && return 0
    sleep 0.1
    tenths=$((tenths - 1))
  done
  return 1
}

case $CASE in
every_tool_answers_help_and_version)
  for tool in "$DEMO" "$BROWSE" "$CONNECT"; do
    $tool --help > "$WORK/help.txt" || fail "$tool --help"
    grep -q -- "--log-level" "$WORK/help.txt" || fail "$tool --help lacks --log-level"
    grep -q "SIGUSR1" "$WORK/help.txt" || fail "$tool --help lacks SIGUSR1"
    $tool --version | grep -q "libtavrincommon" || fail "$tool --version"
    $tool --no-such-option 2> /dev/null
    [ $? -eq 2 ] || fail "$tool: an unknown option is not exit status 2"
  done
  ;;

demo_runs_both_devices_end_to_end)
  start=$(date +%s)
  $DEMO $ANNOUNCE > "$WORK/demo.txt" 2>&1
  status=$?
  [ $status -eq 0 ] || fail "demo exit status $status"
  [ $(( $(date +%s) - start )) -le 10 ] || fail "demo took more than 10 s"
  for line in "master  -- TCP connector master 1 listening on 127.0.0.1:" \
      "slave   -- query: echo pipe and test counter 100 of cluster 7" \
      "slave   -- all 16 blocks came back, 757737 bytes, every byte checked" \
      "slave   -- the master reset its counter to 0 on request" \
      "master  -- SimpleConnector connection 1 from 127.0.0.1 ended: application reason (1)" \
      "master  TCPConnector: Info: Created connection 100 (type 1, version 1)" \
      "--- dump: master ---" "--- dump: slave ---" "MC Announce Master:" "MC Announce Client:" \
      "tavrin-demo: OK in"; do
    grep -q -- "$line" "$WORK/demo.txt" || fail "no line '$line' in the transcript"
  done
  # A slave alone finds nothing, and says so.
  $DEMO $ANNOUNCE --port $((PORT + 1)) --role slave --timeout 1 > "$WORK/alone.txt" 2>&1
  [ $? -eq 1 ] || fail "a slave without a master does not fail"
  grep -q "FAILED after .* still waiting for a master's announcement" "$WORK/alone.txt" ||
    fail "a slave without a master gives no reason"
  ;;

browse_sees_a_master_come_and_go)
  $BROWSE $ANNOUNCE --json --duration 20 > "$WORK/browse.txt" 2>&1 &
  browse=$!
  $DEMO $ANNOUNCE --role master > "$WORK/master.txt" 2>&1 &
  master=$!
  wait_for "$WORK/browse.txt" '"state":"added"' 10 || fail "browse did not see the master"
  grep '"state":"added"' "$WORK/browse.txt" | grep -q \
    '"deviceId":1001,"deviceName":"tavrin-demo master".*"typeName":"Panel Master".*"clusterId":7,"endpoint":"127.0.0.1:[0-9]*","announcements":\[{"id":1,"type":5,"name":"echo pipe","available":true},{"id":100,"type":1,"name":"test counter","available":true},{"id":200,"type":5,"name":"spare pipe","available":false}\]' ||
    fail "browse shows the master wrongly"
  kill -USR1 $master
  wait_for "$WORK/master.txt" "--- dump: master ---" 5 || fail "the demo did not dump on SIGUSR1"
  kill -TERM $master
  wait $master || fail "the demo master did not end cleanly on SIGTERM"
  # The master's farewell removes it at once, long before its time-out.
  wait_for "$WORK/browse.txt" '"state":"removed"' 5 || fail "browse did not see the master leave"
  kill -INT $browse
  wait $browse || fail "browse did not end cleanly on SIGINT"
  # The table form of the same picture.
  $DEMO $ANNOUNCE --role master --duration 3 > "$WORK/master2.txt" 2>&1 &
  $BROWSE $ANNOUNCE --first --duration 8 > "$WORK/table.txt" 2>&1 || fail "browse --first saw nothing"
  grep -q "announcement 100    type 1     TestCounter      available      'test counter'" \
    "$WORK/table.txt" || fail "the table lacks the test counter"
  ;;

connect_pipes_a_file_through_a_listening_master)
  # Bytes 0..255 over and over, then the tail of a prime-sized stretch: no block boundary falls
  # on a round number.
  awk 'BEGIN { for (i = 0; i < 300007; i++) printf "%c", i % 251 + 1 }' > "$WORK/in.bin"
  cat "$WORK/in.bin" "$WORK/in.bin" "$WORK/in.bin" "$WORK/in.bin" > "$WORK/input.bin"
  $CONNECT --listen 127.0.0.1:0 --cluster-id 9 < /dev/null > "$WORK/out.bin" 2> "$WORK/listen.txt" &
  listener=$!
  wait_for "$WORK/listen.txt" "listening on" 5 || fail "the listener did not start"
  port=$(sed -n 's/.*listening on 127\.0\.0\.1:\([0-9]*\).*/\1/p' "$WORK/listen.txt")
  $CONNECT 127.0.0.1:$port --cluster-id 9 < "$WORK/input.bin" > /dev/null 2> "$WORK/client.txt" ||
    fail "the client failed"
  wait $listener || fail "the listener failed"
  cmp "$WORK/input.bin" "$WORK/out.bin" || fail "the output differs from the input"
  grep -q "ended by the peer: application reason (1)" "$WORK/listen.txt" || fail "no end reason"

  # Refusals name their reason and exit with 64 + n.
  $CONNECT --listen 127.0.0.1:0 --cluster-id 9 --keep < /dev/null > /dev/null 2> "$WORK/keep.txt" &
  listener=$!
  wait_for "$WORK/keep.txt" "listening on" 5 || fail "the second listener did not start"
  port=$(sed -n 's/.*listening on 127\.0\.0\.1:\([0-9]*\).*/\1/p' "$WORK/keep.txt")
  echo x | $CONNECT 127.0.0.1:$port --cluster-id 8 2> "$WORK/cluster.txt"
  [ $? -eq 70 ] || fail "a wrong cluster id is not exit status 70"
  grep -q "rejected: wrongClusterId (-6)" "$WORK/cluster.txt" || fail "no wrongClusterId text"
  echo x | $CONNECT 127.0.0.1:$port --cluster-id 9 --id 5 2> "$WORK/id.txt"
  [ $? -eq 72 ] || fail "an id that is not allowed is not exit status 72"
  grep -q "rejected: notAllowed (-8)" "$WORK/id.txt" || fail "no notAllowed text"
  kill -INT $listener
  wait $listener || fail "the listener did not end cleanly on SIGINT"
  echo x | $CONNECT 127.0.0.1:$port 2> "$WORK/closed.txt"
  [ $? -eq 68 ] || fail "a port without a master is not exit status 68"
  grep -q "connectionInterrupted (-4); is a master listening there?" "$WORK/closed.txt" ||
    fail "no message for a port without a master"
  ;;

*)
  echo "unknown case $CASE"
  exit 2
  ;;
esac
echo "PASS: $CASE"
