# What the scripts that try command lines share. `failures` counts what did not hold.
failures=0

fail() {
    echo "FAILED: $1"
    failures=$((failures + 1))
}

# refused WORDS COMMAND...: exit code 2 and one line on stderr, with WORDS
refused() {
    local words=$1 output
    shift
    output=$("$@" 2>&1 >/dev/null </dev/null)
    [ $? -eq 2 ] || fail "'$*' was not refused"
    [ "$(printf '%s\n' "$output" | wc -l)" -eq 1 ] || fail "'$*' said: $output"
    case $output in *"$words"*) ;; *) fail "'$*' said: $output" ;; esac
}
