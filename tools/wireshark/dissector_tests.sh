#!/bin/sh
# Decodes a capture of library-built frames with tshark and the dissector and compares the fields.
# Usage: dissector_tests.sh <case> <capture writer> <dissector.lua> <work dir>
# Exits 77 (skipped) when tshark is not installed.
set -eu

test_case=$1
writer=$2
lua=$3
work=$4

if ! command -v tshark >/dev/null 2>&1; then
  echo "SKIP: tshark is not installed (Debian: apt-get install tshark); dissector not tested"
  exit 77
fi

mkdir -p "$work"
pcap=$work/$test_case.pcap
failures=0

fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

# tshark with the dissector and the options given; a Lua problem shows on stderr.
decode() {
  if ! tshark -n -r "$pcap" -X lua_script:"$lua" "$@" 2>"$work/$test_case.stderr"; then
    fail "tshark failed: $(cat "$work/$test_case.stderr")"
  fi
  if grep -i "lua" "$work/$test_case.stderr"; then fail "tshark reported a Lua problem"; fi
}

# Writes one line per packet to the .actual file: the fields named after the tshark options in
# $1, separated by |, repeated fields joined by commas.
fields() {
  options=$1
  shift
  set -- $(for field in "$@"; do printf -- '-e %s ' "$field"; done)
  # shellcheck disable=SC2086
  decode $options -T fields -E separator='|' -E occurrence=a -E aggregator=, "$@" \
    >"$work/$test_case.actual"
}

# Compares the .actual file with the expected text in $1.
expect() {
  printf '%s\n' "$1" >"$work/$test_case.expected"
  if ! diff -u "$work/$test_case.expected" "$work/$test_case.actual"; then
    fail "decoded fields differ from the expected ones (- expected, + decoded)"
  fi
}

# Every line given must appear in the detailed (-V) decode.
expect_lines() {
  decode $1 -V >"$work/$test_case.verbose"
  if grep -q "Lua Error" "$work/$test_case.verbose"; then fail "the dissector raised a Lua error"; fi
  printf '%s\n' "$2" | while IFS= read -r line; do
    [ -z "$line" ] && continue
    grep -qF -- "$line" "$work/$test_case.verbose" || echo "$line"
  done >"$work/$test_case.missing"
  if [ -s "$work/$test_case.missing" ]; then
    fail "missing from the detailed decode:"
    cat "$work/$test_case.missing"
  fi
}

case $test_case in
control_messages)
  "$writer" control "$pcap"
  # Columns: type, info, protocol version, echo, cluster, receiver's id, requested id, handler
  # type, slave id, master id, device id, handler version(s), reason.
  fields "-Y tavrin" tavrin.type tavrin.info tavrin.protocol_version tavrin.echo \
    tavrin.cluster_id tavrin.connection_id tavrin.requested_id tavrin.handler_type \
    tavrin.slave_connection_id tavrin.master_connection_id tavrin.device_id \
    tavrin.handler_version tavrin.reason
  expect \
'2|0x00000000|0||||||||||
3|0x00000007|||7||4294967295|5|1||2002|3,2,1|
9|0x00000007|||7|||5|1|42|1001|3|
4|0x0000002a||||42||5|||||
4|0x00000001||||1||5|||||
3|0x00000007|||7||100|1|2||2002|1|
9|0x00000007|||7|||1|2|100|1001|1|
4|0x00000002||||2||1|||||
4|0x00000064||||100||1|||||
5|0x00000007|||7||100|1|3||2002|1|
3|0x00000007|||7||4294967295|5|4||2002|3|
8|0x00000007|||7|||5|4|4294967295|||-8
0|0x1234abcd||0x1234abcd|||||||||
1|0x1234abcd||0x1234abcd|||||||||
6|0x0000002a||||42|||||||1
6|0x00000001||||1|||||||1
7|0x00000001||||1|||||||
6|0xffffffff||||4294967295|||||||-5'
  # The payloads of both ready-made handlers, known from the accept before them.
  fields "-Y tavrin.type==4" tavrin.simple.length tavrin.simple.block tavrin.counter.flags \
    tavrin.counter.value tavrin.counter.name
  expect \
'5|68656c6c6f|||
6|776f726c6421|||
||0x03|5|panel
||0x04||'
  expect_lines "" \
'Type: ping (0)
Type: pong (1)
Type: version (2)
Type: connect (3)
Type: data (4)
Type: moveConnection (5)
Type: disconnect (6)
Type: connectionNotFound (7)
Type: rejectConnection (8)
Type: acceptConnection (9)
Requested master connection id: 4294967295 (automatic)
Master connection id: 4294967295 (none assigned)
Receiver'"'"'s connection id: 4294967295 (whole TCP connection)
Reason: -8 (notAllowed)
Reason: -5 (incompatible)
Reason: 1 (application code)
[Handler type: SimpleConnector (5)]
[Handler type: TestCounter (1)]
Reset request: True'
  ;;
split_frame)
  "$writer" split "$pcap"
  # The connect arrives in three segments (the first too short for the length field) and is
  # decoded once, in the last, from all three.
  fields "" frame.number tcp.segment tavrin.type tavrin.requested_id tavrin.handler_type \
    tavrin.slave_connection_id tavrin.handler_version
  expect \
'1||||||
2||||||
3||||||
4||2||||
5||||||
6||||||
7|5,6,7|3|100|1|9|1'
  ;;
two_frames_in_one_segment)
  "$writer" coalesced "$pcap"
  # version + connect; accept + data whose handler type the accept in front of it gave; ping and
  # the start of a pong; the pong's rest and a disconnect.
  fields "-Y tavrin" frame.number tavrin.type tavrin.slave_connection_id tavrin.handler_type \
    tavrin.connection_id tavrin.simple.length tavrin.echo tavrin.reason
  expect \
'4|2,3|1|5||||
5|9,4|1|5,5|1|3||
6|0|||||0x00000007|
7|1,6|||42||0x00000000|-1'
  ;;
announce_example)
  "$writer" announce "$pcap"
  fields "" tavrin_announce.change_count tavrin_announce.format_version \
    tavrin_announce.network_id tavrin_announce.device_id tavrin_announce.device_name \
    tavrin_announce.connector_count tavrin_announce.connector.version \
    tavrin_announce.connector.record_length tavrin_announce.connector.id \
    tavrin_announce.connector.type tavrin_announce.connector.cluster_id \
    tavrin_announce.connector.ip tavrin_announce.connector.port \
    tavrin_announce.connector.announcement_count tavrin_announce.announcement.id \
    tavrin_announce.announcement.type tavrin_announce.announcement.name \
    tavrin_announce.announcement.available tavrin_announce.end _ws.expert.message
  expect \
'1|0|1|2|AB|1|0|28|3|1|4|192.168.1.10|5000|1|7|5|x|1|0x5a|
1|||||||||||||||||||Length 55 does not fit the datagram of 59 bytes'
  expect_lines "" \
'Connector type: Client (1)
Announcement type: SimpleConnector (5)'
  ;;
malformed_frames)
  "$writer" malformed "$pcap"
  # The second connection is on a port that only the preference names.
  fields "-o tavrin.master_ports:47001 -Y tavrin" frame.number tavrin.type _ws.expert.message \
   
  expect \
'4|2|
5|1|End delimiter is not 0x5A
6|10|Type not used on TCP connections
7|9|Payload ends before the handler version
8|2|Protocol version other than 0: the receiver ends the TCP connection
9||No start delimiter (0xA5) where a frame begins
13||Frame length 3 out of range (6 to 1048576)'
  expect_lines "-o tavrin.master_ports:47001" \
'[Expert Info (Error/Malformed): End delimiter is not 0x5A]
[Expert Info (Error/Malformed): Payload ends before the handler version]
[Expert Info (Error/Malformed): No start delimiter (0xA5) where a frame begins]
[Expert Info (Error/Malformed): Frame length 3 out of range (6 to 1048576)]'
  ;;
*)
  echo "unknown case $test_case"
  exit 2
  ;;
esac

if [ "$failures" -ne 0 ]; then
  echo "$test_case: $failures check(s) failed; files in $work"
  exit 1
fi
echo "$test_case: passed"
