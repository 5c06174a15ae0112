#!/usr/bin/env bash
# The server as its users meet it at kvrhost's command line, and its end. What clients get is in proofs/.
# Arguments: kvrhost.
set -u
. "$(dirname "$0")/../support/shell.sh"
kvrhost=$1
scratch=$(mktemp -d /tmp/kvr-serve-XXXXXX)
pc=$scratch/pc
server=

cleanup() {
    "$kvrhost" stop "$pc" 2>/dev/null
    rm -rf "$scratch"
}
trap cleanup EXIT

serve() {
    "$kvrhost" serve "$pc" --background >"$scratch/out" || fail "the server does not start"
    server=$(grep -aoE 'process [0-9]+' "$pc/log" | tail -n 1 | cut -d ' ' -f 2)
}

refused "no machine" "$kvrhost" serve "$scratch/nowhere"
refused "which disk" "$kvrhost" create "$pc"
[ -e "$pc" ] && fail "a refused creation left a folder"
"$kvrhost" create "$pc" --size 256M --layout mbr >/dev/null || fail "create"
refused "no empty folder" "$kvrhost" create "$pc" --size 256M
refused "not being served" "$kvrhost" stop "$pc"

serve
[ "$(stat -c %a "$pc/nbd.sock" "$pc/control.sock" | tr '\n' ' ')" = "600 600 " ] || fail "the sockets' modes"
refused "served already" "$kvrhost" serve "$pc"
refused "another program" "$kvrhost" create "$scratch/other" --disk "$pc/disk0.img"
if [ "$(id -u)" -eq 0 ]; then  # who can become somebody else
    chmod 711 "$scratch"
    cp "$kvrhost" "$scratch/theirs"
    for command in stop log reboot serve; do
        refused "another user" setpriv --reuid 65534 --clear-groups "$scratch/theirs" "$command" "$pc"
    done
fi
"$kvrhost" reboot "$pc" || fail "reboot"
grep -q "boot 2 is up" <("$kvrhost" log "$pc") || fail "the log does not tell of the reboot"

# A client that is connected and silent keeps neither the tool nor a signal waiting.
python3 - "$pc" "$scratch/ready" <<'CLIENT' &
import os, socket, sys, time
s = socket.socket(socket.AF_UNIX)
s.connect(sys.argv[1] + "/nbd.sock")
s.recv(18)
open(sys.argv[2], "w")
s.recv(1)
CLIENT
client=$!
while [ ! -e "$scratch/ready" ]; do :; done
timeout 20 "$kvrhost" stop "$pc" || fail "stop with a silent client"
wait "$client"
[ -e "$pc/nbd.sock" ] || [ -e "$pc/control.sock" ] && fail "the end left sockets behind"
serve
kill -TERM "$server"
while [ -d "/proc/$server" ] && [ "$(cut -d ' ' -f 3 <"/proc/$server/stat")" != Z ]; do :; done
tail -n 1 "$pc/log" | grep -q "server: ends" || fail "a signal does not shut the machine down"

[ $failures -eq 0 ] && echo "passed"
exit $failures
