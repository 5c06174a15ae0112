#!/usr/bin/env bash
# The server as its users meet it: kvrhost and nbdkit with clients that nobody here wrote.
# Arguments: kvrhost.
set -u
kvrhost=$1
scratch=$(mktemp -d /tmp/kvr-serve-XXXXXX)
pc=$scratch/pc
failures=0
server=

fail() {
    echo "FAILED: $1"
    failures=$((failures + 1))
}

cleanup() {
    "$kvrhost" stop "$pc" 2>/dev/null
    rm -rf "$scratch"
}
trap cleanup EXIT

uri() { echo "nbd+unix:///$1?socket=$pc/nbd.sock"; }

# refused WORDS COMMAND...: an exit code that is not 0 and one line with WORDS
refused() {
    local words=$1 output
    shift
    if output=$("$@" 2>&1); then fail "'$*' was not refused"; fi
    [ "$(printf '%s\n' "$output" | wc -l)" -eq 1 ] || fail "'$*' said: $output"
    case $output in *"$words"*) ;; *) fail "'$*' said: $output" ;; esac
}

serve() {
    "$kvrhost" serve "$pc" --background >"$scratch/out" || fail "the server does not start"
    server=$(grep -aoE 'process [0-9]+' "$pc/log" | tail -n 1 | cut -d ' ' -f 2)
}

# bytes OFFSET LENGTH of the first volume as a client reads them
bytes() { qemu-io -r -f raw -c "read -v $1 $2" "$(uri HarddiskVolume1)" | grep '^[0-9a-f]*:'; }

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
nbdinfo --json --list "$(uri '')" >"$scratch/info" || fail "nbdinfo"
python3 - "$scratch/info" <<'CHECK' || fail "what nbdinfo says"
import json, sys
exports = {e["export-name"]: e for e in json.load(open(sys.argv[1]))["exports"]}
assert sorted(exports) == ["HarddiskVolume1", "disk0"], sorted(exports)
assert exports["disk0"]["export-size"] == 256 << 20
for e in exports.values():
    assert e["can_flush"] and e["can_fua"] and e["can_multi_conn"] and e["can_zero"], e
    assert not e["can_trim"] and not e["is_read_only"], e
    assert e["block_size_minimum"] == 1 and e["block_size_preferred"] == 4096, e
CHECK
nbdcopy "$(uri disk0)" "$scratch/copy" || fail "nbdcopy from the server"
cmp "$scratch/copy" "$pc/disk0.img" || fail "the copy differs from the image"
head -c 3000000 /dev/urandom >"$scratch/noise"
nbdcopy --flush "$scratch/noise" "$(uri HarddiskVolume1)" || fail "nbdcopy to the server"
cmp -n 3000000 "$scratch/noise" "$pc/disk0.img" 0 1M || fail "the image differs from what was written"

# A kill is a power cut: what it leaves behind is in nobody's way.
qemu-io -f raw -c 'write -P 0x5a -f 1M 64k' "$(uri HarddiskVolume1)" >/dev/null || fail "qemu-io"
before=$(bytes 1M 64k)
kill -KILL "$server"
while [ -d "/proc/$server" ] && [ "$(cut -d ' ' -f 3 <"/proc/$server/stat")" != Z ]; do :; done
serve
[ "$(bytes 1M 64k)" = "$before" ] || fail "a write that was answered is gone after a kill"
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
