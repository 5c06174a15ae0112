#!/usr/bin/env bash
# Several machines on one host: list, status, delete. Argument: kvrhost.
set -u
. "$(dirname "$0")/../support/shell.sh"
kvrhost=$1
scratch=$(mktemp -d /tmp/kvr-list-XXXXXX)
export KVR_MACHINES=$scratch/all:$scratch/apart
trap '"$kvrhost" stop "$scratch/apart" 2>/dev/null; rm -rf "$scratch"' EXIT

# rows: NAME STATE CLIENTS BOOTS DISKS of each machine
rows() { "$kvrhost" list "$@" | awk 'NR > 1 { print $1, $2, $3, $4, $5 }' | paste -sd ';'; }

mkdir "$scratch/all"
truncate -s 64M "$scratch/brought.raw"
for pc in all/one apart; do "$kvrhost" create "$scratch/$pc" --size 64M --fs none --volumes 2 >/dev/null; done
cp "$scratch/all/one/disk0.img" "$scratch/brought.raw"
"$kvrhost" create "$scratch/all/two" --disk "$scratch/brought.raw" >/dev/null
mkdir "$scratch/all/nothing"
"$kvrhost" serve "$scratch/apart" --background >/dev/null

[ "$(rows)" = "one off - - 1;two off - - 1;apart on 0 1 1" ] || fail "list: $(rows)"
[ "$(rows "$scratch/apart")" = "apart on 0 1 1" ] || fail "list of one: $(rows "$scratch/apart")"
"$kvrhost" list --json | python3 -c 'import json, sys
one, two, apart = json.load(sys.stdin)
assert (one["state"], one["clients"], apart["state"], apart["boots"]) == ("off", None, "on", 1), (one, apart)
assert two["disks"][0]["path"].endswith("/brought.raw")' || fail "list --json"
KVR_MACHINES=$scratch/missing refused "cannot look for machines in $scratch/missing" "$kvrhost" list
"$kvrhost" status | grep -q "brought.raw  64 MiB, .* on the host" || fail "status: $("$kvrhost" status)"
runuser -u nobody -- "$kvrhost" --version >/dev/null 2>/dev/null && chmod 755 "$scratch" "$scratch/all" &&
    runuser -u nobody -- "$kvrhost" list "$scratch/all" | grep -Eq "^one +another user's" || fail "another user's"

# Without the flag a client's going is nothing; with it, it is a boot.
boots() { "$kvrhost" list "$scratch/apart" | awk 'NR > 1 { print $4 }'; }
visit() { nbdinfo --size "nbd+unix:///disk0?socket=$scratch/apart/nbd.sock" >/dev/null; }
visit
[ "$(boots)" = 1 ] || fail "a boot that nobody asked for: $(boots)"
"$kvrhost" stop "$scratch/apart"
"$kvrhost" serve --background --reboot-when-idle --idle-seconds 0 "$scratch/apart" >/dev/null || fail "serve --reboot-when-idle"
visit
for ((i = 0; i < 100; i++)); do [ "$(boots)" = 2 ] && break || sleep 0.05; done
[ "$(boots)" = 2 ] || fail "no boot when the last client has gone"

# A volume that is to be protected and is not: said, and an exit code.
printf '[Global]\nProtection = 1\n[FV 1]\nID = \\Device\\HarddiskVolume1\nProtectionMode = 1\nBootMode = 0\n' >"$scratch/text"
"$(dirname "$kvrhost")/kvrctl" --machine "$scratch/apart" config set "$scratch/text" --force >/dev/null || fail "the text"
"$kvrhost" reboot "$scratch/apart" >/dev/null
"$kvrhost" status "$scratch/apart" >"$scratch/said"
[ $? -eq 3 ] || fail "a volume without protection is no exit code"
grep -q "WARNING: .*HarddiskVolume1" "$scratch/said" || fail "status said: $(cat "$scratch/said")"

refused "served already" "$kvrhost" delete "$scratch/apart" --yes
refused "say --yes" "$kvrhost" delete "$scratch/all/one"
[ "$(rows "$scratch/all/one")" = "one off - - 1" ] || fail "a refused deletion deleted"
before=$(sha256sum <"$scratch/brought.raw")
touch "$scratch/all/two/notes"
"$kvrhost" delete "$scratch/all/two" --yes >"$scratch/said" || fail "delete"
grep -q "brought.raw stays" "$scratch/said" || fail "delete does not say what stays"
[ "$(ls "$scratch/all/two")" = notes ] || fail "left of the machine: $(ls "$scratch/all/two")"
[ "$before" = "$(sha256sum <"$scratch/brought.raw")" ] || fail "the disk that was brought changed"
rm "$scratch/all/one/disk0.img"  # a disk that is gone keeps nothing from being deleted
printf 'yes\n' | script -qec "'$kvrhost' delete '$scratch/all/one'" /dev/null >/dev/null || fail "a terminal's yes"
[ -e "$scratch/all/one" ] && fail "the folder is still there"
[ "$failures" -eq 0 ]
