#!/usr/bin/env bash
# What a user meets at the command line: each mistake is one clear line on stderr and exit code 2, help is help,
# and nothing stays behind. With "demo" as second argument, one whole demonstration as well.
set -u
. "$(dirname "$0")/../support/shell.sh"
kvrhost=$1
TMPDIR=$(mktemp -d)
export TMPDIR
trap 'rm -rf "$TMPDIR" "$images"' EXIT
images=$(mktemp -d -p /tmp)

# mistaken WORDS ARGUMENTS...: refused, and nothing is left behind
mistaken() {
    local words=$1
    shift
    refused "$words" "$kvrhost" "$@"
    [ -z "$(ls -A "$TMPDIR")" ] || fail "'$*' left something behind"
}

volume() { # volume FILE SIZE
    truncate -s "$2" "$1"
    PATH=$PATH:/usr/sbin:/sbin mkntfs -q -F -Q -p 0 -H 255 -S 63 -s 512 "$1" >/dev/null 2>&1
}

mistaken "which command"
mistaken "nonsense" nonsense
mistaken "did you mean 'serve'?" sreve
made() { # made WORDS ARGUMENTS...: as refused, of create
    local words=$1
    shift
    mistaken "$words" create "$images/never" "$@"
    [ ! -e "$images/never" ] || fail "'$*' made a machine"
}
made "which disk?"
made "'0' is no size" --size 0
made "'1.5X' is no size" --size 1.5X
made "--fs 'fat32': a new volume gets ntfs, ext4 or none" --size 1.5G --fs fat32
made "--layout 'apm': a new disk" --size 64M --layout apm
made "--volumes '129': a disk has 1 to 128" --size 64M --volumes 129
made "--volumes 'x': a disk has" --size 64M --volumes x
made "--sector-size '1024': sectors have 512 or 4096" --disk a --sector-size 1024
made "'b' is not understood here; --disk stands before each image" --disk a b
made "which of them?" --disk a --size 64M
made "--fs is for a new disk" --disk a --fs ext4
made "--sector-size is for images" --size 64M --sector-size 512
mistaken "--nonsense" demo --nonsense
mistaken "--image" demo --image
mistaken "No such file" demo --image "$images/missing"
mistaken "is no file" demo --image "$images"
truncate -s 10M "$images/zeros"
mistaken "no NTFS volume" demo --image "$images/zeros"
truncate -s 0 "$images/empty"
mistaken "no NTFS volume" demo --image "$images/empty"
volume "$images/small" 60M
mistaken "free, the demonstration needs" demo --image "$images/small"
# A volume behind a partition table.
"$kvrhost" create "$images/pc" --size 320M >/dev/null || fail "create"
mv "$images/pc/disk0.img" "$images/whole"
head -c 20M "$images/whole" >"$images/cut"
mistaken "$images/cut" demo --image "$images/cut"
mistaken "No such file" demo --scratch "$images/missing"
mistaken "free, the disk images need" demo --scratch /proc

# ended EXPECTED SIGNAL PARENT|CHILD: what ends the demonstration from outside leaves nothing behind
ended() {
    "$kvrhost" demo >/dev/null 2>&1 &
    local demo=$! target
    until target=$(ps -o pid= --ppid "$demo"); do sleep 0.01; done
    [ "$3" = CHILD ] || target=$demo
    kill "-$2" $target
    wait "$demo"
    [ $? -eq "$1" ] || fail "$2 to the $3 gave another exit code"
    [ -z "$(ls -A "$TMPDIR")" ] || fail "$2 to the $3 left something behind"
}
ended 143 TERM PARENT
ended 137 KILL CHILD

for help in "--help" "demo --help"; do
    # shellcheck disable=SC2086
    "$kvrhost" $help | grep -q 'Usage: kvrhost' || fail "'$help' is no help"
done

if [ "${2:-}" = demo ]; then
    "$kvrhost" demo >"$images/output" 2>&1 || fail "the demonstration gave exit code $?"
    tail -n 1 "$images/output" | grep -Eqx 'kvrhost demo: ([1-9][0-9]*) of \1 checks passed' || fail "no summary"
    [ "$failures" -eq 0 ] || cat "$images/output"
    "$kvrhost" demo --image "$images/whole" >"$images/output" 2>&1 || { fail "of an image"; cat "$images/output"; }
    [ -z "$(ls -A "$TMPDIR")" ] || fail "the demonstration left something behind"
fi
[ "$failures" -eq 0 ]
