#!/usr/bin/env bash
# Ctrl-C on running kel commands, fed through a FIFO so the test decides
# when the command may go on:
#  1. a long command (sff unpack) stops at its next step after one SIGINT,
#     exits 130 and leaves no output file;
#  2. a command stuck where no step is checked (a plain dump waiting for
#     input) quits at the second SIGINT with 130;
#  3. a command started with SIGINT ignored keeps ignoring it.
# usage: interrupt_test.sh KEL SFF_FILE WORK_DIR
set -u
kel=$1 input=$2 work=$3
rm -rf "$work" && mkdir -p "$work" && cd "$work" || exit 1
fail() { echo "FAIL: $*"; echo "--- stderr:"; cat err 2>/dev/null; exit 1; }
# kel runs in the background (a wrapper such as timeout(1) would take the
# signals itself), with SIGINT back at its default: a script's background
# jobs start with it ignored, which kel respects. A watchdog kills it should
# the test hang.
start() {
  env --default-signal=INT "$kel" "$@" >out 2>err &
  pid=$!
  (
    exec >/dev/null 2>&1
    trap 'kill "$nap"; exit 0' TERM
    sleep 60 & nap=$!
    wait "$nap" && kill -9 "$pid"
  ) &
  watchdog=$!
}
finish() { wait "$pid"; rc=$?; kill "$watchdog" 2>/dev/null; wait "$watchdog" 2>/dev/null; }

# Polls (up to 20 s) until stderr holds the interrupt notice.
wait_for_notice() {
  for _ in $(seq 200); do
    grep -q "stopping at the next step" err && return 0
    sleep 0.1
  done
  fail "no interrupt notice on stderr"
}

# 1. Interrupt mid-stream.
mkfifo in.fifo
start sff unpack in.fifo out.sff
exec 3>in.fifo
head -c 100 "$input" >&3            # the command reads this much, then waits
sleep 0.2
kill -INT "$pid"
wait_for_notice
tail -c +101 "$input" >&3           # its next read sees the interrupt
exec 3>&-
finish
[ "$rc" -eq 130 ] || fail "sff unpack exited $rc, expected 130"
grep -q "^kel: interrupted$" err || fail "no 'kel: interrupted' line"
[ ! -e out.sff ] || fail "partial output out.sff left behind"
[ -z "$(ls -A | grep -v -e '^in.fifo$' -e '^out$' -e '^err$')" ] || fail "stray files: $(ls -A)"

# 2. Stuck in a read: the second Ctrl-C ends the process.
start sff dump in.fifo
exec 3>in.fifo                      # returns once kel has opened its input
kill -INT "$pid"
wait_for_notice
kill -INT "$pid"
finish
exec 3>&-
[ "$rc" -eq 130 ] || fail "sff dump exited $rc, expected 130"

# 3. Started with SIGINT ignored (a script's background job): Ctrl-C passes by.
"$kel" sff dump in.fifo >out 2>err &
pid=$!
exec 3>in.fifo
kill -INT "$pid"
sleep 0.3
cat "$input" >&3
exec 3>&-
wait "$pid"; rc=$?
[ "$rc" -eq 0 ] || fail "sff dump with SIGINT ignored exited $rc, expected 0"
! grep -q "interrupted" err || fail "an ignored SIGINT interrupted the command"
echo "ok"
