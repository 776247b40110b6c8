#!/bin/sh
# Records a metric, a structured and an offline log from the shell, by busctl.
#
# Each call is a process and a connection: with many points, write one per line to a single
# "pelmorctl metric --stream".
#
# A metric's value must be a boolean "b", an integer such as "i" or "x", a double "d" or a string
# "s": any other type aborts the daemon.
set -eu

TYPE=type.example/ap.Example

# record METHOD SIGNATURE ARGUMENT...
record() {
  busctl call --quiet org.quintara.ap.Pelmor /org/quintara/ap/Pelmor/Manager \
    org.quintara.ap.Pelmor.Manager "$@" || {
    echo "record.sh: $1 failed: is the telemetry daemon running?" >&2
    exit 1
  }
}

# The bytes of a text as busctl takes an array: their number, then each byte in decimal.
bytes() {
  printf '%s' "$1" | od -An -v -t u1 -w1 | {
    numbers=$(cat)
    # shellcheck disable=SC2086 # One word per byte.
    set -- $numbers
    echo "$#" "$@"
  }
}

record RecordMetric 'sa{ss}v' example/utilization 2 band 5g language sh d 0.25
# shellcheck disable=SC2046 # One word per byte.
record RecordStructuredData say "$TYPE" $(bytes 'structured from sh')
# shellcheck disable=SC2046 # One word per byte.
record RecordOfflineData say "$TYPE" $(bytes 'offline from sh')
echo Recorded
