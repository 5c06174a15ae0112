# What a long step says while it runs, on stderr: one line drawn anew on a terminal, elsewhere a line every five
# seconds. Sourced by ./run and ./test.
progress_next=0
tell() {
    if [ -t 2 ]; then
        printf '\r\033[K%.79s' "$1" >&2
    elif [ "$SECONDS" -ge "$progress_next" ]; then
        printf '%s\n' "$1" >&2
        progress_next=$((SECONDS + 5))
    fi
}
end_telling() {
    [ ! -t 2 ] || printf '\r\033[K' >&2
}

# build PRESET [ARGUMENTS OF cmake --build]: configures and builds it. What the compiler says passes through.
build() {
    local line
    tell "$1: configuring"
    cmake --preset "$1" >/dev/null
    NINJA_STATUS="[%f/%t] " cmake --build --preset "$@" | while IFS= read -r line; do
        if [[ $line =~ ^\[([0-9]+)/([0-9]+)\] ]]; then
            tell "$1: built ${BASH_REMATCH[1]} of ${BASH_REMATCH[2]}"
        elif [ "$line" != "ninja: no work to do." ]; then
            end_telling
            printf '%s\n' "$line" >&2
        fi
    done
    end_telling
}

# show_packages: what apt-get with Status-Fd=1 says, "dlstatus:1:12.5:Retrieving file 1 of 50" and the like.
show_packages() {
    local kind percent text
    while IFS=: read -r kind _ percent text; do
        case $kind in
            dlstatus | pmstatus) tell "packages: ${percent%.*} %, $text" ;;
        esac
    done
    end_telling
}
