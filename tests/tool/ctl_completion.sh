#!/usr/bin/env bash
# What a user gets when completing kvrctl's command line, with a kvrctl that knows two volumes.
set -u
. "$(dirname "$0")/../support/shell.sh"
completion=$("$1" completion)
kvrctl() { [ "$*" = "${expected_call:-volumes --names}" ] && printf 'HarddiskVolume1\nHarddiskVolume12\n'; }
eval "$completion"

# gives "EXPECTED WORDS" WORDS...: the completions of the last word
gives() {
    local expected=$1
    shift
    COMP_WORDS=("$@")
    COMP_CWORD=$(($# - 1))
    _kvrctl
    [ "${COMPREPLY[*]}" = "$expected" ] || fail "'$*' gave '${COMPREPLY[*]}', not '$expected'"
}

gives "status swap" kvrctl s
gives "make remove stop" kvrctl swap ""
gives "protect" kvrctl removable p
gives "HarddiskVolume1 HarddiskVolume12" kvrctl protect Hard
gives "" kvrctl swap make HarddiskVolume1 ""
gives "HarddiskVolume1 HarddiskVolume12" kvrctl removable hide --dry-run ""
gives "on off" kvrctl hardening ""
gives "discard keep" kvrctl protect --at-boot ""
gives "--at-boot" kvrctl protect HarddiskVolume1 --at
gives "ctl_completion.sh" kvrctl config check ctl_compl
gives "" kvrctl --machine ctl_compl
expected_call="--machine pc volumes --names"
gives "HarddiskVolume1 HarddiskVolume12" kvrctl --machine pc merge ""
[ "$failures" -eq 0 ]
