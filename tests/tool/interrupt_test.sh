#!/usr/bin/env bash
# Ctrl-C on running kel commands, fed through a FIFO so the test decides
# when the command may go on:
#  1. a long command (sff unpack) stops at its next step after one SIGINT,
#     exits 130 and leaves no output file;
#  2. a command stuck before any progress (blocked opening its input) quits
#     at the second SIGINT with 130.
# usage: interrupt_test.sh KEL SFF_FILE WORK_DIR
set -u
kel=$1 input=$2 work=$3
rm -rf "$work" && mkdir -p "$work" && cd "$work" || exit 1
fail() { echo "FAIL: $*"; echo "--- stderr:"; cat err 2>/dev/null; exit 1; }
# kel runs directly in the background (a wrapper such as timeout(1) would take
# the signals itself); a watchdog kills it should the test hang.
start() {
  "$kel" "$@" >out 2>err &
  pid=$!
  (
    exec >/dev/null 2>&1
    trap 'kill "$nap"; exit 0' TERM
    sleep 60 & nap=$!
    wait "$nap" && kill -9 "$pid"
  ) &
  watchdog=$!
}
# Waits (up to 20 s) until kel blocks or catches SIGINT (it takes Ctrl-C on a
# thread of its own), so a signal sent under load never meets the default
# action before main is ready for it.
wait_for_handler() {
  local blk cgt
  for _ in $(seq 200); do
    blk=$(sed -n 's/^SigBlk:[[:space:]]*//p' "/proc/$pid/status" 2>/dev/null)
    cgt=$(sed -n 's/^SigCgt:[[:space:]]*//p' "/proc/$pid/status" 2>/dev/null)
    [ -n "$blk" ] && [ $(( (0x$blk | 0x$cgt) & 2 )) -ne 0 ] && return 0
    sleep 0.1
  done
  fail "kel never installed its SIGINT handler"
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
wait_for_handler
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

# 2. Nothing to interrupt yet: the second Ctrl-C ends the process.
start sff dump in.fifo
wait_for_handler
kill -INT "$pid"
wait_for_notice
kill -INT "$pid"
finish
[ "$rc" -eq 130 ] || fail "sff dump exited $rc, expected 130"
echo "ok"
